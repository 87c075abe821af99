// The bootstrap record's byte form, written and read, against a plain copy of
// the same number of bytes.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "ServerDataManager.h"

namespace {

constexpr int kItems = 1000;

void AppendU32(std::string& out, uint32_t value) {
  char bytes[sizeof value];
  std::memcpy(bytes, &value, sizeof value);  // the form is in this machine's byte order
  out.append(bytes, sizeof bytes);
}

void AppendF64(std::string& out, double value) {
  char bytes[sizeof value];
  std::memcpy(bytes, &value, sizeof value);
  out.append(bytes, sizeof bytes);
}

// The byte form of a record with kItems items in every one of its seven
// lists. The two auxiliary lists have no setter and are filled only by
// reading, so the form is put together here: the writer's own output for the
// five variable lists, with the two auxiliary lists spliced in where it wrote
// their empty counts.
std::string LargeForm() {
  std::vector<int> list(kItems);
  for (int i = 0; i < kItems; ++i) list[i] = i * 7 - 3000;
  SvrBootstrapSpecs specs;
  specs.SetStrataVarList(list);
  specs.SetDependVarList(list);
  specs.SetInputVarList(list);
  specs.SetPredictedVarList(list);
  specs.SetResidualVarList(list);
  std::string plain;
  SvrBootstrapSpecsSerializer::serializeSpecs(specs, plain);

  // Mark, version, method, then five counted lists; then the two empty
  // auxiliary counts, 8 bytes, which the splice replaces.
  std::size_t auxAt = 2 + 4 + 4 + 5 * (4 + 4 * kItems);
  std::string form = plain.substr(0, auxAt);
  AppendU32(form, kItems);
  for (int i = 0; i < kItems; ++i) AppendU32(form, static_cast<uint32_t>(i * 3));
  AppendU32(form, kItems);
  for (int i = 0; i < kItems; ++i) {
    AppendF64(form, i * 0.25);
    AppendU32(form, static_cast<uint32_t>(i));
  }
  form.append(plain, auxAt + 8, std::string::npos);
  return form;
}

// The record that LargeForm describes, or an error on `state` if the reader
// and writer do not agree on it (the figures would then measure nothing).
bool LargeRecord(benchmark::State& state, SvrBootstrapSpecs& specs, std::string& form) {
  form = LargeForm();
  SvrBootstrapSpecsSerializer::deserializeSpecs(form, specs);
  std::string again;
  SvrBootstrapSpecsSerializer::serializeSpecs(specs, again);
  if (again != form || specs.GetAuxPairList().size() != static_cast<std::size_t>(kItems)) {
    state.SkipWithError("the large bootstrap form does not round-trip");
    return false;
  }
  return true;
}

// Into a fresh string each time, as a caller that wants the form alone does.
void BM_Bootstrap_SerializeSpecs(benchmark::State& state) {
  SvrBootstrapSpecs specs;
  std::string form;
  if (!LargeRecord(state, specs, form)) return;
  for (auto _ : state) {
    std::string out;
    SvrBootstrapSpecsSerializer::serializeSpecs(specs, out);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * form.size());
}
BENCHMARK(BM_Bootstrap_SerializeSpecs);

// Into a fresh record each time: reading appends to the auxiliary lists.
void BM_Bootstrap_DeserializeSpecs(benchmark::State& state) {
  SvrBootstrapSpecs specs;
  std::string form;
  if (!LargeRecord(state, specs, form)) return;
  for (auto _ : state) {
    SvrBootstrapSpecs read;
    SvrBootstrapSpecsSerializer::deserializeSpecs(form, read);
    benchmark::DoNotOptimize(&read);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * form.size());
}
BENCHMARK(BM_Bootstrap_DeserializeSpecs);

// The floor for both: copying the form's bytes into a buffer of their size.
void BM_Baseline_MemcpySpecsBytes(benchmark::State& state) {
  std::string form = LargeForm();
  std::vector<char> buffer(form.size());
  for (auto _ : state) {
    benchmark::DoNotOptimize(form.data());
    std::memcpy(buffer.data(), form.data(), form.size());
    benchmark::DoNotOptimize(buffer.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * form.size());
}
BENCHMARK(BM_Baseline_MemcpySpecsBytes);

}  // namespace
