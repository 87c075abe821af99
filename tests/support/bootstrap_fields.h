// The fields of a bootstrap record as texts, in the order its byte form
// carries them, so a test can say which fields a read changed.
#ifndef SDM_TESTS_SUPPORT_BOOTSTRAP_FIELDS_H
#define SDM_TESTS_SUPPORT_BOOTSTRAP_FIELDS_H

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "ServerDataManager.h"

namespace bootstrap_fields {

// Index of each field in what FieldsInStreamOrder returns.
enum Field {
  kSampling = 0,
  kStrata, kDepend, kInput, kPredicted, kResidual,  // the five variable lists
  kAuxIndex, kAuxPair,
  kLevel, kType, kSamples, kExclude,
  kFieldCount
};

inline std::string IntItem(int32_t item) { return std::to_string(item) + ","; }
inline std::string IndexItem(uint32_t item) { return std::to_string(item) + ","; }
// Doubles by their bits, so that every value, NaN and -0.0 included, is told apart.
inline std::string PairItem(double first, uint32_t second) {
  uint64_t bits;
  std::memcpy(&bits, &first, sizeof bits);
  return std::to_string(bits) + ":" + std::to_string(second) + ",";
}

inline std::vector<std::string> FieldsInStreamOrder(SvrBootstrapSpecs const& specs) {
  auto ints = [](std::vector<int> const& list) {
    std::string text;
    for (int item : list) text += IntItem(item);
    return text;
  };
  std::string indexes;
  for (unsigned int item : specs.GetAuxIndexList()) indexes += IndexItem(item);
  std::string pairs;
  for (auto const& pair : specs.GetAuxPairList()) pairs += PairItem(pair.first, pair.second);
  double level = specs.GetCILevelPct();
  uint64_t levelBits;
  std::memcpy(&levelBits, &level, sizeof levelBits);
  return {std::to_string(specs.GetSamplingMethod()),
          ints(specs.GetStrataVarList()),
          ints(specs.GetDependVarList()),
          ints(specs.GetInputVarList()),
          ints(specs.GetPredictedVarList()),
          ints(specs.GetResidualVarList()),
          indexes,
          pairs,
          std::to_string(levelBits),
          std::to_string(specs.GetCIType()),
          std::to_string(specs.GetNSamples()),
          specs.GetExcludeUserMiss() ? "true" : "false"};
}

}  // namespace bootstrap_fields

#endif  // SDM_TESTS_SUPPORT_BOOTSTRAP_FIELDS_H
