#include "bootstrapspecs.h"

#include <cassert>
#include <cstddef>
#include <cstring>

namespace {

constexpr uint16_t kByteOrderMark = 1;
constexpr uint32_t kFormatVersion = 1;
// Mark, version, method, seven counts, level, interval type, sample count
// and the one byte at the end.
constexpr std::size_t kEmptyFormLength = 2 + 4 + 4 + 7 * 4 + 8 + 4 + 4 + 1;

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

// The form is in this machine's byte order, which its mark announces, so a
// value's bytes are its bytes in memory: each fixed-width value is copied
// out of or into its own variable by these two, and a reader of the other
// order reverses it with Swap.
template <typename T>
char* Store(char* at, T value) {
  std::memcpy(at, &value, sizeof value);
  return at + sizeof value;
}

template <typename T>
T Load(unsigned char const* at) {
  T value;
  std::memcpy(&value, at, sizeof value);
  return value;
}

uint16_t Swap(uint16_t value) { return __builtin_bswap16(value); }
uint32_t Swap(uint32_t value) { return __builtin_bswap32(value); }
uint64_t Swap(uint64_t value) { return __builtin_bswap64(value); }

// Writes fixed-width values into room the caller has made: the form's
// length is known before the first byte, so the string grows once and the
// writer never checks for space.
class ByteWriter {
 public:
  explicit ByteWriter(char* at) : at_(at) {}

  char* Position() const { return at_; }

  void Byte(uint8_t value) { *at_++ = static_cast<char>(value); }
  void U16(uint16_t value) { at_ = Store(at_, value); }
  void U32(uint32_t value) { at_ = Store(at_, value); }
  void I32(int32_t value) { at_ = Store(at_, static_cast<uint32_t>(value)); }
  void F64(double value) { at_ = Store(at_, DoubleBits(value)); }
  void Count(std::size_t size) { U32(static_cast<uint32_t>(size)); }

  // A list's items, 4 bytes each in this machine's order: exactly the bytes
  // of the array of 32-bit integers, copied as one block.
  template <typename Int>
  void Items(std::vector<Int> const& items) {
    static_assert(sizeof(Int) == 4, "list items are 32 bits wide");
    if (items.empty()) return;
    std::memcpy(at_, items.data(), 4 * items.size());
    at_ += 4 * items.size();
  }

 private:
  char* at_;
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
    if (Remaining() < 2) return false;
    value = Take<uint16_t>();
    return true;
  }
  bool U32(uint32_t& value) {
    if (Remaining() < 4) return false;
    value = Take<uint32_t>();
    return true;
  }
  bool I32(int32_t& value) {
    uint32_t bits;
    if (!U32(bits)) return false;
    value = static_cast<int32_t>(bits);
    return true;
  }
  bool F64(double& value) {
    if (Remaining() < 8) return false;
    value = BitsToDouble(Take<uint64_t>());
    return true;
  }
  // Reads a list's count and succeeds only if all `count` items of
  // `itemWidth` bytes are there too, so a corrupt count can neither run past
  // the end nor make the caller allocate for items that do not exist.
  bool Count(std::size_t itemWidth, uint32_t& count) {
    if (!U32(count)) return false;
    return count <= Remaining() / itemWidth;
  }

  // The items of a list whose count Count has accepted, 4 bytes each, into
  // `items`, which holds that many: the room was checked once for the list.
  template <typename Int>
  void Items(Int* items, std::size_t count) {
    static_assert(sizeof(Int) == 4, "list items are 32 bits wide");
    unsigned char const* at = data_ + pos_;
    if (swapped_) {
      for (std::size_t i = 0; i < count; ++i) {
        items[i] = static_cast<Int>(Swap(Load<uint32_t>(at + 4 * i)));
      }
    } else if (count != 0) {
      // In this machine's order the bytes are those of the array itself.
      std::memcpy(items, at, 4 * count);
    }
    pos_ += 4 * count;
  }
  // The auxiliary pairs of a list whose count Count has accepted, 12 bytes
  // each, into `pairs`, which holds that many: the double, then the unsigned
  // value, each reversed by itself under conversion. Written member by
  // member in place: a pair built aside and copied in is two narrow stores
  // read back as one wide load, which stalls on every item.
  void Pairs(SvrBootstrapSpecs::AuxPair* pairs, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      pairs[i].first = BitsToDouble(Take<uint64_t>());
      pairs[i].second = Take<uint32_t>();
    }
  }

 private:
  template <typename T>
  T Take() {
    T value = Load<T>(data_ + pos_);
    pos_ += sizeof value;
    return swapped_ ? Swap(value) : value;
  }

  unsigned char const* data_;
  std::size_t size_;
  std::size_t pos_ = 0;
  bool swapped_ = false;
};

void WriteIntList(ByteWriter& writer, std::vector<int> const& list) {
  writer.Count(list.size());
  writer.Items(list);
}

// Reads one variable list. False when it does not fit whole. A count of 0
// leaves `apply` uncalled, so the record's list stays as it was.
template <typename Setter>
bool ReadIntList(ByteReader& reader, Setter apply) {
  uint32_t count;
  if (!reader.Count(4, count)) return false;
  if (count == 0) return true;
  std::vector<int> list(count);
  reader.Items(list.data(), count);
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
    case SvrBootstrapSpecs::Simple:
      return "Simple";
    case SvrBootstrapSpecs::Stratified:
      return "Stratified";
    case SvrBootstrapSpecs::Residual:
      return "Residual";
    case SvrBootstrapSpecs::Wild:
      return "Wild";
  }
  return "unknown";
}

char const* CITypeWord(SvrBootstrapSpecs::CITypes type) {
  switch (type) {
    case SvrBootstrapSpecs::Percentile:
      return "Percentile";
    case SvrBootstrapSpecs::BCA:
      return "BCA";
  }
  return "unknown";
}

}  // namespace

SvrBootstrapSpecs::SvrBootstrapSpecs()
    : samplingMethod(Simple),
      ciLevelPct(95.0),
      ciType(Percentile),
      nSamples(1000),
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
         predictedVarList == other.predictedVarList && residualVarList == other.residualVarList &&
         auxIndexList == other.auxIndexList &&
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

void SvrBootstrapSpecsSerializer::serializeSpecs(SvrBootstrapSpecs const& specs, std::string& out) {
  std::size_t const items = specs.strataVarList.size() + specs.dependVarList.size() +
                            specs.inputVarList.size() + specs.predictedVarList.size() +
                            specs.residualVarList.size() + specs.auxIndexList.size();
  std::size_t const length = kEmptyFormLength + 4 * items + 12 * specs.auxPairList.size();
  std::size_t const start = out.size();
  out.resize(start + length);
  ByteWriter writer(&out[start]);
  writer.U16(kByteOrderMark);
  writer.U32(kFormatVersion);
  writer.I32(specs.GetSamplingMethod());
  WriteIntList(writer, specs.GetStrataVarList());
  WriteIntList(writer, specs.GetDependVarList());
  WriteIntList(writer, specs.GetInputVarList());
  WriteIntList(writer, specs.GetPredictedVarList());
  WriteIntList(writer, specs.GetResidualVarList());
  writer.Count(specs.auxIndexList.size());
  writer.Items(specs.auxIndexList);
  writer.Count(specs.auxPairList.size());
  for (SvrBootstrapSpecs::AuxPair const& pair : specs.auxPairList) {
    writer.F64(pair.first);
    writer.U32(pair.second);
  }
  writer.F64(specs.GetCILevelPct());
  writer.I32(specs.GetCIType());
  writer.I32(specs.GetNSamples());
  writer.Byte(specs.GetExcludeUserMiss() ? 1 : 0);
  assert(writer.Position() == &out[0] + out.size());
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
  std::size_t const held = specs.auxIndexList.size();
  specs.auxIndexList.resize(held + count);
  reader.Items(specs.auxIndexList.data() + held, count);

  if (!reader.Count(12, count)) return;
  std::size_t const heldPairs = specs.auxPairList.size();
  specs.auxPairList.resize(heldPairs + count);
  reader.Pairs(specs.auxPairList.data() + heldPairs, count);

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
