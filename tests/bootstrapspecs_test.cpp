#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "ServerDataManager.h"

namespace {

typedef SvrBootstrapSpecs Specs;

// Lays down a byte form by hand in a chosen byte order, independent of the
// library's writer. Put takes signed values in two's complement.
struct Form {
  Form& Put(uint64_t v, int width) {
    for (int i = 0; i < width; ++i)
      bytes.push_back(static_cast<char>(v >> 8 * (big ? width - 1 - i : i)));
    return *this;
  }
  Form& F64(double v) {
    uint64_t bits;
    std::memcpy(&bits, &v, 8);
    return Put(bits, 8);
  }
  Form& List(std::vector<int> const& list) {
    Put(list.size(), 4);
    for (int i : list) Put(i, 4);
    return *this;
  }
  bool big;
  std::string bytes;
};

// Every field away from its default, and `k` added to every value, the
// depend list empty. Fields end at 10, 22, 26, 34, 46, 54 (lists), 66, 82
// (aux lists), 90, 94, 98, 99.
std::string RichForm(bool big, uint32_t version = 1, int k = 0) {
  Form form{big, {}};
  form.Put(1, 2).Put(version, 4).Put(Specs::Wild + k, 4);
  form.List({3 + k, -7 + k}).List({}).List({1 + k}).List({2 + k, 4 + k}).List({-1 + k});
  form.Put(2, 4).Put(5 + k, 4).Put(6 + k, 4).Put(1, 4).F64(2.5 + k).Put(9 + k, 4);
  return form.F64(90.0 + k).Put(Specs::BCA + k, 4).Put(500 + k, 4).Put(k != 0, 1).bytes;
}

Specs Read(std::string const& form, Specs specs = Specs()) {
  SvrBootstrapSpecsSerializer::deserializeSpecs(form, specs);
  return specs;
}

// Differs from the rich record in every field and holds a depend list.
Specs Prior() {
  Specs prior = Read(RichForm(false, 1, 100));
  prior.SetDependVarList({12});
  return prior;
}

// A record read is written back, after what the string held, in this
// machine's order, so the whole of it is compared with a hand-built form.
TEST(BootstrapSerialFormTest, WritesTheDefaultAndReadsEitherOrderButOnlyItsVersion) {
  Form empty{false, {}};
  empty.Put(1, 2).Put(1, 4).Put(Specs::Simple, 4).bytes += std::string(7 * 4, '\0');
  std::string out = "ab";
  SvrBootstrapSpecsSerializer::serializeSpecs(Specs(), out);
  EXPECT_EQ(out, "ab" + empty.F64(95.0).Put(Specs::Percentile, 4).Put(1000, 4).Put(1, 1).bytes);
  // Any mark but 1 means the other byte order, not only the swapped 1.
  for (char const* mark : {"\1\0", "\0\1", "\xFF\xFF"}) {
    std::string form = RichForm(mark[0] != 1) + "trailing bytes";
    form.replace(0, 2, mark, 2);
    out.clear();
    SvrBootstrapSpecsSerializer::serializeSpecs(Read(form), out);
    EXPECT_EQ(out, RichForm(false)) << "mark " << int(mark[0]) << " " << int(mark[1]);
  }
  Specs const prior = Prior();
  for (bool big : {false, true}) {
    for (uint32_t version : {0u, 2u, 0x01000000u}) {
      EXPECT_TRUE(Read(RichForm(big, version), prior).IdenticalTo(prior)) << big << version;
    }
  }
}

TEST(BootstrapSerialFormTest, CutAtEveryLengthKeepsTheFieldsBeforeTheCut) {
  std::string const full = RichForm(false);
  Specs const prior = Prior();
  Specs const whole = Read(full, prior);
  // A count of 0 keeps the list held; auxiliary items are appended.
  EXPECT_EQ(whole.GetDependVarList(), (std::vector<int>{12}));
  EXPECT_EQ(whole.GetAuxIndexList(), (std::vector<unsigned int>{105, 106, 5, 6}));
  EXPECT_EQ(whole.GetAuxPairList(), (std::vector<Specs::AuxPair>{{102.5, 109u}, {2.5, 9u}}));
  for (std::size_t length = 0; length <= full.size(); ++length) {
    SCOPED_TRACE(testing::Message() << "length " << length);
    // Prior and whole differ in every field but depend, so a byte read past
    // the cut, or a list taken without all its items, shows as a wrong value.
    Specs const specs = Read(full.substr(0, length), prior);
    auto from = [&](std::size_t end) -> Specs const& { return length >= end ? whole : prior; };
    EXPECT_EQ(specs.GetSamplingMethod(), from(10).GetSamplingMethod());
    EXPECT_EQ(specs.GetStrataVarList(), from(22).GetStrataVarList());
    EXPECT_EQ(specs.GetDependVarList(), prior.GetDependVarList());
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
  Specs const rich = Read(RichForm(false));
  for (std::size_t at = 0; at < RichForm(false).size(); ++at) {
    std::string form = RichForm(false);
    form[at] ^= 1;
    EXPECT_FALSE(Read(form).IdenticalTo(rich)) << "byte " << at;
  }
}

// Every line up to the number of samples is flushed; the closing ones are
// left to the caller. A flush shows as "|".
TEST(BootstrapDisplayTest, WholeTextWithItsFlushes) {
  struct MarkFlushes : std::stringbuf {
    int sync() override { return sputc('|') == '|' ? 0 : -1; }
  } rich;
  std::ostream richOut(&rich);
  Read(RichForm(false)).Display(richOut);
  EXPECT_EQ(rich.str(),
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
