#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "ServerDataManager.h"

namespace {

// One value of every kind a stream carries.
using Values = std::tuple<bool, uint8_t, int8_t, uint16_t, int16_t, uint32_t, int32_t, uint64_t,
                          int64_t, float, double, std::string, std::string>;

void PassAll(VStream& stream, Values& values) {
  std::apply([&stream](auto&... value) { (stream.Pass(value), ...); }, values);
}

TEST(VStreamTest, EveryKindOfValueRoundTripsAtItsLimitsInLittleEndianOrder) {
  Values sent(true, 0xFF, INT8_MIN, 0xFFFE, INT16_MIN, 0xFFFFFFFFu, INT32_MIN, ~1ull, INT64_MIN,
              -2.5f, 5e-324, "", std::string("a\0b\xff", 4));
  VStream stream;
  PassAll(stream, sent);
  // bool, 8, 16 and 32 bits; 64 bits; float and double; the two strings, each a
  // 32-bit length and its bytes.
  // clang-format off
  std::vector<uint8_t> const expected = {
      1, 0xFF, 0x80, 0xFE, 0xFF, 0, 0x80, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0x80,
      0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0, 0, 0, 0, 0x80,
      0, 0, 0x20, 0xC0, 1, 0, 0, 0, 0, 0, 0, 0,
      0, 0, 0, 0, 4, 0, 0, 0, 'a', 0, 'b', 0xFF};
  // clang-format on
  EXPECT_EQ(stream.Bytes(), expected);
  Values received;
  std::get<11>(received) = "not empty";
  stream.StartLoading();
  PassAll(stream, received);
  EXPECT_EQ(stream.Remaining(), 0u);
  EXPECT_TRUE(received == sent);
  for (std::size_t length = 0; length < expected.size(); ++length) {
    VStream cut(std::vector<uint8_t>(expected.begin(), expected.begin() + long(length)));
    EXPECT_THROW(PassAll(cut, received), std::runtime_error) << "cut at " << length;
  }
}

TEST(VStreamTest, ReadingPastTheEndLeavesTheValueAloneAndAllocatesNothing) {
  uint32_t word = 42;
  EXPECT_THROW(VStream(std::vector<uint8_t>{1, 2, 3}).Pass(word), std::runtime_error);
  EXPECT_EQ(word, 42u);
  // A length of almost 4 GiB before two bytes must fail on the length alone:
  // a reader that allocated first would fill gigabytes.
  VStream corrupt(std::vector<uint8_t>{0xF0, 0xFF, 0xFF, 0xFF, 'x', 'y'});
  std::string text = "kept";
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  long const peakBefore = usage.ru_maxrss;
  EXPECT_THROW(corrupt.Pass(text), std::runtime_error);
  getrusage(RUSAGE_SELF, &usage);
  EXPECT_LT(usage.ru_maxrss - peakBefore, 256L * 1024);
  EXPECT_EQ(text, "kept");
}

}  // namespace
