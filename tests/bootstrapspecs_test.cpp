#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "ServerDataManager.h"

namespace {

typedef SvrBootstrapSpecs Specs;

int64_t Bits(double value) {
  int64_t bits;
  std::memcpy(&bits, &value, 8);
  return bits;
}

// Lays down 32-bit words, or values of another width, by hand in a chosen
// byte order, independent of the library's writer (signed values in two's
// complement).
std::string Words(bool big, std::vector<int64_t> const& words, int width = 4) {
  std::string bytes;
  for (uint64_t v : words) {
    for (int i = 0; i < width; ++i) bytes += static_cast<char>(v >> 8 * (big ? width - 1 - i : i));
  }
  return bytes;
}

// Every field away from its default, the depend list empty, and `k` added
// to every value. Fields end at 10, 22, 26, 34, 46, 54 (lists), 66, 82 (aux
// lists), 90, 94, 98, 99.
std::string RichForm(bool big, uint32_t version = 1, int k = 0) {
  return Words(big, {1}, 2) +
         Words(big, {version, Specs::Wild + k, 2, 3 + k, -7 + k, 0, 1, 1 + k, 2, 2 + k, 4 + k, 1,
                     -1 + k, 2, 5 + k, 6 + k, 1}) +
         Words(big, {Bits(2.5 + k)}, 8) + Words(big, {9 + k}) + Words(big, {Bits(90.0 + k)}, 8) +
         Words(big, {Specs::BCA + k, 500 + k}) + Words(big, {k != 0}, 1);
}

Specs Read(std::string const& form, Specs specs = Specs()) {
  SvrBootstrapSpecsSerializer::deserializeSpecs(form, specs);
  return specs;
}

// A record read is written back, after what the string held, in this
// machine's order, so the whole of it is compared with a hand-built form.
// Any mark but 1 means the other byte order, not only the swapped 1.
TEST(BootstrapSerialFormTest, WritesTheDefaultAndReadsEitherOrderButOnlyItsVersion) {
  std::string out = "ab";
  SvrBootstrapSpecsSerializer::serializeSpecs(Specs(), out);
  EXPECT_EQ(out, "ab" + Words(false, {1}, 2) +
                     Words(false, {1, Specs::Simple, 0, 0, 0, 0, 0, 0, 0}) +
                     Words(false, {Bits(95.0)}, 8) + Words(false, {Specs::Percentile, 1000}) +
                     Words(false, {1}, 1));
  for (char const* mark : {"\1\0", "\0\1", "\xFF\xFF"}) {
    std::string form = RichForm(mark[0] != 1) + "trailing bytes";
    form.replace(0, 2, mark, 2);
    out.clear();
    SvrBootstrapSpecsSerializer::serializeSpecs(Read(form), out);
    EXPECT_EQ(out, RichForm(false)) << "mark " << int(mark[0]) << " " << int(mark[1]);
  }
  // 0x01000000 is 1 in the other byte order.
  for (uint32_t version : {0u, 2u, 0x01000000u}) {
    EXPECT_TRUE(Read(RichForm(version == 2, version)).IdenticalTo(Specs())) << version;
  }
}

// The record read into differs from the rich one in every field and holds a
// depend list, so a byte read past the cut, or a list taken without all its
// items, shows as a wrong value.
TEST(BootstrapSerialFormTest, CutAtEveryLengthKeepsTheFieldsBeforeTheCut) {
  std::string const full = RichForm(false);
  Specs prior = Read(RichForm(false, 1, 100));
  prior.SetDependVarList({12});
  Specs const whole = Read(full, prior);
  // A count of 0 keeps the list held; auxiliary items are appended.
  EXPECT_EQ(whole.GetDependVarList(), (std::vector<int>{12}));
  EXPECT_EQ(whole.GetAuxIndexList(), (std::vector<unsigned int>{105, 106, 5, 6}));
  EXPECT_EQ(whole.GetAuxPairList(), (std::vector<Specs::AuxPair>{{102.5, 109u}, {2.5, 9u}}));
  for (std::size_t length = 0; length <= full.size(); ++length) {
    SCOPED_TRACE(testing::Message() << "length " << length);
    Specs const specs = Read(full.substr(0, length), prior);
    auto from = [&](std::size_t end) -> Specs const& { return length >= end ? whole : prior; };
    EXPECT_EQ(specs.GetSamplingMethod(), from(10).GetSamplingMethod());
    EXPECT_EQ(specs.GetStrataVarList(), from(22).GetStrataVarList());
    EXPECT_EQ(specs.GetInputVarList(), from(34).GetInputVarList());
    EXPECT_EQ(specs.GetPredictedVarList(), from(46).GetPredictedVarList());
    EXPECT_EQ(specs.GetResidualVarList(), from(54).GetResidualVarList());
    EXPECT_EQ(specs.GetAuxIndexList(), from(66).GetAuxIndexList());
    EXPECT_EQ(specs.GetAuxPairList(), from(82).GetAuxPairList());
    EXPECT_EQ(specs.GetCILevelPct(), from(90).GetCILevelPct());
    EXPECT_EQ(specs.GetCIType(), from(94).GetCIType());
    EXPECT_EQ(specs.GetNSamples(), from(98).GetNSamples());
    EXPECT_EQ(specs.GetExcludeUserMiss(), from(99).GetExcludeUserMiss());
  }
}

// Flipping any one bit of the rich form changes one field, or the lists'
// layout and so every field after it: each gives another record.
TEST(BootstrapRecordTest, IdenticalToComparesDoublesByBitsAndSeesEveryField) {
  Specs nan;
  nan.SetCILevelPct(std::numeric_limits<double>::quiet_NaN());
  EXPECT_TRUE(nan.IdenticalTo(Specs(nan)));
  for (std::size_t at = 0; at < RichForm(false).size(); ++at) {
    std::string form = RichForm(false);
    form[at] ^= 1;
    EXPECT_FALSE(Read(form).IdenticalTo(Read(RichForm(false)))) << "byte " << at;
  }
}

// Every line up to the number of samples is flushed; the closing ones are
// left to the caller. A flush shows as "|".
TEST(BootstrapDisplayTest, WholeTextWithItsFlushes) {
  struct MarkFlushes : std::stringbuf {
    int sync() override { return sputc('|') == '|' ? 0 : -1; }
  } text;
  std::ostream out(&text);
  Read(RichForm(false)).Display(out);
  EXPECT_EQ(text.str(),
            "Start displaying Bootstrap Specifications\n\n|"
            "Sampling Method = Wild\n|"
            "Strata Variables = 3 -7\n|"
            "Dependent Variables = none\n|"
            "Input Variables = 1\n|"
            "Predicted Value Variables = 2 4\n|"
            "Residual Value Variables = -1\n|"
            "Confidence Interval Level as percent = 90\n|"
            "Confidence Interval Type = BCA\n|"
            "Number of samples = 500\n|"
            "User-missing variable values are included\n\n"
            "End displaying Bootstrap Specifications\n");
}

}  // namespace
