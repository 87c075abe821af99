// Every truncation of every seed of the bootstrap fuzz corpus, and every
// count field of each seed set to 0, 1, the items that remain, one more,
// 2^31 and 2^32-1. Each form is read into a fresh record and into one that
// holds something in every list. The reader may keep only fields that fit
// whole, must take a list whole or not at all, and must never allocate more
// than the input could justify.
#include <dirent.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ServerDataManager.h"
#include "support/bootstrap_fields.h"
#include "support/failing_new.h"

namespace {

using namespace bootstrap_fields;

#if defined(__BYTE_ORDER__) && defined(__ORDER_BIG_ENDIAN__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
constexpr bool kHostBigEndian = true;
#else
constexpr bool kHostBigEndian = false;
#endif

uint64_t ReadUnsigned(std::string const& bytes, std::size_t at, int width, bool bigEndian) {
  uint64_t value = 0;
  for (int i = 0; i < width; ++i) {
    int shift = 8 * (bigEndian ? width - 1 - i : i);
    value |= static_cast<uint64_t>(static_cast<unsigned char>(bytes[at + i])) << shift;
  }
  return value;
}

void WriteUnsigned(std::string& bytes, std::size_t at, uint64_t value, int width, bool bigEndian) {
  for (int i = 0; i < width; ++i) {
    int shift = 8 * (bigEndian ? width - 1 - i : i);
    bytes[at + i] = static_cast<char>(value >> shift);
  }
}

// A list count in a form: where it stands, the width of one item, and the
// field of the record it fills.
struct CountField {
  std::size_t offset;
  int itemWidth;
  Field field;
};

// Where the fields of a form lie, found by walking the format's layout:
// the end of each record field that fits whole, in stream order, and every
// list count that is there to read.
struct Layout {
  bool bigEndian = false;
  std::vector<std::size_t> ends;
  std::vector<CountField> counts;
};

Layout Walk(std::string const& form) {
  Layout layout;
  if (form.size() < 2) return layout;
  // The mark is read in the reader's order; anything but 1 means the other.
  bool swapped = ReadUnsigned(form, 0, 2, kHostBigEndian) != 1;
  layout.bigEndian = kHostBigEndian != swapped;
  if (form.size() < 6 || ReadUnsigned(form, 2, 4, layout.bigEndian) != 1) return layout;

  std::size_t at = 6;
  auto fixed = [&](std::size_t width) {
    if (form.size() - at < width) return false;
    at += width;
    layout.ends.push_back(at);
    return true;
  };
  auto list = [&](Field field, int itemWidth) {
    if (form.size() - at < 4) return false;
    layout.counts.push_back({at, itemWidth, field});
    uint64_t count = ReadUnsigned(form, at, 4, layout.bigEndian);
    if (count > (form.size() - at - 4) / itemWidth) return false;
    at += 4 + count * itemWidth;
    layout.ends.push_back(at);
    return true;
  };
  if (!fixed(4)) return layout;
  for (Field field : {kStrata, kDepend, kInput, kPredicted, kResidual, kAuxIndex}) {
    if (!list(field, 4)) return layout;
  }
  if (!list(kAuxPair, 12)) return layout;
  for (std::size_t width : {8, 4, 4, 1}) {
    if (!fixed(width)) return layout;
  }
  return layout;
}

std::vector<std::pair<std::string, std::string>> Seeds() {
  std::vector<std::pair<std::string, std::string>> seeds;
  std::string const dir = SDM_BOOTSTRAP_CORPUS_DIR;
  DIR* listing = opendir(dir.c_str());
  if (listing == nullptr) return seeds;
  while (dirent const* entry = readdir(listing)) {
    if (entry->d_name[0] == '.') continue;
    std::ifstream in(dir + "/" + entry->d_name, std::ios::binary);
    seeds.emplace_back(entry->d_name, std::string(std::istreambuf_iterator<char>(in), {}));
  }
  closedir(listing);
  std::sort(seeds.begin(), seeds.end());
  return seeds;
}

SvrBootstrapSpecs HeldRecord() {
  SvrBootstrapSpecs held;
  held.SetSamplingMethod(SvrBootstrapSpecs::Wild);
  held.SetStrataVarList({-1, -2});
  held.SetDependVarList({-3});
  held.SetInputVarList({-4});
  held.SetPredictedVarList({-5});
  held.SetResidualVarList({-6});
  held.SetCILevelPct(12.5);
  held.SetNSamples(-7);
  return held;
}

class BootstrapSweep : public ::testing::Test {
 protected:
  void SetUp() override {
    seeds = Seeds();
    ASSERT_GE(seeds.size(), 5u) << "no seed corpus at " << SDM_BOOTSTRAP_CORPUS_DIR;
  }

  // Reads `form` into a copy of `start`, measuring the largest allocation
  // made meanwhile; a count that promises more than the form holds must not
  // turn into a large one.
  SvrBootstrapSpecs Read(std::string const& form, SvrBootstrapSpecs const& start) {
    SvrBootstrapSpecs specs = start;
    failing_new::Arm(0, failing_new::Mode::kTransient);
    SvrBootstrapSpecsSerializer::deserializeSpecs(form, specs);
    failing_new::Disarm();
    ++reads;
    EXPECT_LE(failing_new::LargestRequest(), 2 * form.size() + 256)
        << "an allocation out of proportion to a form of " << form.size() << " bytes";
    return specs;
  }

  std::vector<std::pair<std::string, std::string>> seeds;
  long reads = 0;
};

TEST_F(BootstrapSweep, EveryTruncationKeepsExactlyTheFieldsThatFitWhole) {
  for (auto const& [name, form] : seeds) {
    Layout layout = Walk(form);
    for (SvrBootstrapSpecs const& start : {SvrBootstrapSpecs(), HeldRecord()}) {
      std::vector<std::string> const before = FieldsInStreamOrder(start);
      std::vector<std::string> const whole = FieldsInStreamOrder(Read(form, start));
      for (std::size_t length = 0; length <= form.size(); ++length) {
        std::vector<std::string> read = FieldsInStreamOrder(Read(form.substr(0, length), start));
        for (int field = 0; field < kFieldCount; ++field) {
          bool fits = static_cast<std::size_t>(field) < layout.ends.size() &&
                      layout.ends[field] <= length;
          EXPECT_EQ(read[field], fits ? whole[field] : before[field])
              << name << " cut to " << length << " bytes, field " << field;
        }
      }
    }
  }
  std::printf("[ sweep     ] %zu seeds, %ld truncated reads\n", seeds.size(), reads);
}

TEST_F(BootstrapSweep, EveryCountValueIsTakenWholeOrStopsTheRead) {
  long mutations = 0;
  for (auto const& [name, form] : seeds) {
    Layout layout = Walk(form);
    for (CountField const& count : layout.counts) {
      uint64_t const remain = (form.size() - count.offset - 4) / count.itemWidth;
      for (uint64_t value : {uint64_t{0}, uint64_t{1}, remain, remain + 1, uint64_t{1} << 31,
                             uint64_t{0xFFFFFFFFu}}) {
        std::string mutated = form;
        WriteUnsigned(mutated, count.offset, value, 4, layout.bigEndian);
        ++mutations;
        for (SvrBootstrapSpecs const& start : {SvrBootstrapSpecs(), HeldRecord()}) {
          SCOPED_TRACE(name + ": count at " + std::to_string(count.offset) + " set to " +
                       std::to_string(value));
          SvrBootstrapSpecs read = Read(mutated, start);
          // What reading stops at: everything before the count.
          SvrBootstrapSpecs stopped = Read(form.substr(0, count.offset), start);
          if (value > remain) {
            EXPECT_TRUE(read.IdenticalTo(stopped)) << "a list that does not fit was read";
            continue;
          }
          std::vector<std::string> got = FieldsInStreamOrder(read);
          std::vector<std::string> expected = FieldsInStreamOrder(stopped);
          for (int field = 0; field < count.field; ++field) EXPECT_EQ(got[field], expected[field]);

          // The list itself: `value` items straight from the bytes behind
          // the count, replacing a variable list (unless there are none) and
          // appended to an auxiliary one.
          std::string items;
          for (uint64_t i = 0; i < value; ++i) {
            std::size_t at = count.offset + 4 + i * count.itemWidth;
            if (count.field == kAuxPair) {
              uint64_t bits = ReadUnsigned(mutated, at, 8, layout.bigEndian);
              double first;
              std::memcpy(&first, &bits, sizeof first);
              items += PairItem(first, static_cast<uint32_t>(ReadUnsigned(mutated, at + 8, 4,
                                                                          layout.bigEndian)));
            } else if (count.field == kAuxIndex) {
              items += IndexItem(static_cast<uint32_t>(ReadUnsigned(mutated, at, 4, layout.bigEndian)));
            } else {
              items += IntItem(static_cast<int32_t>(ReadUnsigned(mutated, at, 4, layout.bigEndian)));
            }
          }
          bool appends = count.field == kAuxIndex || count.field == kAuxPair;
          std::string list = appends || value == 0 ? expected[count.field] : std::string();
          EXPECT_EQ(got[count.field], list + items);
        }
      }
    }
  }
  EXPECT_GT(mutations, 0);
  std::printf("[ sweep     ] %zu seeds, %ld count values, %ld reads\n", seeds.size(), mutations,
              reads);
}

}  // namespace
