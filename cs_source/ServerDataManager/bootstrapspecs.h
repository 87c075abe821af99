// The bootstrap specification of a dataset and its byte form.
#ifndef SDM_BOOTSTRAPSPECS_H
#define SDM_BOOTSTRAPSPECS_H

#include <cstdint>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "sdmexport.h"

// How a bootstrap run on a dataset is to be done: sampling, variable roles,
// confidence interval, sample count, user-missing values. A plain value
// record with no invariant; an item that is handed one owns it. One thread at
// a time.
class SDM_EXPORT SvrBootstrapSpecs {
 public:
  // Stored 32 bits wide; any other integer may stand in them and is kept.
  enum SampMethods : int32_t { Simple = 0, Stratified = 1, Residual = 2, Wild = 3 };
  enum CITypes : int32_t { Percentile = 0, BCA = 1 };

  typedef std::pair<double, unsigned int> AuxPair;

  // Simple sampling, empty lists, 95 percent percentile interval, 1000
  // samples, user-missing values excluded.
  SvrBootstrapSpecs();

  SampMethods GetSamplingMethod() const { return samplingMethod; }
  void SetSamplingMethod(SampMethods method) { samplingMethod = method; }

  // The list setters copy: the caller keeps its vector.
  std::vector<int> const& GetStrataVarList() const { return strataVarList; }
  void SetStrataVarList(std::vector<int> const& list) { strataVarList = list; }
  std::vector<int> const& GetDependVarList() const { return dependVarList; }
  void SetDependVarList(std::vector<int> const& list) { dependVarList = list; }
  std::vector<int> const& GetInputVarList() const { return inputVarList; }
  void SetInputVarList(std::vector<int> const& list) { inputVarList = list; }
  std::vector<int> const& GetPredictedVarList() const { return predictedVarList; }
  void SetPredictedVarList(std::vector<int> const& list) { predictedVarList = list; }
  std::vector<int> const& GetResidualVarList() const { return residualVarList; }
  void SetResidualVarList(std::vector<int> const& list) { residualVarList = list; }

  double GetCILevelPct() const { return ciLevelPct; }
  void SetCILevelPct(double pct) { ciLevelPct = pct; }
  CITypes GetCIType() const { return ciType; }
  void SetCIType(CITypes type) { ciType = type; }
  int GetNSamples() const { return nSamples; }
  void SetNSamples(int n) { nSamples = n; }
  bool GetExcludeUserMiss() const { return excludeUserMiss; }
  void SetExcludeUserMiss(bool exclude) { excludeUserMiss = exclude; }

  // Read-only views of the two lists that only the byte form fills.
  std::vector<unsigned int> const& GetAuxIndexList() const { return auxIndexList; }
  std::vector<AuxPair> const& GetAuxPairList() const { return auxPairList; }

  // True when every field, the two auxiliary lists included, holds the same
  // value. Doubles are compared by their bits, so a NaN matches the same NaN
  // and 0.0 does not match -0.0: this is the equality a byte-form round trip
  // keeps.
  bool IdenticalTo(SvrBootstrapSpecs const& other) const;

  // Writes a readable account of the record, flushing after the blank line
  // under the title and after each line from "Sampling Method" to "Number of
  // samples", not after the title or the closing lines. Uses the stream's own
  // number formatting.
  void Display(std::ostream& out) const;

 private:
  friend class SvrBootstrapSpecsSerializer;

  SampMethods samplingMethod;
  std::vector<int> strataVarList;
  std::vector<int> dependVarList;
  std::vector<int> inputVarList;
  std::vector<int> predictedVarList;
  std::vector<int> residualVarList;
  std::vector<unsigned int> auxIndexList;
  std::vector<AuxPair> auxPairList;
  double ciLevelPct;
  CITypes ciType;
  int nSamples;
  bool excludeUserMiss;
};

// Turns a SvrBootstrapSpecs into its byte form and back. No state; both
// operations are static and may run on any thread for distinct records.
//
// The form: a 16-bit byte-order mark (1), a 32-bit format version (1), then
// the fields with no padding, every multi-byte value in the writer's byte
// order: sampling method, five variable lists, the auxiliary index list and
// the auxiliary pair list (each a 32-bit count and its items; a pair is an
// 8-byte double then a 32-bit unsigned), the level as an 8-byte double, the
// interval type, the sample count, and one byte for excluding user-missing
// values. A default record is 55 bytes.
class SDM_EXPORT SvrBootstrapSpecsSerializer {
 public:
  SvrBootstrapSpecsSerializer() = delete;

  // Appends the form of `specs` to `out`, in this machine's byte order.
  static void serializeSpecs(SvrBootstrapSpecs const& specs, std::string& out);

  // Reads the form at the start of `in` into `specs`, field by field through
  // its setters; bytes after the last field are ignored. A mark other than
  // 1 means the writer's byte order was the other one. A version other than
  // 1 leaves `specs` untouched. A variable list with count 0 keeps the list
  // `specs` holds; otherwise the list is replaced. Auxiliary items are
  // appended behind those already held.
  //
  // A string too short for the whole form: the reader never looks past the
  // end of `in`. It stops silently at the first field that does not fit
  // whole, and `specs` keeps every field read before it. A list counts as one
  // field made of its count and all its items: when the count promises more
  // items than the bytes left can hold, none of them is taken and that list
  // keeps what it held. So a string shorter than the 6 bytes of mark and
  // version leaves `specs` untouched. Nothing tells the caller; a caller who
  // must know compares the length with what serializeSpecs writes.
  static void deserializeSpecs(std::string const& in, SvrBootstrapSpecs& specs);
};

#endif  // SDM_BOOTSTRAPSPECS_H
