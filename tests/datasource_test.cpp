#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "ServerDataManager.h"

namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

LocallyUniqueID Id(uint32_t serial) { return LocallyUniqueID(0, serial); }
QUOR_Variable Var(uint32_t serial, std::string const& name, int type = 0) {
  return QUOR_Variable(Id(serial), name, type);
}

// A dictionary of variables a, b, c, ... with identifiers 0, 1, 2, ...
void Fill(QUOR_DataSource* source, std::string const& names) {
  for (char c : names)
    source->MakeVariable(Var(static_cast<uint32_t>(c - 'a'), std::string(1, c)), nullptr);
}

std::string Names(QUOR_DataSource const& source) {
  std::string out;
  for (unsigned i = 0; i < source.ColumnCount(); ++i)
    out += source.GetVariable(static_cast<int>(i)).GetName();
  return out;
}

// A source of a test's own, as the server derives them: counts its
// destructions and reports a row count of its own.
class CountingSource : public QUOR_DataSource {
 public:
  explicit CountingSource(int* deaths, long long rows = 0)
      : QUOR_DataSource(nullptr), deaths_(deaths), rows_(rows) {}
  ~CountingSource() override { ++*deaths_; }
  long long RowCount() const override { return rows_; }

 private:
  int* deaths_;
  long long rows_;
};

// ---------------------------------------------------------------------------
// Variables

TEST(QuorVariableTest, CopyKeepsItsContentWhenTheOriginalChanges) {
  QUOR_Variable original = Var(1, "age");
  QUOR_Variable copy = original;
  EXPECT_EQ(copy.Definition(), original.Definition());

  original.SetName("age2");
  original.SetLabel("Age in years");
  original.SetType(8);

  EXPECT_EQ(copy.GetName(), "age");
  EXPECT_EQ(copy.GetLabel(), "");
  EXPECT_EQ(copy.GetType(), 0);
  EXPECT_EQ(original.GetName(), "age2");
  EXPECT_EQ(original.GetType(), 8);
  EXPECT_NE(copy.Definition(), original.Definition());
}

TEST(QuorVariableTest, EqualityLooksAtIdentifierNameLabelAndType) {
  QUOR_Variable a = Var(1, "x", 0);
  EXPECT_TRUE(a == a);
  EXPECT_TRUE(a == Var(1, "x", 0));  // distinct definitions, same content

  EXPECT_FALSE(a == Var(2, "x", 0));
  EXPECT_FALSE(a == Var(1, "y", 0));
  EXPECT_FALSE(a == Var(1, "x", 3));
  QUOR_Variable labelled = a;
  labelled.SetLabel("L");
  EXPECT_FALSE(a == labelled);
  EXPECT_TRUE(a != labelled);
}

TEST(QuorVariableTest, AssignmentThroughGetVariableLeavesEarlierCopiesAlone) {
  DataFreeDataSource source;
  Fill(&source, "abc");
  QUOR_Variable before = source.GetVariable(1);

  QUOR_Variable replacement = Var(9, "z", 4);
  source.GetVariable(1) = replacement;

  EXPECT_EQ(before.GetName(), "b");
  EXPECT_EQ(before.GetID(), Id(1));
  EXPECT_TRUE(source.GetVariable(1) == replacement);
  EXPECT_EQ(source.GetVariable(1).GetID(), Id(9));

  QUOR_Variable first = source.GetVariable(0);
  source.GetVariable(0).SetName("renamed");  // a setter through the reference
  EXPECT_EQ(first.GetName(), "a");
  EXPECT_EQ(source.GetVariable(0).GetName(), "renamed");
}

// ---------------------------------------------------------------------------
// Dictionary

TEST(DictionaryTest, DeleteVariablesZeroToMinusOneOnAnEmptyDictionaryDoesNothing) {
  DataFreeDataSource source;
  EXPECT_NO_THROW(source.DeleteVariables(0, -1));
  EXPECT_EQ(source.ColumnCount(), 0u);
}

TEST(DictionaryTest, DeleteVariablesRemovesAnInclusiveRange) {
  DataFreeDataSource source;
  Fill(&source, "abcde");
  source.DeleteVariables(1, 3);
  EXPECT_EQ(Names(source), "ae");
  source.DeleteVariables(1, 1);
  EXPECT_EQ(Names(source), "a");
  EXPECT_THROW(source.DeleteVariables(0, 1), std::out_of_range);
  EXPECT_THROW(source.DeleteVariables(-1, 0), std::out_of_range);
  EXPECT_EQ(Names(source), "a");
}

TEST(DictionaryTest, InsertVariablePlacesACopyInFrontOfThePosition) {
  DataFreeDataSource source;
  Fill(&source, "ac");
  QUOR_Variable b = Var(1, "b");
  source.InsertVariable(1, b);
  EXPECT_EQ(Names(source), "abc");
  EXPECT_TRUE(source.GetVariable(1) == b);

  QUOR_Variable d = Var(3, "d");
  source.InsertVariable(source.ColumnCount(), d);  // the end appends
  EXPECT_EQ(Names(source), "abcd");
  EXPECT_TRUE(source.GetVariable(3) == d);
}

TEST(DictionaryTest, InsertVariableRefusesBadPositionsAndDuplicateIdentifiers) {
  DataFreeDataSource source;
  Fill(&source, "ab");
  EXPECT_THROW(source.InsertVariable(3, Var(7, "x")), std::out_of_range);
  EXPECT_THROW(source.InsertVariable(-1, Var(7, "x")), std::out_of_range);
  EXPECT_THROW(source.InsertVariable(0, Var(1, "other name, same id")), std::invalid_argument);
  EXPECT_EQ(Names(source), "ab");
}

TEST(DictionaryTest, FindVarIndexGivesMinusOneForAnUnknownIdentifier) {
  DataFreeDataSource source;
  EXPECT_EQ(source.FindVarIndex(Id(0)), -1);
  EXPECT_EQ(source.FindVarIndex(LocallyUniqueID()), -1);
  Fill(&source, "abc");
  EXPECT_EQ(source.FindVarIndex(Id(2)), 2);
  EXPECT_EQ(source.FindVarIndex(Id(5)), -1);
  EXPECT_EQ(source.FindVarIndex(LocallyUniqueID(1, 2)), -1);  // same serial, other group
}

TEST(DictionaryTest, MakeVariableAppendsWithTheGivenIdentifierAndReportsThePosition) {
  DataFreeDataSource source;
  Fill(&source, "a");
  unsigned int position = 99;
  QUOR_Variable v = Var(40, "forty", 3);
  source.MakeVariable(v, &position);
  EXPECT_EQ(position, 1u);
  EXPECT_TRUE(source.GetVariable(1) == v);
}

TEST(DictionaryTest, DataFreeSourceStartsEmpty) {
  DataFreeDataSource source;
  EXPECT_EQ(source.ColumnCount(), 0u);
  EXPECT_EQ(source.GetNSplitVars(), 0);
  EXPECT_TRUE(source.GetFilterVariableID().IsNone());
  EXPECT_TRUE(source.GetWeightVariableID().IsNone());
  ASSERT_NE(source.GetFileSpec(), nullptr);
  EXPECT_STREQ(source.GetFileSpec(), "");
  EXPECT_TRUE(source.GetMRSets().empty());
  EXPECT_TRUE(source.GetVariableSets().empty());
  EXPECT_EQ(source.RowCount(), 0);
  EXPECT_EQ(source.GetParentSource(), nullptr);
}

// ---------------------------------------------------------------------------
// Properties

TEST(PropertiesTest, WeightAndFilterFollowTheirVariableByIdentifier) {
  DataFreeDataSource source;
  Fill(&source, "abcd");
  source.SetWeightVar(2);
  source.SetFilterVar(3);
  EXPECT_EQ(source.GetWeightVariableID(), Id(2));
  EXPECT_EQ(source.GetFilterVariableID(), Id(3));

  source.DeleteVariables(0, 0);  // everything moves down one
  EXPECT_EQ(source.GetWeightVarIndex(), 1);
  EXPECT_EQ(source.GetWeightVariableID(), Id(2));
  EXPECT_EQ(source.GetFilterVarIndex(), 2);

  source.DeleteVariables(2, 2);  // the filter variable goes
  EXPECT_EQ(source.GetFilterVarIndex(), -1);
  EXPECT_TRUE(source.GetFilterVariableID().IsNone());
  // An entry replaced under the weight takes the weight with it.
  source.GetVariable(1) = Var(30, "new");
  EXPECT_TRUE(source.GetWeightVariableID().IsNone());
}

TEST(PropertiesTest, SetterTakesBackWhatTheGetterGivesForNoVariable) {
  DataFreeDataSource from;
  Fill(&from, "ab");
  DataFreeDataSource to;
  Fill(&to, "ab");
  to.SetWeightVar(1);
  to.SetFilterVar(0);
  to.SetWeightVar(from.GetWeightVarIndex());
  to.SetFilterVar(from.GetFilterVarIndex());
  EXPECT_EQ(to.GetWeightVariableID(), from.GetWeightVariableID());
  EXPECT_EQ(to.GetFilterVariableID(), from.GetFilterVariableID());
  EXPECT_TRUE(to.GetFilterVariableID().IsNone());
}

TEST(PropertiesTest, SplitReportsPositionsIdentifiersAndFlagInRankOrder) {
  DataFreeDataSource source;
  Fill(&source, "abcd");
  int const positions[] = {3, 1};
  source.SetSplit(2, positions, true);
  EXPECT_EQ(source.GetNSplitVars(), 2);
  EXPECT_EQ(source.GetSplitVarIndex(0), 3);
  EXPECT_EQ(source.GetSplitVarIndex(1), 1);
  EXPECT_EQ(source.GetSplitVarID(0), Id(3));
  EXPECT_EQ(source.GetSplitVarID(1), Id(1));
  EXPECT_TRUE(source.GetSplitqSeparate());
  EXPECT_EQ(source.GetSplitVarIndex(2), -1);
  EXPECT_TRUE(source.GetSplitVarID(2).IsNone());

  source.DeleteVariables(3, 3);  // a split variable leaves: the count drops
  EXPECT_EQ(source.GetNSplitVars(), 1);
  EXPECT_EQ(source.GetSplitVarID(0), Id(1));
}

TEST(PropertiesTest, SplitOfZeroClearsWithoutReadingThePointer) {
  DataFreeDataSource source;
  Fill(&source, "ab");
  int const positions[] = {0};
  source.SetSplit(1, positions, true);
  source.SetSplit(0, nullptr, false);
  EXPECT_EQ(source.GetNSplitVars(), 0);
  EXPECT_FALSE(source.GetSplitqSeparate());
}

TEST(PropertiesTest, SplitRefusesMoreThanEightOrABadPositionAndKeepsTheOldOne) {
  DataFreeDataSource source;
  Fill(&source, "abcdefghij");
  int const nine[] = {0, 1, 2, 3, 4, 5, 6, 7, 8};
  EXPECT_THROW(source.SetSplit(9, nine, false), std::invalid_argument);
  source.SetSplit(8, nine, false);
  EXPECT_EQ(source.GetNSplitVars(), 8);
  int const bad[] = {1, 10};
  EXPECT_THROW(source.SetSplit(2, bad, true), std::out_of_range);
  EXPECT_EQ(source.GetNSplitVars(), 8);
  EXPECT_FALSE(source.GetSplitqSeparate());
}

TEST(PropertiesTest, LabelNullClearsAndFileSpecIsNeverNull) {
  DataFreeDataSource source;
  EXPECT_EQ(source.GetLabel(), nullptr);
  source.SetLabel("Survey 2024");
  EXPECT_STREQ(source.GetLabel(), "Survey 2024");
  source.SetLabel(nullptr);
  EXPECT_EQ(source.GetLabel(), nullptr);

  std::string path = "/data/a.csv";
  source.SetFileSpec(path.c_str());
  path = "changed";
  EXPECT_STREQ(source.GetFileSpec(), "/data/a.csv");
  source.SetFileSpec(nullptr);
  EXPECT_STREQ(source.GetFileSpec(), "");
}

TEST(PropertiesTest, AttributesCompareAndWriteAnUnambiguousText) {
  DatasourceAttributes a;
  a.Set("b", "2");
  a.Set("a", "x=y;z\\");
  EXPECT_EQ(a.Get("a"), "x=y;z\\");
  EXPECT_EQ(a.Get("missing"), "");
  EXPECT_EQ(a.MakeString(), "a=x\\=y\\;z\\\\;b=2;");

  DatasourceAttributes b;
  b.Set("a", "x=y;z\\");
  EXPECT_FALSE(a == b);
  b.Set("b", "2");
  EXPECT_TRUE(a == b);

  DataFreeDataSource source;
  source.SetAttributes(a);
  a.Set("c", "3");
  EXPECT_TRUE(source.GetAttributes() == b);  // stored as a copy
}

VariableSetImpl Set(std::string name, std::vector<uint32_t> members) {
  VariableSetImpl set;
  set.name = std::move(name);
  for (uint32_t m : members) set.members.push_back(Id(m));
  return set;
}

TEST(PropertiesTest, VariableSetsCompareFieldByFieldAndInOrder) {
  VariableSetImpl base = Set("s", {1, 2});
  EXPECT_TRUE(base == Set("s", {1, 2}));
  EXPECT_FALSE(base == Set("s", {2, 1}));
  EXPECT_FALSE(base == Set("s", {1}));
  VariableSetImpl other = base;
  other.descriptor[5] = 1;
  EXPECT_FALSE(base == other);
  other = base;
  other.description = "d";
  EXPECT_FALSE(base == other);
  other = base;
  other.members[1] = LocallyUniqueID(1, 2);  // same serial, other group
  EXPECT_FALSE(base == other);

  DataFreeDataSource source;
  std::vector<VariableSetImpl> sets = {base, Set("t", {3})};
  source.SetMRSets(sets);
  source.SetVariableSets({Set("v", {})});
  EXPECT_EQ(source.GetMRSets(), sets);
  std::vector<VariableSetImpl> reversed = {sets[1], sets[0]};
  EXPECT_NE(source.GetMRSets(), reversed);
  EXPECT_EQ(source.GetVariableSets().size(), 1u);
}

TEST(ExtensionTest, RecordsCompareByTypeAndBytesAndSurviveTheirBuffer) {
  DataFreeDataSource view;
  DataFreeDataSource live;
  EXPECT_TRUE(QUOR_DataSource::Extension(view, 0) == QUOR_DataSource::Extension(live, 0));

  {
    std::string payload("p\0q", 3);
    live.SetExtension(QUOR_DataSource::Extension(0, payload));
  }
  QUOR_DataSource::Extension liveRecord(live, 0);
  EXPECT_FALSE(QUOR_DataSource::Extension(view, 0) == liveRecord);
  RefCountPtr<QUOR_ExtensionImpl> const& impl = liveRecord;
  ASSERT_TRUE(impl.IsValid());
  EXPECT_EQ(impl->GetLength(), 3);
  EXPECT_EQ(std::string(reinterpret_cast<char const*>(impl->GetData()), 3), std::string("p\0q", 3));

  view.SetExtension(liveRecord);
  EXPECT_TRUE(QUOR_DataSource::Extension(view, 0) == QUOR_DataSource::Extension(live, 0));
  EXPECT_FALSE(QUOR_DataSource::Extension(0, "pq") == QUOR_DataSource::Extension(1, "pq"));
  EXPECT_TRUE(QUOR_DataSource::Extension(5, "pq") == QUOR_DataSource::Extension(5, "pq"));
  EXPECT_THROW(QUOR_DataSource::Extension(view, 1), std::invalid_argument);
}

TEST(ExtensionTest, ImplCopiesItsDataAndRefusesANegativeLength) {
  std::vector<char> buffer = {'a', 'b', 'c'};
  RefCountPtr<QUOR_ExtensionImpl> impl(new QUOR_ExtensionImpl(17, 1, 3, buffer.data()));
  buffer.assign(3, 'x');
  EXPECT_EQ(impl->GetType(), 17);
  EXPECT_EQ(std::string(reinterpret_cast<char const*>(impl->GetData()), 3), "abc");
  EXPECT_THROW(QUOR_ExtensionImpl(1, 1, -1, buffer.data()), std::invalid_argument);
  EXPECT_THROW(QUOR_ExtensionImpl(1, 1, 2, nullptr), std::invalid_argument);
}

TEST(DictionaryTest, CopyDictionaryCopiesEveryPropertyButNotRowsOrParent) {
  int deaths = 0;
  CountingSource parent(&deaths, 5);
  CountingSource from(&deaths, 7);
  from.SetParentSource(&parent);
  Fill(&from, "abc");
  from.SetDirty(true);
  from.SetWeightVar(0);
  from.SetFilterVar(1);
  int const split[] = {2};
  from.SetSplit(1, split, true);
  from.SetFileSpec("f.csv");
  from.SetLabel("L");
  from.RowsPerImputation(4);
  from.GetTrendsInfo()->SetText("t");
  DatasourceAttributes attributes;
  attributes.Set("k", "v");
  from.SetAttributes(attributes);
  from.SetMRSets({Set("m", {0})});
  from.SetVariableSets({Set("v", {1})});
  from.SetExtension(QUOR_DataSource::Extension(0, "x"));

  DataFreeDataSource to;
  Fill(&to, "zz");
  to.CopyDictionary(from);
  EXPECT_EQ(Names(to), "abc");
  EXPECT_TRUE(to.IsDirty());
  EXPECT_EQ(to.GetWeightVariableID(), Id(0));
  EXPECT_EQ(to.GetFilterVariableID(), Id(1));
  EXPECT_EQ(to.GetSplitVarID(0), Id(2));
  EXPECT_TRUE(to.GetSplitqSeparate());
  EXPECT_STREQ(to.GetFileSpec(), "f.csv");
  EXPECT_STREQ(to.GetLabel(), "L");
  EXPECT_EQ(to.RowsPerImputation(), 4);
  EXPECT_TRUE(*to.GetTrendsInfo() == *from.GetTrendsInfo());
  EXPECT_TRUE(to.GetAttributes() == attributes);
  EXPECT_EQ(to.GetMRSets(), from.GetMRSets());
  EXPECT_EQ(to.GetVariableSets(), from.GetVariableSets());
  EXPECT_TRUE(QUOR_DataSource::Extension(to, 0) == QUOR_DataSource::Extension(from, 0));
  EXPECT_EQ(to.RowCount(), 0);
  EXPECT_EQ(to.GetParentSource(), nullptr);

  // Independent afterwards: the copy's variables are values.
  from.GetVariable(0).SetName("changed");
  EXPECT_EQ(to.GetVariable(0).GetName(), "a");
}

// ---------------------------------------------------------------------------
// Chains

TEST(ChainTest, DeletingASourceLeavesItsParentAlive) {
  int deaths = 0;
  auto* parent = new CountingSource(&deaths);
  auto* child = new CountingSource(&deaths);
  child->SetParentSource(parent);
  EXPECT_EQ(child->NParents(), 1);
  delete static_cast<QUOR_DataSource*>(child);
  EXPECT_EQ(deaths, 1);
  EXPECT_EQ(parent->GetParentSource(), nullptr);  // still readable
  delete static_cast<QUOR_DataSource*>(parent);
  EXPECT_EQ(deaths, 2);
}

// Records the order of destruction and reads its parent while it dies, so a
// parent freed too early shows up under the address sanitizer.
class LoggingSource : public QUOR_DataSource {
 public:
  LoggingSource(std::string name, std::vector<std::string>* log)
      : QUOR_DataSource(nullptr), name_(std::move(name)), log_(log) {}
  ~LoggingSource() override {
    auto const* parent = static_cast<LoggingSource const*>(GetParentSource());
    log_->push_back(name_ + (parent != nullptr ? " over " + parent->name_ : ""));
  }

 private:
  std::string name_;
  std::vector<std::string>* log_;
};

TEST(ChainTest, ItemDeletesItsWholeChainHeadFirst) {
  std::vector<std::string> log;
  auto* root = new LoggingSource("root", &log);
  auto* middle = new LoggingSource("middle", &log);
  auto* head = new LoggingSource("head", &log);
  middle->SetParentSource(root);
  head->SetParentSource(middle);
  EXPECT_EQ(head->NParents(), 2);
  {
    ServerDataManager registry;
    LocallyUniqueID const id = registry.Add(*head, "", true);
    registry.Delete(id);
  }
  EXPECT_THAT(log, ElementsAre("head over middle", "middle over root", "root"));
}

// ---------------------------------------------------------------------------
// Files

class SystemFileTest : public ::testing::Test {
 protected:
  void TearDown() override {
    for (std::string const& path : written_) std::remove(path.c_str());
  }

  std::string Write(std::string const& contents) {
    std::string path = ::testing::TempDir() + "sdm_csv_" + std::to_string(::getpid()) + "_" +
                       std::to_string(written_.size()) + ".csv";
    std::ofstream(path, std::ios::binary) << contents;
    written_.push_back(path);
    return path;
  }

  // The text of the error the file gives; fails the test if it opens.
  std::string ErrorOf(std::string const& contents) {
    std::string const path = Write(contents);
    try {
      SystemFileDataSource source(path);
    } catch (std::runtime_error const& error) {
      std::string const text = error.what();
      EXPECT_THAT(text, HasSubstr(path));
      return text;
    }
    ADD_FAILURE() << "the file opened: " << contents;
    return std::string();
  }

  static std::vector<std::vector<std::string>> Rows(QUOR_DataSource const& source) {
    OBS row;
    std::unique_ptr<ObsIterator> it(source.MakeIterator(&row));
    std::vector<std::vector<std::string>> rows;
    while (it->Next()) rows.push_back(row.fields);
    return rows;
  }

 private:
  std::vector<std::string> written_;
};

std::string const kDataDir = SDM_EXAMPLES_DATA_DIR;

TEST_F(SystemFileTest, SurveySampleOpensWithTypedVariablesAndItsRows) {
  std::string const path = kDataDir + "/survey.csv";
  SystemFileDataSource survey(path);
  EXPECT_STREQ(survey.GetFileSpec(), path.c_str());
  ASSERT_EQ(survey.ColumnCount(), 7u);
  EXPECT_EQ(survey.RowCount(), 8);
  EXPECT_EQ(Names(survey), std::string("idregionageincomeweightsatisfiedcomment"));
  EXPECT_EQ(survey.GetVariable(0).GetType(), 0);   // id
  EXPECT_EQ(survey.GetVariable(1).GetType(), 5);   // region: "North", "South"
  EXPECT_EQ(survey.GetVariable(4).GetType(), 0);   // weight: decimals
  EXPECT_EQ(survey.GetVariable(6).GetType(), 22);  // "Waited too long, twice"
  EXPECT_FALSE(survey.IsDirty());
  for (unsigned i = 0; i < survey.ColumnCount(); ++i) {
    EXPECT_EQ(survey.FindVarIndex(survey.GetVariable(static_cast<int>(i)).GetID()),
              static_cast<int>(i));
  }
  auto rows = Rows(survey);
  ASSERT_EQ(rows.size(), 8u);
  EXPECT_THAT(rows[1],
              ElementsAre("2", "South", "45", "61000", "0.8", "0", "Waited too long, twice"));
  EXPECT_EQ(rows[2][6], "");
  EXPECT_EQ(rows[5][6], "Good, \"mostly\"");
}

TEST_F(SystemFileTest, TrialSampleOpens) {
  SystemFileDataSource trial(kDataDir + "/trial.csv");
  EXPECT_EQ(Names(trial), "subjectarmdoseresponse");
  EXPECT_EQ(trial.RowCount(), 4);
  EXPECT_EQ(trial.GetVariable(1).GetType(), 1);
  EXPECT_EQ(trial.GetVariable(3).GetType(), 0);
}

TEST_F(SystemFileTest, QuotedFieldsHoldCommasQuotesAndLineEnds) {
  SystemFileDataSource source(
      Write("\xEF\xBB\xBFname,note\r\n\"a,b\",\"say \"\"hi\"\"\"\r\nx,\"two\nlines\"\r\n"));
  EXPECT_EQ(source.GetVariable(0).GetName(), "name");  // no byte-order mark in the name
  auto rows = Rows(source);
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_THAT(rows[0], ElementsAre("a,b", "say \"hi\""));
  EXPECT_THAT(rows[1], ElementsAre("x", "two\nlines"));
}

TEST_F(SystemFileTest, TypesComeFromTheFieldsOfEachColumn) {
  SystemFileDataSource source(
      Write("n,s,blank,mixed,plus\n1.5,ab,,1,+3\n-2e3,abcd,,x,4\n,, ,2,\n"));
  EXPECT_EQ(source.GetVariable(0).GetType(), 0);
  EXPECT_EQ(source.GetVariable(1).GetType(), 4);
  EXPECT_EQ(source.GetVariable(2).GetType(), 0);  // only blanks: no evidence of text
  EXPECT_EQ(source.GetVariable(3).GetType(), 1);
  EXPECT_EQ(source.GetVariable(4).GetType(), 0);
  SystemFileDataSource words(Write("w\nnan\ninf\n0x10\n"));
  EXPECT_EQ(words.GetVariable(0).GetType(), 4);
}

TEST_F(SystemFileTest, EmptyLinesAreNoRowsAndAHeaderAloneHasNoRows) {
  SystemFileDataSource source(Write("a,b\n1,2\n\n3,4\n\n"));
  EXPECT_EQ(source.RowCount(), 2);
  SystemFileDataSource headerOnly(Write("a,b"));
  EXPECT_EQ(headerOnly.ColumnCount(), 2u);
  EXPECT_EQ(headerOnly.RowCount(), 0);
}

TEST_F(SystemFileTest, EachMalformedFileGivesItsOwnErrorWithTheLine) {
  std::vector<std::string> const errors = {
      ErrorOf(""),
      ErrorOf("\na,b\n"),
      ErrorOf("a,,c\n1,2,3\n"),
      ErrorOf("a,b,a\n1,2,3\n"),
      ErrorOf("a,b\n1,2\n3\n"),
      ErrorOf("a,b\n1,2\n3,4,5\n"),
      ErrorOf("a,b\n1,\"open\n2,3\n"),
      ErrorOf("a,b\n1,\"x\"y\n"),
      ErrorOf("a,b\n1,x\"y\n"),
  };
  EXPECT_THAT(errors[0], HasSubstr("line 1: the file is empty"));
  EXPECT_THAT(errors[1], HasSubstr("line 1: the header line is empty"));
  EXPECT_THAT(errors[2], HasSubstr("line 1: the header names no variable in column 2"));
  EXPECT_THAT(errors[3], HasSubstr("line 1: the header names the variable \"a\" twice"));
  EXPECT_THAT(errors[4], HasSubstr("line 3: the row has 1 field but the header has 2 variables"));
  EXPECT_THAT(errors[5], HasSubstr("line 3: the row has 3 fields"));
  EXPECT_THAT(errors[6], HasSubstr("line 2: the quoted field 2 that starts here is not closed"));
  EXPECT_THAT(errors[7], HasSubstr("line 2: text after the closing quote of field 2"));
  EXPECT_THAT(errors[8], HasSubstr("line 2: a quote inside field 2"));
}

TEST_F(SystemFileTest, LineNumbersCountTheLinesInsideQuotedFields) {
  std::string const error = ErrorOf("a,b\r\n1,\"one\r\ntwo\nthree\"\r\n4\r\n");
  EXPECT_THAT(error, HasSubstr("line 5: the row has 1 field"));
}

TEST_F(SystemFileTest, FileThatCannotBeOpenedNamesTheFile) {
  std::string const path = ::testing::TempDir() + "sdm_no_such_file.csv";
  try {
    SystemFileDataSource source(path);
    ADD_FAILURE() << "a missing file opened";
  } catch (std::runtime_error const& error) {
    EXPECT_THAT(std::string(error.what()), AllOf(HasSubstr(path), HasSubstr("cannot open")));
  }
  std::string const directory = ::testing::TempDir();
  EXPECT_THROW(SystemFileDataSource source(directory), std::runtime_error);
}

TEST_F(SystemFileTest, DefaultSourceIsEmpty) {
  SystemFileDataSource source;
  EXPECT_EQ(source.ColumnCount(), 0u);
  EXPECT_EQ(source.RowCount(), 0);
  EXPECT_STREQ(source.GetFileSpec(), "");
  EXPECT_TRUE(Rows(source).empty());
}

TEST_F(SystemFileTest, IteratorOutlivesItsSource) {
  OBS row;
  std::unique_ptr<ObsIterator> it;
  {
    SystemFileDataSource source(Write("a\n1\n2\n"));
    it.reset(source.MakeIterator(&row));
  }
  ASSERT_TRUE(it->Next());
  EXPECT_EQ(row.fields[0], "1");
  EXPECT_EQ(row.row, 0);
  ASSERT_TRUE(it->Next());
  EXPECT_FALSE(it->Next());
  EXPECT_EQ(row.fields[0], "2");
}

TEST_F(SystemFileTest, PassThroughIterWalksTheParentsRowsAfterTheLinkIsGone) {
  SystemFileDataSource file(Write("a,b,c\n1,2,3\n4,5,6\n"));
  DataFreeDataSource shadow;
  OBS row;
  ObsProjector const projector({2, 0});

  shadow.SetParentSource(&file);
  PassThroughIter plain(shadow, &row, nullptr);
  OBS projectedRow;
  PassThroughIter projected(shadow, &projectedRow, &projector);
  shadow.SetParentSource(nullptr);

  ASSERT_TRUE(plain.Next());
  EXPECT_THAT(row.fields, ElementsAre("1", "2", "3"));
  ASSERT_TRUE(projected.Next());
  ASSERT_TRUE(projected.Next());
  EXPECT_THAT(projectedRow.fields, ElementsAre("6", "4"));
  EXPECT_EQ(projectedRow.row, 1);
  EXPECT_FALSE(projected.Next());

  PassThroughIter orphan(shadow, &row, nullptr);  // no parent: no rows
  EXPECT_FALSE(orphan.Next());
  EXPECT_THROW(PassThroughIter(shadow, nullptr, nullptr), std::invalid_argument);
}

// Readers share a source under read access: its const operations must not
// race. Run under the thread sanitizer, this finds any hidden write.
TEST_F(SystemFileTest, ConstOperationsRunOnSeveralThreadsAtOnce) {
  SystemFileDataSource source(kDataDir + "/survey.csv");
  int const split[] = {1, 2};
  source.SetSplit(2, split, false);
  source.SetWeightVar(4);
  std::vector<std::thread> readers;
  std::vector<long> sums(4, 0);
  for (int t = 0; t < 4; ++t) {
    readers.emplace_back([&source, &sums, t] {
      for (int round = 0; round < 200; ++round) {
        QUOR_Variable copy = source.GetVariable(round % 7);
        sums[t] += source.FindVarIndex(copy.GetID()) + source.GetNSplitVars() +
                   source.GetSplitVarIndex(1) + source.GetWeightVarIndex();
        QUOR_DataSource::Extension record(source, 0);
        OBS row;
        std::unique_ptr<ObsIterator> it(source.MakeIterator(&row));
        while (it->Next()) {
        }
      }
    });
  }
  for (std::thread& reader : readers) reader.join();
  long const expected = 200 * (2 + 2 + 4) + (0 + 1 + 2 + 3 + 4 + 5 + 6) * 28 + (0 + 1 + 2 + 3);
  for (long sum : sums) EXPECT_EQ(sum, expected);
}

}  // namespace
