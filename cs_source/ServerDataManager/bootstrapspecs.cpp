#include "bootstrapspecs.h"

#include <cstddef>
#include <cstring>

namespace {

#if defined(__BYTE_ORDER__) && defined(__ORDER_BIG_ENDIAN__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
constexpr bool kHostBigEndian = true;
#else
constexpr bool kHostBigEndian = false;
#endif

constexpr uint16_t kByteOrderMark = 1;
constexpr uint32_t kFormatVersion = 1;

uint64_t DoubleBits(double value) {
  uint64_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  return bits;
}

double BitsToDouble(uint64_t bits) {
  double value;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

// Appends fixed-width values in this machine's byte order, built by shifts
// so the code says which byte goes first.
class ByteWriter {
 public:
  explicit ByteWriter(std::string& out) : out_(out) {}

  void Byte(uint8_t value) { out_.push_back(static_cast<char>(value)); }
  void U16(uint16_t value) { Put(value, 2); }
  void U32(uint32_t value) { Put(value, 4); }
  void I32(int32_t value) { Put(static_cast<uint32_t>(value), 4); }
  void F64(double value) { Put(DoubleBits(value), 8); }
  void Count(std::size_t size) { U32(static_cast<uint32_t>(size)); }

 private:
  void Put(uint64_t value, int width) {
    for (int i = 0; i < width; ++i) {
      int byteIndex = kHostBigEndian ? width - 1 - i : i;
      Byte(static_cast<uint8_t>(value >> (8 * byteIndex)));
    }
  }

  std::string& out_;
};

// Reads fixed-width values from a byte string without ever looking past its
// end: every read first checks that the whole value is there and reports
// false if not. `swapped` means the writer's byte order is the opposite of
// this machine's.
class ByteReader {
 public:
  explicit ByteReader(std::string const& in)
      : data_(reinterpret_cast<unsigned char const*>(in.data())), size_(in.size()) {}

  void SetSwapped(bool swapped) { swapped_ = swapped; }
  std::size_t Remaining() const { return size_ - pos_; }

  bool Byte(uint8_t& value) {
    if (Remaining() < 1) return false;
    value = data_[pos_++];
    return true;
  }
  bool U16(uint16_t& value) {
    uint64_t wide;
    if (!Take(2, wide)) return false;
    value = static_cast<uint16_t>(wide);
    return true;
  }
  bool U32(uint32_t& value) {
    uint64_t wide;
    if (!Take(4, wide)) return false;
    value = static_cast<uint32_t>(wide);
    return true;
  }
  bool I32(int32_t& value) {
    uint32_t bits;
    if (!U32(bits)) return false;
    value = static_cast<int32_t>(bits);
    return true;
  }
  bool F64(double& value) {
    uint64_t bits;
    if (!Take(8, bits)) return false;
    value = BitsToDouble(bits);
    return true;
  }
  // Reads a list's count and succeeds only if all `count` items of
  // `itemWidth` bytes are there too, so a corrupt count can neither run past
  // the end nor make the caller allocate for items that do not exist.
  bool Count(std::size_t itemWidth, uint32_t& count) {
    if (!U32(count)) return false;
    return count <= Remaining() / itemWidth;
  }

 private:
  bool Take(int width, uint64_t& value) {
    if (Remaining() < static_cast<std::size_t>(width)) return false;
    bool bigEndian = kHostBigEndian != swapped_;
    uint64_t result = 0;
    for (int i = 0; i < width; ++i) {
      int byteIndex = bigEndian ? width - 1 - i : i;
      result |= static_cast<uint64_t>(data_[pos_ + i]) << (8 * byteIndex);
    }
    pos_ += width;
    value = result;
    return true;
  }

  unsigned char const* data_;
  std::size_t size_;
  std::size_t pos_ = 0;
  bool swapped_ = false;
};

void WriteIntList(ByteWriter& writer, std::vector<int> const& list) {
  writer.Count(list.size());
  for (int item : list) writer.I32(item);
}

// Reads one variable list. False when it does not fit whole. A count of 0
// leaves `apply` uncalled, so the record's list stays as it was.
template <typename Setter>
bool ReadIntList(ByteReader& reader, Setter apply) {
  uint32_t count;
  if (!reader.Count(4, count)) return false;
  if (count == 0) return true;
  std::vector<int> list;
  list.reserve(count);
  for (uint32_t i = 0; i < count; ++i) {
    int32_t item = 0;
    reader.I32(item);  // Cannot fail: Count checked the room for every item.
    list.push_back(item);
  }
  apply(list);
  return true;
}

void WriteListLine(std::ostream& out, char const* label, std::vector<int> const& list) {
  out << label;
  if (list.empty()) out << " none";
  for (int item : list) out << ' ' << item;
  out << std::endl;
}

char const* SamplingWord(SvrBootstrapSpecs::SampMethods method) {
  switch (method) {
    case SvrBootstrapSpecs::Simple: return "Simple";
    case SvrBootstrapSpecs::Stratified: return "Stratified";
    case SvrBootstrapSpecs::Residual: return "Residual";
    case SvrBootstrapSpecs::Wild: return "Wild";
  }
  return "unknown";
}

char const* CITypeWord(SvrBootstrapSpecs::CITypes type) {
  switch (type) {
    case SvrBootstrapSpecs::Percentile: return "Percentile";
    case SvrBootstrapSpecs::BCA: return "BCA";
  }
  return "unknown";
}

}  // namespace

SvrBootstrapSpecs::SvrBootstrapSpecs()
    : samplingMethod(Simple), ciLevelPct(95.0), ciType(Percentile), nSamples(1000),
      excludeUserMiss(true) {}

bool SvrBootstrapSpecs::IdenticalTo(SvrBootstrapSpecs const& other) const {
  if (auxPairList.size() != other.auxPairList.size()) return false;
  for (std::size_t i = 0; i < auxPairList.size(); ++i) {
    if (DoubleBits(auxPairList[i].first) != DoubleBits(other.auxPairList[i].first) ||
        auxPairList[i].second != other.auxPairList[i].second) {
      return false;
    }
  }
  return samplingMethod == other.samplingMethod && strataVarList == other.strataVarList &&
         dependVarList == other.dependVarList && inputVarList == other.inputVarList &&
         predictedVarList == other.predictedVarList &&
         residualVarList == other.residualVarList && auxIndexList == other.auxIndexList &&
         DoubleBits(ciLevelPct) == DoubleBits(other.ciLevelPct) && ciType == other.ciType &&
         nSamples == other.nSamples && excludeUserMiss == other.excludeUserMiss;
}

void SvrBootstrapSpecs::Display(std::ostream& out) const {
  out << "Start displaying Bootstrap Specifications\n" << std::endl;
  out << "Sampling Method = " << SamplingWord(samplingMethod) << std::endl;
  WriteListLine(out, "Strata Variables =", strataVarList);
  WriteListLine(out, "Dependent Variables =", dependVarList);
  WriteListLine(out, "Input Variables =", inputVarList);
  WriteListLine(out, "Predicted Value Variables =", predictedVarList);
  WriteListLine(out, "Residual Value Variables =", residualVarList);
  out << "Confidence Interval Level as percent = " << ciLevelPct << std::endl;
  out << "Confidence Interval Type = " << CITypeWord(ciType) << std::endl;
  out << "Number of samples = " << nSamples << std::endl;
  // The closing lines are not flushed: the caller flushes when it is done.
  out << (excludeUserMiss ? "User-missing variable values are excluded\n"
                          : "User-missing variable values are included\n");
  out << "\nEnd displaying Bootstrap Specifications\n";
}

void SvrBootstrapSpecsSerializer::serializeSpecs(SvrBootstrapSpecs const& specs,
                                                 std::string& out) {
  ByteWriter writer(out);
  writer.U16(kByteOrderMark);
  writer.U32(kFormatVersion);
  writer.I32(specs.GetSamplingMethod());
  WriteIntList(writer, specs.GetStrataVarList());
  WriteIntList(writer, specs.GetDependVarList());
  WriteIntList(writer, specs.GetInputVarList());
  WriteIntList(writer, specs.GetPredictedVarList());
  WriteIntList(writer, specs.GetResidualVarList());
  writer.Count(specs.auxIndexList.size());
  for (unsigned int item : specs.auxIndexList) writer.U32(item);
  writer.Count(specs.auxPairList.size());
  for (SvrBootstrapSpecs::AuxPair const& pair : specs.auxPairList) {
    writer.F64(pair.first);
    writer.U32(pair.second);
  }
  writer.F64(specs.GetCILevelPct());
  writer.I32(specs.GetCIType());
  writer.I32(specs.GetNSamples());
  writer.Byte(specs.GetExcludeUserMiss() ? 1 : 0);
}

void SvrBootstrapSpecsSerializer::deserializeSpecs(std::string const& in,
                                                   SvrBootstrapSpecs& specs) {
  // Each field goes into `specs` as soon as it is read, so a return at any
  // step keeps what came before it; see the header for short strings.
  ByteReader reader(in);

  uint16_t mark;
  if (!reader.U16(mark)) return;
  // The mark is read in this machine's order: anything but 1, not only the
  // swapped 1, means the writer used the other order.
  reader.SetSwapped(mark != kByteOrderMark);

  uint32_t version;
  if (!reader.U32(version) || version != kFormatVersion) return;

  int32_t method;
  if (!reader.I32(method)) return;
  specs.SetSamplingMethod(static_cast<SvrBootstrapSpecs::SampMethods>(method));

  auto setStrata = [&specs](std::vector<int> const& list) { specs.SetStrataVarList(list); };
  auto setDepend = [&specs](std::vector<int> const& list) { specs.SetDependVarList(list); };
  auto setInput = [&specs](std::vector<int> const& list) { specs.SetInputVarList(list); };
  auto setPredicted = [&specs](std::vector<int> const& list) { specs.SetPredictedVarList(list); };
  auto setResidual = [&specs](std::vector<int> const& list) { specs.SetResidualVarList(list); };
  if (!ReadIntList(reader, setStrata) || !ReadIntList(reader, setDepend) ||
      !ReadIntList(reader, setInput) || !ReadIntList(reader, setPredicted) ||
      !ReadIntList(reader, setResidual)) {
    return;
  }

  // The auxiliary lists are appended to, never replaced: items already held
  // stay in front.
  uint32_t count;
  if (!reader.Count(4, count)) return;
  specs.auxIndexList.reserve(specs.auxIndexList.size() + count);
  for (uint32_t i = 0; i < count; ++i) {
    uint32_t item = 0;
    reader.U32(item);
    specs.auxIndexList.push_back(item);
  }

  if (!reader.Count(12, count)) return;
  specs.auxPairList.reserve(specs.auxPairList.size() + count);
  for (uint32_t i = 0; i < count; ++i) {
    // Each member of the pair is reversed by itself under conversion.
    double first = 0.0;
    uint32_t second = 0;
    reader.F64(first);
    reader.U32(second);
    specs.auxPairList.emplace_back(first, second);
  }

  double level;
  if (!reader.F64(level)) return;
  specs.SetCILevelPct(level);

  int32_t type;
  if (!reader.I32(type)) return;
  specs.SetCIType(static_cast<SvrBootstrapSpecs::CITypes>(type));

  int32_t samples;
  if (!reader.I32(samples)) return;
  specs.SetNSamples(samples);

  uint8_t exclude;
  if (!reader.Byte(exclude)) return;
  specs.SetExcludeUserMiss(exclude != 0);
}
