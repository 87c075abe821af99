// Feeds arbitrary bytes to the bootstrap reader. Besides the sanitizers'
// checks (no read past the end, no overflow, no leak), whatever record a read
// leaves must survive a write and a fresh read unchanged, byte form included.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "bootstrapspecs.h"

namespace {

typedef SvrBootstrapSpecsSerializer Serializer;

void Fail(char const* what, std::string const& form) {
  std::fprintf(stderr, "bootstrap round trip: %s (form of %zu bytes)\n", what, form.size());
  std::abort();
}

// Writes `specs`, reads the result into a fresh record, and checks that
// nothing changed: the records are identical and writing the copy gives the
// same bytes.
void CheckRoundTrip(SvrBootstrapSpecs const& specs) {
  std::string form;
  Serializer::serializeSpecs(specs, form);
  std::size_t items = specs.GetStrataVarList().size() + specs.GetDependVarList().size() +
                      specs.GetInputVarList().size() + specs.GetPredictedVarList().size() +
                      specs.GetResidualVarList().size() + specs.GetAuxIndexList().size();
  if (form.size() != 55 + 4 * items + 12 * specs.GetAuxPairList().size()) {
    Fail("written length does not match the record", form);
  }
  SvrBootstrapSpecs copy;
  Serializer::deserializeSpecs(form, copy);
  if (!copy.IdenticalTo(specs)) Fail("record changed", form);
  std::string again;
  Serializer::serializeSpecs(copy, again);
  if (again != form) Fail("second writing differs", form);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, std::size_t size) {
  std::string const in(reinterpret_cast<char const*>(data), size);

  // Into a fresh record.
  SvrBootstrapSpecs fresh;
  Serializer::deserializeSpecs(in, fresh);
  CheckRoundTrip(fresh);

  // Into a record that already holds every variable list, twice, so the
  // paths that keep a list on a count of 0 and that append auxiliary items
  // behind held ones are walked too.
  SvrBootstrapSpecs held;
  held.SetStrataVarList({1, -2});
  held.SetDependVarList({3});
  held.SetInputVarList({4});
  held.SetPredictedVarList({5});
  held.SetResidualVarList({6});
  Serializer::deserializeSpecs(in, held);
  Serializer::deserializeSpecs(in, held);
  CheckRoundTrip(held);
  return 0;
}
