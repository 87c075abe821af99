// Reconciliation of the snapshot with the live dictionary.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "ServerDataManager.h"

namespace {

std::vector<QUOR_Variable> MakeVariables(int n) {
  std::vector<QUOR_Variable> variables;
  variables.reserve(n);
  for (int i = 0; i < n; ++i) {
    variables.emplace_back(LocallyUniqueID(1, static_cast<uint32_t>(i + 1)), "v" + std::to_string(i));
  }
  return variables;
}

// The least an Update that finds no difference can do: walk two lists of the
// same n handles side by side and compare each pair's identifier and
// definition address. The two vectors share their definitions, as a snapshot
// shares them with the live dictionary.
void BM_Baseline_CompareHandles(benchmark::State& state) {
  std::vector<QUOR_Variable> live = MakeVariables(static_cast<int>(state.range(0)));
  std::vector<QUOR_Variable> snapshot = live;
  for (auto _ : state) {
    benchmark::DoNotOptimize(live.data());
    benchmark::DoNotOptimize(snapshot.data());
    std::size_t differences = 0;
    for (std::size_t i = 0; i < live.size(); ++i) {
      if (live[i].GetID() != snapshot[i].GetID() ||
          live[i].Definition() != snapshot[i].Definition()) {
        ++differences;
      }
    }
    benchmark::DoNotOptimize(differences);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_Baseline_CompareHandles)->Arg(1000)->Arg(100000);

}  // namespace
