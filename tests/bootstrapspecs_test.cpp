#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <iomanip>
#include <limits>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "ServerDataManager.h"

namespace {

typedef SvrBootstrapSpecs Specs;
typedef SvrBootstrapSpecsSerializer Serializer;

std::string Hex(std::string const& bytes) {
  std::ostringstream out;
  for (unsigned char byte : bytes) out << std::hex << std::setw(2) << std::setfill('0') << int(byte) << ' ';
  return out.str();
}

std::string Bytes(std::vector<int> const& values) {
  std::string out;
  for (int value : values) out.push_back(static_cast<char>(value));
  return out;
}

// Lays down a byte form by hand in a chosen byte order, independent of the
// library's writer.
class FormBuilder {
 public:
  explicit FormBuilder(bool bigEndian) : big_(bigEndian) {}

  FormBuilder& U8(uint8_t v) { return Put(v, 1); }
  FormBuilder& U16(uint16_t v) { return Put(v, 2); }
  FormBuilder& U32(uint32_t v) { return Put(v, 4); }
  FormBuilder& I32(int32_t v) { return Put(static_cast<uint32_t>(v), 4); }
  FormBuilder& F64(double v) {
    uint64_t bits;
    std::memcpy(&bits, &v, 8);
    return Put(bits, 8);
  }
  FormBuilder& Header(uint32_t version = 1) { return U16(1).U32(version); }
  FormBuilder& IntList(std::vector<int> const& list) {
    U32(static_cast<uint32_t>(list.size()));
    for (int item : list) I32(item);
    return *this;
  }
  std::string const& str() const { return bytes_; }

 private:
  FormBuilder& Put(uint64_t v, int width) {
    for (int i = 0; i < width; ++i) {
      int shift = 8 * (big_ ? width - 1 - i : i);
      bytes_.push_back(static_cast<char>(v >> shift));
    }
    return *this;
  }

  bool big_;
  std::string bytes_;
};

// The form of a record with every field away from its default, in the byte
// order asked for: Wild, strata {3, -7}, depend {}, input {1}, predicted
// {2, 4}, residual {-1}, aux index {5, 6}, aux pairs {(2.5, 9)}, 90 percent
// BCA, 500 samples, user-missing values included.
std::string RichForm(bool bigEndian) {
  FormBuilder form(bigEndian);
  form.Header().I32(Specs::Wild);
  form.IntList({3, -7}).IntList({}).IntList({1}).IntList({2, 4}).IntList({-1});
  form.U32(2).U32(5).U32(6);
  form.U32(1).F64(2.5).U32(9);
  form.F64(90.0).I32(Specs::BCA).I32(500).U8(0);
  return form.str();
}

void ExpectRichValues(Specs const& specs) {
  EXPECT_EQ(specs.GetSamplingMethod(), Specs::Wild);
  EXPECT_EQ(specs.GetStrataVarList(), (std::vector<int>{3, -7}));
  EXPECT_EQ(specs.GetDependVarList(), (std::vector<int>{}));
  EXPECT_EQ(specs.GetInputVarList(), (std::vector<int>{1}));
  EXPECT_EQ(specs.GetPredictedVarList(), (std::vector<int>{2, 4}));
  EXPECT_EQ(specs.GetResidualVarList(), (std::vector<int>{-1}));
  EXPECT_EQ(specs.GetAuxIndexList(), (std::vector<unsigned int>{5, 6}));
  EXPECT_EQ(specs.GetAuxPairList(), (std::vector<Specs::AuxPair>{{2.5, 9u}}));
  EXPECT_EQ(specs.GetCILevelPct(), 90.0);
  EXPECT_EQ(specs.GetCIType(), Specs::BCA);
  EXPECT_EQ(specs.GetNSamples(), 500);
  EXPECT_FALSE(specs.GetExcludeUserMiss());
}

// A record whose every field differs from the rich one, aux lists included,
// so that a test can tell which fields a read has touched.
Specs PriorRecord() {
  Specs prior;
  FormBuilder form(false);
  form.Header().I32(Specs::Stratified);
  form.IntList({11}).IntList({12}).IntList({13}).IntList({14}).IntList({15});
  form.U32(1).U32(100);
  form.U32(1).F64(-1.0).U32(200);
  form.F64(99.0).I32(Specs::Percentile).I32(7).U8(1);
  Serializer::deserializeSpecs(form.str(), prior);
  return prior;
}

// ---- Byte form: writing ----

TEST(BootstrapSerialFormTest, DefaultRecordIsThe55ByteForm) {
  std::string out;
  Serializer::serializeSpecs(Specs(), out);
  std::string expected = Bytes({0x01, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00});
  for (int i = 0; i < 7; ++i) expected += Bytes({0, 0, 0, 0});
  expected += Bytes({0x00, 0x00, 0x00, 0x00, 0x00, 0xC0, 0x57, 0x40});
  expected += Bytes({0x00, 0x00, 0x00, 0x00, 0xE8, 0x03, 0x00, 0x00, 0x01});
  ASSERT_EQ(expected.size(), 55u);
  EXPECT_EQ(Hex(out), Hex(expected));
}

TEST(BootstrapSerialFormTest, WriterMatchesTheHandBuiltFormAndRoundTrips) {
  Specs rich;
  Serializer::deserializeSpecs(RichForm(false), rich);
  ExpectRichValues(rich);

  std::string out;
  Serializer::serializeSpecs(rich, out);
  EXPECT_EQ(Hex(out), Hex(RichForm(false)));
  EXPECT_EQ(out.size(), 55u + 4 * (2 + 0 + 1 + 2 + 1 + 2) + 12 * 1);

  Specs back;
  Serializer::deserializeSpecs(out, back);
  EXPECT_TRUE(back.IdenticalTo(rich));
}

TEST(BootstrapSerialFormTest, WriterAppendsAndReaderTakesThoseBytesAsTheStart) {
  std::string out = "ab";
  Serializer::serializeSpecs(Specs(), out);
  ASSERT_EQ(out.size(), 57u);
  EXPECT_EQ(out.substr(0, 2), "ab");

  // "ab" is read as a mark other than 1, so the version comes out reversed
  // and the read stops with the record untouched.
  Specs prior = PriorRecord();
  Specs specs = prior;
  Serializer::deserializeSpecs(out, specs);
  EXPECT_TRUE(specs.IdenticalTo(prior));
}

// ---- Byte form: reading ----

TEST(BootstrapSerialFormTest, BigEndianStringReadsLikeTheLittleEndianOne) {
  Specs specs;
  Serializer::deserializeSpecs(RichForm(true), specs);
  ExpectRichValues(specs);
}

TEST(BootstrapSerialFormTest, AnyOtherVersionLeavesEveryFieldUntouched) {
  Specs const prior = PriorRecord();
  for (bool big : {false, true}) {
    for (uint32_t version : {0u, 2u, 0x01000000u}) {
      SCOPED_TRACE(testing::Message() << "big-endian " << big << ", version " << version);
      std::string form = RichForm(big);
      std::string header = FormBuilder(big).Header(version).str();
      form.replace(0, header.size(), header);
      Specs specs = prior;
      Serializer::deserializeSpecs(form, specs);
      EXPECT_TRUE(specs.IdenticalTo(prior));
      EXPECT_EQ(specs.GetSamplingMethod(), Specs::Stratified);
    }
  }
}

TEST(BootstrapSerialFormTest, MarkOtherThanOneMeansSwappedOrder) {
  // FF FF on a little-endian string: the version is read reversed and fails.
  std::string form = RichForm(false);
  form[0] = form[1] = static_cast<char>(0xFF);
  Specs const prior = PriorRecord();
  Specs specs = prior;
  Serializer::deserializeSpecs(form, specs);
  EXPECT_TRUE(specs.IdenticalTo(prior));

  // FF FF on a big-endian string: read like the swapped 1.
  std::string big = RichForm(true);
  big[0] = big[1] = static_cast<char>(0xFF);
  Specs fromBig;
  Serializer::deserializeSpecs(big, fromBig);
  ExpectRichValues(fromBig);
}

TEST(BootstrapSerialFormTest, ZeroCountsKeepListsAndAuxItemsAppend) {
  Specs specs;
  specs.SetStrataVarList({1, 2, 3});
  specs.SetResidualVarList({9});
  Serializer::deserializeSpecs(RichForm(false), specs);  // residual {-1} replaces {9}
  EXPECT_EQ(specs.GetResidualVarList(), (std::vector<int>{-1}));

  // All counts 0 apart from the aux lists.
  FormBuilder form(false);
  form.Header().I32(Specs::Simple);
  for (int i = 0; i < 5; ++i) form.U32(0);
  form.U32(2).U32(7).U32(8);
  form.U32(1).F64(-0.5).U32(3);
  form.F64(95.0).I32(Specs::Percentile).I32(1000).U8(0x80);
  Serializer::deserializeSpecs(form.str(), specs);

  EXPECT_EQ(specs.GetStrataVarList(), (std::vector<int>{3, -7}));
  EXPECT_EQ(specs.GetDependVarList(), (std::vector<int>{}));
  EXPECT_EQ(specs.GetResidualVarList(), (std::vector<int>{-1}));
  EXPECT_EQ(specs.GetAuxIndexList(), (std::vector<unsigned int>{5, 6, 7, 8}));
  EXPECT_EQ(specs.GetAuxPairList(), (std::vector<Specs::AuxPair>{{2.5, 9u}, {-0.5, 3u}}));
  EXPECT_EQ(specs.GetSamplingMethod(), Specs::Simple);
  EXPECT_TRUE(specs.GetExcludeUserMiss());  // 0x80 is true
}

TEST(BootstrapSerialFormTest, OutOfRangeValuesAreKeptAsTheyAre) {
  FormBuilder form(true);
  form.Header().I32(-1);
  for (int i = 0; i < 7; ++i) form.U32(0);
  form.F64(-3.25).I32(2).I32(-5).U8(1);
  Specs specs;
  Serializer::deserializeSpecs(form.str() + "trailing bytes", specs);
  EXPECT_EQ(static_cast<int>(specs.GetSamplingMethod()), -1);
  EXPECT_EQ(specs.GetCILevelPct(), -3.25);
  EXPECT_EQ(static_cast<int>(specs.GetCIType()), 2);
  EXPECT_EQ(specs.GetNSamples(), -5);
}

// ---- Byte form: strings that are too short ----

// The record a cut at `length` bytes of RichForm should leave in a prior
// record, field by field: what ends at or before the cut is taken, the rest
// keeps the prior value.
void ExpectCutAt(std::size_t length, Specs const& specs, Specs const& prior) {
  Specs rich;
  Serializer::deserializeSpecs(RichForm(false), rich);
  // Where each field of RichForm ends; lists end after their last item.
  std::size_t const kMethodEnd = 10, kStrataEnd = 22, kInputEnd = 34,
                    kPredictedEnd = 46, kResidualEnd = 54, kAuxIndexEnd = 66, kAuxPairEnd = 82,
                    kLevelEnd = 90, kTypeEnd = 94, kSamplesEnd = 98, kExcludeEnd = 99;
  auto pick = [length](std::size_t end, auto const& taken, auto const& kept) {
    return length >= end ? taken : kept;
  };
  EXPECT_EQ(specs.GetSamplingMethod(),
            pick(kMethodEnd, rich.GetSamplingMethod(), prior.GetSamplingMethod()));
  EXPECT_EQ(specs.GetStrataVarList(),
            pick(kStrataEnd, rich.GetStrataVarList(), prior.GetStrataVarList()));
  // RichForm's depend list is empty: its count of 0 keeps the prior list.
  EXPECT_EQ(specs.GetDependVarList(), prior.GetDependVarList());
  EXPECT_EQ(specs.GetInputVarList(),
            pick(kInputEnd, rich.GetInputVarList(), prior.GetInputVarList()));
  EXPECT_EQ(specs.GetPredictedVarList(),
            pick(kPredictedEnd, rich.GetPredictedVarList(), prior.GetPredictedVarList()));
  EXPECT_EQ(specs.GetResidualVarList(),
            pick(kResidualEnd, rich.GetResidualVarList(), prior.GetResidualVarList()));

  std::vector<unsigned int> auxIndex = prior.GetAuxIndexList();
  if (length >= kAuxIndexEnd) {
    auxIndex.insert(auxIndex.end(), rich.GetAuxIndexList().begin(), rich.GetAuxIndexList().end());
  }
  EXPECT_EQ(specs.GetAuxIndexList(), auxIndex);
  std::vector<Specs::AuxPair> auxPair = prior.GetAuxPairList();
  if (length >= kAuxPairEnd) {
    auxPair.insert(auxPair.end(), rich.GetAuxPairList().begin(), rich.GetAuxPairList().end());
  }
  EXPECT_EQ(specs.GetAuxPairList(), auxPair);

  EXPECT_EQ(specs.GetCILevelPct(), pick(kLevelEnd, rich.GetCILevelPct(), prior.GetCILevelPct()));
  EXPECT_EQ(specs.GetCIType(), pick(kTypeEnd, rich.GetCIType(), prior.GetCIType()));
  EXPECT_EQ(specs.GetNSamples(), pick(kSamplesEnd, rich.GetNSamples(), prior.GetNSamples()));
  EXPECT_EQ(specs.GetExcludeUserMiss(),
            pick(kExcludeEnd, rich.GetExcludeUserMiss(), prior.GetExcludeUserMiss()));
}

TEST(BootstrapSerialFormTest, CutAtEveryLengthKeepsTheFieldsBeforeTheCut) {
  std::string const full = RichForm(false);
  ASSERT_EQ(full.size(), 99u);
  Specs const prior = PriorRecord();
  for (std::size_t length = 0; length <= full.size(); ++length) {
    SCOPED_TRACE(testing::Message() << "length " << length);
    // A byte read past the cut would be the string's terminating NUL or
    // beyond; the prior record differs from the rich one in every field, so
    // such a read shows up as a wrong value below.
    std::string cut(full, 0, length);
    Specs specs = prior;
    Serializer::deserializeSpecs(cut, specs);
    ExpectCutAt(length, specs, prior);
  }
}

TEST(BootstrapSerialFormTest, CountPromisingMoreThanRemainsTakesNoItem) {
  Specs const prior = PriorRecord();
  for (uint32_t count : {3u, 0x40000000u, 0xFFFFFFFFu}) {
    SCOPED_TRACE(count);
    // Strata promises `count` items and two follow, then the string ends.
    FormBuilder form(false);
    form.Header().I32(Specs::Residual).U32(count).I32(1).I32(2);
    Specs specs = prior;
    Serializer::deserializeSpecs(form.str(), specs);
    EXPECT_EQ(specs.GetSamplingMethod(), Specs::Residual);
    EXPECT_EQ(specs.GetStrataVarList(), prior.GetStrataVarList());

    // The same for the aux pairs: 12 bytes short of the second item.
    FormBuilder aux(false);
    aux.Header().I32(0);
    for (int i = 0; i < 6; ++i) aux.U32(0);
    aux.U32(count == 3 ? 2 : count).F64(1.0).U32(1);
    specs = prior;
    Serializer::deserializeSpecs(aux.str(), specs);
    EXPECT_EQ(specs.GetAuxPairList(), prior.GetAuxPairList());
    EXPECT_EQ(specs.GetAuxIndexList(), prior.GetAuxIndexList());
  }
}

// ---- The record ----

class DisplayTest : public ::testing::Test {
 protected:
  std::string Shown(Specs const& specs) {
    std::ostringstream out;
    specs.Display(out);
    return out.str();
  }

  // The line of Shown(specs) that starts with `label`, without its newline.
  std::string Line(Specs const& specs, std::string const& label) {
    std::istringstream lines(Shown(specs));
    std::string line;
    while (std::getline(lines, line)) {
      if (line.compare(0, label.size(), label) == 0) return line;
    }
    return "<no line " + label + ">";
  }
};

TEST_F(DisplayTest, DefaultRecordShowsTheWholeAccount) {
  EXPECT_EQ(Shown(Specs()),
            "Start displaying Bootstrap Specifications\n"
            "\n"
            "Sampling Method = Simple\n"
            "Strata Variables = none\n"
            "Dependent Variables = none\n"
            "Input Variables = none\n"
            "Predicted Value Variables = none\n"
            "Residual Value Variables = none\n"
            "Confidence Interval Level as percent = 95\n"
            "Confidence Interval Type = Percentile\n"
            "Number of samples = 1000\n"
            "User-missing variable values are excluded\n"
            "\n"
            "End displaying Bootstrap Specifications\n");
}

TEST_F(DisplayTest, WordsForEveryEnumerationValue) {
  Specs specs;
  std::vector<std::pair<int, std::string>> methods = {
      {0, "Simple"}, {1, "Stratified"}, {2, "Residual"}, {3, "Wild"}, {4, "unknown"}, {-1, "unknown"}};
  for (auto const& [value, word] : methods) {
    specs.SetSamplingMethod(static_cast<Specs::SampMethods>(value));
    EXPECT_EQ(Line(specs, "Sampling Method"), "Sampling Method = " + word);
  }
  std::vector<std::pair<int, std::string>> types = {{0, "Percentile"}, {1, "BCA"}, {2, "unknown"}};
  for (auto const& [value, word] : types) {
    specs.SetCIType(static_cast<Specs::CITypes>(value));
    EXPECT_EQ(Line(specs, "Confidence Interval Type"), "Confidence Interval Type = " + word);
  }
}

TEST_F(DisplayTest, ListLinesAndTheUserMissingLine) {
  Specs specs;
  specs.SetStrataVarList({3, 7});
  specs.SetResidualVarList({-2});
  EXPECT_EQ(Line(specs, "Strata Variables"), "Strata Variables = 3 7");
  EXPECT_EQ(Line(specs, "Residual Value Variables"), "Residual Value Variables = -2");
  specs.SetStrataVarList({});
  EXPECT_EQ(Line(specs, "Strata Variables"), "Strata Variables = none");

  std::string excluded = Shown(specs);
  specs.SetExcludeUserMiss(false);
  std::string included = Shown(specs);
  std::size_t at = excluded.find("excluded");
  ASSERT_NE(at, std::string::npos);
  EXPECT_EQ(included, excluded.substr(0, at) + "included" + excluded.substr(at + 8));
}

TEST_F(DisplayTest, NumbersTakeTheStreamsFormatting) {
  Specs specs;
  std::ostringstream out;
  out << std::fixed << std::setprecision(2) << std::hex;
  specs.Display(out);
  EXPECT_NE(out.str().find("Confidence Interval Level as percent = 95.00\n"), std::string::npos);
  EXPECT_NE(out.str().find("Number of samples = 3e8\n"), std::string::npos);
  EXPECT_TRUE(out.flags() & std::ios::fixed);
  EXPECT_TRUE(out.flags() & std::ios::hex);
}

// Notes how much text had arrived at every flush.
class FlushRecorder : public std::stringbuf {
 public:
  std::vector<std::size_t> flushedAt;

 protected:
  int sync() override {
    flushedAt.push_back(str().size());
    return 0;
  }
};

TEST_F(DisplayTest, FlushesAfterEachLineUpToTheSampleCountOnly) {
  FlushRecorder buffer;
  std::ostream out(&buffer);
  Specs().Display(out);
  std::string const text = buffer.str();
  for (char const* line : {"Sampling Method = Simple\n", "Strata Variables = none\n",
                           "Dependent Variables = none\n", "Input Variables = none\n",
                           "Predicted Value Variables = none\n", "Residual Value Variables = none\n",
                           "Confidence Interval Level as percent = 95\n",
                           "Confidence Interval Type = Percentile\n", "Number of samples = 1000\n"}) {
    std::size_t end = text.find(line) + std::strlen(line);
    EXPECT_NE(std::find(buffer.flushedAt.begin(), buffer.flushedAt.end(), end),
              buffer.flushedAt.end())
        << "no flush after " << line;
  }
  ASSERT_FALSE(buffer.flushedAt.empty());
  EXPECT_EQ(text.substr(buffer.flushedAt.back()),
            "User-missing variable values are excluded\n\nEnd displaying Bootstrap Specifications\n");
}

TEST(BootstrapRecordTest, DefaultsAndCopyingSetters) {
  Specs specs;
  EXPECT_EQ(specs.GetSamplingMethod(), Specs::Simple);
  EXPECT_EQ(specs.GetCILevelPct(), 95.0);
  EXPECT_EQ(specs.GetCIType(), Specs::Percentile);
  EXPECT_EQ(specs.GetNSamples(), 1000);
  EXPECT_TRUE(specs.GetExcludeUserMiss());
  EXPECT_TRUE(specs.GetAuxIndexList().empty());
  EXPECT_TRUE(specs.GetAuxPairList().empty());

  std::vector<int> mine = {4, 5};
  specs.SetInputVarList(mine);
  mine.push_back(6);
  mine[0] = 0;
  EXPECT_EQ(specs.GetInputVarList(), (std::vector<int>{4, 5}));
}

TEST(BootstrapRecordTest, IdenticalToComparesEveryFieldAndDoublesByBits) {
  Specs a;
  Specs b;
  EXPECT_TRUE(a.IdenticalTo(b));
  b.SetCILevelPct(-0.0);
  a.SetCILevelPct(0.0);
  EXPECT_FALSE(a.IdenticalTo(b));
  a.SetCILevelPct(std::numeric_limits<double>::quiet_NaN());
  b.SetCILevelPct(std::numeric_limits<double>::quiet_NaN());
  EXPECT_TRUE(a.IdenticalTo(b));
  // Lists that only the byte form fills count as well.
  Serializer::deserializeSpecs(RichForm(false), a);
  Specs c = a;
  EXPECT_TRUE(c.IdenticalTo(a));
  FormBuilder moreAux(false);
  moreAux.Header().I32(Specs::Wild);
  for (int i = 0; i < 5; ++i) moreAux.U32(0);
  moreAux.U32(1).U32(5);
  Serializer::deserializeSpecs(moreAux.str(), c);
  EXPECT_FALSE(c.IdenticalTo(a));
}

TEST(BootstrapRecordTest, ItemOwnsTheRecordItIsHanded) {
  SvrDMItemPtr item(new SvrDMItem(LocallyUniqueID(0, 1), nullptr, nullptr, 0, std::string(), false));
  EXPECT_EQ(item->GetBootstrapSpecs(), nullptr);

  Specs* first = new Specs;
  first->SetNSamples(11);
  item->SetBootstrapSpecs(first);
  EXPECT_EQ(item->GetBootstrapSpecs(), first);
  // Handing back the same record must neither free nor change it; under the
  // address sanitizer a free here would make the read below fail.
  item->SetBootstrapSpecs(first);
  EXPECT_EQ(item->GetBootstrapSpecs(), first);
  EXPECT_EQ(first->GetNSamples(), 11);

  // The replaced record and the last one are freed by the item; the leak
  // checker of the address sanitizer build reports one that is not.
  item->SetBootstrapSpecs(new Specs);
  EXPECT_NE(item->GetBootstrapSpecs(), nullptr);
  EXPECT_EQ(item->GetBootstrapSpecs()->GetNSamples(), 1000);
  item = SvrDMItemPtr();

  SvrDMItemPtr cleared(new SvrDMItem(LocallyUniqueID(0, 2), nullptr, nullptr, 0, std::string(), false));
  cleared->SetBootstrapSpecs(new Specs);
  cleared->SetBootstrapSpecs(nullptr);
  EXPECT_EQ(cleared->GetBootstrapSpecs(), nullptr);
}

}  // namespace
