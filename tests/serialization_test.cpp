#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include "ServerDataManager.h"

namespace {

// Writes with `write`, then reads the bytes back with `read` from a fresh
// loading stream, and checks that nothing is left over.
template <class Write, class Read>
void RoundTrip(Write write, Read read) {
  VStream out;
  write(out);
  VStream in(out.Bytes());
  read(in);
  EXPECT_EQ(in.Remaining(), 0u);
}

long PeakResidentKilobytes() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

TEST(VStreamTest, EveryKindOfValueRoundTripsAtItsLimits) {
  bool b = true;
  uint8_t u8 = 0xFF;
  int8_t i8 = std::numeric_limits<int8_t>::min();
  uint16_t u16 = 0xFFFE;
  int16_t i16 = std::numeric_limits<int16_t>::min();
  uint32_t u32 = 0xFFFFFFFFu;
  int32_t i32 = std::numeric_limits<int32_t>::min();
  uint64_t u64 = 0xFFFFFFFFFFFFFFFEull;
  int64_t i64 = std::numeric_limits<int64_t>::min();
  float f = -1.5e-30f;
  double d = std::numeric_limits<double>::denorm_min();
  std::string empty;
  std::string text("a\0b\xff", 4);

  RoundTrip(
      [&](VStream& s) {
        s.Pass(b), s.Pass(u8), s.Pass(i8), s.Pass(u16), s.Pass(i16), s.Pass(u32), s.Pass(i32);
        s.Pass(u64), s.Pass(i64), s.Pass(f), s.Pass(d), s.Pass(empty), s.Pass(text);
      },
      [&](VStream& s) {
        bool b2 = false;
        uint8_t u8b = 0;
        int8_t i8b = 0;
        uint16_t u16b = 0;
        int16_t i16b = 0;
        uint32_t u32b = 0;
        int32_t i32b = 0;
        uint64_t u64b = 0;
        int64_t i64b = 0;
        float f2 = 0;
        double d2 = 0;
        std::string empty2 = "not empty";
        std::string text2;
        s.Pass(b2), s.Pass(u8b), s.Pass(i8b), s.Pass(u16b), s.Pass(i16b), s.Pass(u32b),
            s.Pass(i32b);
        s.Pass(u64b), s.Pass(i64b), s.Pass(f2), s.Pass(d2), s.Pass(empty2), s.Pass(text2);
        EXPECT_EQ(b2, b);
        EXPECT_EQ(u8b, u8);
        EXPECT_EQ(i8b, i8);
        EXPECT_EQ(u16b, u16);
        EXPECT_EQ(i16b, i16);
        EXPECT_EQ(u32b, u32);
        EXPECT_EQ(i32b, i32);
        EXPECT_EQ(u64b, u64);
        EXPECT_EQ(i64b, i64);
        EXPECT_EQ(f2, f);
        EXPECT_EQ(d2, d);
        EXPECT_EQ(empty2, "");
        EXPECT_EQ(text2, text);
      });
}

TEST(VStreamTest, LaysValuesDownLittleEndianWithLengthPrefixedStrings) {
  VStream s;
  uint32_t word = 0x01020304u;
  int16_t half = -2;
  std::string text = "ab";
  s.Pass(word);
  s.Pass(half);
  s.Pass(text);
  std::vector<uint8_t> const expected = {0x04, 0x03, 0x02, 0x01, 0xFE, 0xFF,
                                         0x02, 0x00, 0x00, 0x00, 'a',  'b'};
  EXPECT_EQ(s.Bytes(), expected);
}

TEST(VStreamTest, ReadingPastTheEndThrowsAndLeavesTheValueAlone) {
  VStream s(std::vector<uint8_t>{1, 2, 3});
  uint32_t word = 42;
  EXPECT_THROW(s.Pass(word), std::runtime_error);
  EXPECT_EQ(word, 42u);

  VStream empty(std::vector<uint8_t>{});
  bool flag = true;
  double d = 2.5;
  EXPECT_THROW(empty.Pass(flag), std::runtime_error);
  EXPECT_THROW(empty.Pass(d), std::runtime_error);
  EXPECT_TRUE(flag);
  EXPECT_EQ(d, 2.5);
}

TEST(VStreamTest, StringWhoseLengthOutrunsTheStreamThrowsWithoutAllocatingIt) {
  // A length of almost 4 GiB, followed by two bytes. Reading must fail on
  // the length alone: a reader that allocated first would fill gigabytes.
  VStream s(std::vector<uint8_t>{0xF0, 0xFF, 0xFF, 0xFF, 'x', 'y'});
  std::string value = "kept";
  long const peakBefore = PeakResidentKilobytes();
  EXPECT_THROW(s.Pass(value), std::runtime_error);
  EXPECT_EQ(value, "kept");
  EXPECT_LT(PeakResidentKilobytes() - peakBefore, 256L * 1024);
}

// A minimal object that crosses a stream the way the server's do.
struct Pair {
  int32_t number = 0;
  std::string name;
  static void Serialize(void* object, VStream& stream) {
    auto* self = static_cast<Pair*>(object);
    stream.Pass(self->number);
    stream.Pass(self->name);
  }
};

TEST(ForeignProcessTest, CarriesAnObjectAcrossAStream) {
  Pair sent{-12, "twelve"};
  VStream stream;
  EXPECT_EQ(ForeignProcess(&sent, 1, stream, &Pair::Serialize, "Test::Pair"), 0);
  stream.StartLoading();
  Pair received;
  EXPECT_EQ(ForeignProcess(&received, 1, stream, &Pair::Serialize, "Test::Pair"), 0);
  EXPECT_EQ(received.number, -12);
  EXPECT_EQ(received.name, "twelve");
  EXPECT_EQ(stream.Remaining(), 0u);
}

TEST(ForeignProcessTest, RefusesAStreamThatHoldsAnotherClassOrNumber) {
  Pair sent{1, "one"};
  VStream stream;
  ForeignProcess(&sent, 1, stream, &Pair::Serialize, "Test::Pair");

  VStream wrongName(stream.Bytes());
  Pair received;
  EXPECT_THROW(ForeignProcess(&received, 1, wrongName, &Pair::Serialize, "Test::Other"),
               std::runtime_error);
  VStream wrongNumber(stream.Bytes());
  EXPECT_THROW(ForeignProcess(&received, 2, wrongNumber, &Pair::Serialize, "Test::Pair"),
               std::runtime_error);
  EXPECT_EQ(received.name, "");
}

class Counted : public VUGlobal {
 public:
  char payload[24] = {};
};

TEST(VUGlobalTest, CountsBlocksUntilTheyAreGivenBack) {
  long const before = VUGlobal::LiveBlocks();
  Counted* a = new Counted;
  Counted* b = new Counted;
  EXPECT_EQ(VUGlobal::LiveBlocks(), before + 2);
  delete a;
  EXPECT_EQ(VUGlobal::LiveBlocks(), before + 1);
  delete b;
  delete static_cast<Counted*>(nullptr);
  EXPECT_EQ(VUGlobal::LiveBlocks(), before);
}

}  // namespace
