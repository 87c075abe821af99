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

// Every field away from its default, the depend list empty. Fields end at
// 10, 22, 26, 34, 46, 54 (lists), 66, 82 (aux lists), 90, 94, 98, 99.
std::string RichForm(bool big, uint32_t version = 1) {
  Form form{big, {}};
  form.Put(1, 2).Put(version, 4).Put(Specs::Wild, 4);
  form.List({3, -7}).List({}).List({1}).List({2, 4}).List({-1});
  form.Put(2, 4).Put(5, 4).Put(6, 4).Put(1, 4).F64(2.5).Put(9, 4);
  return form.F64(90.0).Put(Specs::BCA, 4).Put(500, 4).Put(0, 1).bytes;
}

// Differs from the rich record in every field and holds auxiliary items, so
// a test can tell which fields a read has touched. Its aux index list ends at 58.
std::string PriorForm() {
  Form form{false, {}};
  form.Put(1, 2)
      .Put(1, 4)
      .Put(Specs::Stratified, 4)
      .List({11})
      .List({12})
      .List({13})
      .List({14})
      .List({15});
  form.Put(1, 4).Put(100, 4).Put(1, 4).F64(-1.0).Put(200, 4);
  return form.F64(99.0).Put(Specs::Percentile, 4).Put(7, 4).Put(1, 1).bytes;
}

Specs Read(std::string const& form, Specs specs = Specs()) {
  SvrBootstrapSpecsSerializer::deserializeSpecs(form, specs);
  return specs;
}

// The record read is written back, after what the string held, in this
// machine's order, so the whole of it is compared with the hand-built form
// byte for byte.
TEST(BootstrapSerialFormTest, ReadsEitherByteOrderAndAppendsTheHandBuiltForm) {
  // Any mark but 1 means the other byte order, not only the swapped 1.
  for (char const* mark : {"\1\0", "\0\1", "\xFF\xFF"}) {
    SCOPED_TRACE(testing::Message() << "mark " << int(mark[0]) << " " << int(mark[1]));
    std::string form = RichForm(mark[0] != 1) + "trailing bytes";
    form.replace(0, 2, mark, 2);
    std::string out = "ab";
    SvrBootstrapSpecsSerializer::serializeSpecs(Read(form), out);
    EXPECT_EQ(out, "ab" + RichForm(false));
  }
}

TEST(BootstrapSerialFormTest, OtherVersionLeavesEveryFieldUntouched) {
  Specs const prior = Read(PriorForm());
  for (bool big : {false, true}) {
    for (uint32_t version : {0u, 2u, 0x01000000u}) {
      SCOPED_TRACE(testing::Message() << "big-endian " << big << ", version " << version);
      EXPECT_TRUE(Read(RichForm(big, version), prior).IdenticalTo(prior));
    }
  }
}

TEST(BootstrapSerialFormTest, ReadOverARecordKeepsListsWithCount0AndAppendsAuxItems) {
  Specs const over = Read(RichForm(false), Read(PriorForm()));
  EXPECT_EQ(over.GetStrataVarList(), (std::vector<int>{3, -7}));
  EXPECT_EQ(over.GetDependVarList(), (std::vector<int>{12}));
  EXPECT_EQ(over.GetAuxIndexList(), (std::vector<unsigned int>{100, 5, 6}));
  EXPECT_EQ(over.GetAuxPairList(), (std::vector<Specs::AuxPair>{{-1.0, 200u}, {2.5, 9u}}));
}

TEST(BootstrapSerialFormTest, CutAtEveryLengthKeepsTheFieldsBeforeTheCut) {
  std::string const full = RichForm(false);
  Specs const prior = Read(PriorForm());
  Specs const whole = Read(full, prior);
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

TEST(BootstrapRecordTest, IdenticalToComparesDoublesByBitsAndTheAuxLists) {
  Specs nan;
  nan.SetCILevelPct(std::numeric_limits<double>::quiet_NaN());
  EXPECT_TRUE(nan.IdenticalTo(Specs(nan)));
  // Reading its own form up to the aux index list again changes that list only.
  Specs const prior = Read(PriorForm());
  EXPECT_FALSE(Read(PriorForm().substr(0, 58), prior).IdenticalTo(prior));
  // The rich form's aux pair is 2.5 in bytes 70 to 77 and 9 in 78 to 81:
  // either half differing makes another record.
  for (std::size_t at : {70, 78}) {
    std::string form = RichForm(false);
    form[at] ^= 1;
    EXPECT_FALSE(Read(form).IdenticalTo(Read(RichForm(false)))) << "byte " << at;
  }
}

TEST(BootstrapDisplayTest, WholeDefaultTextAndListItems) {
  std::ostringstream out;
  Specs().Display(out);
  EXPECT_EQ(out.str(),
            "Start displaying Bootstrap Specifications\n\n"
            "Sampling Method = Simple\n"
            "Strata Variables = none\n"
            "Dependent Variables = none\n"
            "Input Variables = none\n"
            "Predicted Value Variables = none\n"
            "Residual Value Variables = none\n"
            "Confidence Interval Level as percent = 95\n"
            "Confidence Interval Type = Percentile\n"
            "Number of samples = 1000\n"
            "User-missing variable values are excluded\n\n"
            "End displaying Bootstrap Specifications\n");
  std::ostringstream rich;
  Read(RichForm(false)).Display(rich);
  EXPECT_NE(rich.str().find("\nStrata Variables = 3 -7\nDependent Variables = none\n"),
            std::string::npos);
  EXPECT_NE(rich.str().find("\nUser-missing variable values are included\n"), std::string::npos);
}

}  // namespace
