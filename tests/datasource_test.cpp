#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "ServerDataManager.h"
#include "support/counting_source.h"
#include "support/scratchdir.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::ThrowsMessage;

LocallyUniqueID Id(uint32_t serial) { return LocallyUniqueID(0, serial); }
QUOR_Variable Var(uint32_t serial, std::string const& name) { return {Id(serial), name}; }

// A dictionary of variables a, b, c, ... with identifiers 0, 1, 2, ...
void Fill(QUOR_DataSource* source, std::string const& names) {
  for (char c : names) source->MakeVariable(Var(uint32_t(c - 'a'), std::string(1, c)), nullptr);
}

// The names of the variables, each with ":type " after it if asked.
std::string Names(QUOR_DataSource const& source, bool withTypes = false) {
  std::string out;
  for (int i = 0; i < static_cast<int>(source.ColumnCount()); ++i) {
    QUOR_Variable const& v = source.GetVariable(i);
    out += withTypes ? v.GetName() + ":" + std::to_string(v.GetType()) + " " : v.GetName();
  }
  return out;
}

TEST(QuorVariableTest, CopiesKeepTheirContentWhateverChangesTheOriginal) {
  std::vector<void (*)(QUOR_Variable&)> const changes = {
      [](QUOR_Variable& v) { v.SetName("age2"); }, [](QUOR_Variable& v) { v.SetLabel("Age"); },
      [](QUOR_Variable& v) { v.SetType(8); }, [](QUOR_Variable& v) { v = Var(2, "age"); }};
  QUOR_Variable const original = Var(1, "age");
  for (std::size_t i = 0; i < changes.size(); ++i) {
    QUOR_Variable changed = original;
    changes[i](changed);
    EXPECT_TRUE(changed != original) << i;  // and each field takes part in the comparison
    EXPECT_TRUE(original == QUOR_Variable(Id(1), "age") && original.GetLabel().empty()) << i;
  }
  // The same through the reference GetVariable hands out.
  DataFreeDataSource source;
  Fill(&source, "abc");
  QUOR_Variable const first = source.GetVariable(0), second = source.GetVariable(1);
  source.GetVariable(0).SetName("renamed");
  source.GetVariable(1) = Var(9, "z");
  EXPECT_TRUE(first == Var(0, "a") && second == Var(1, "b"));
  EXPECT_EQ(Names(source), "renamedzc");
}

TEST(DictionaryTest, InsertDeleteAndFindKeepTheirBoundaries) {
  DataFreeDataSource source;
  EXPECT_NO_THROW(source.DeleteVariables(0, -1));  // an empty dictionary: nothing to do
  Fill(&source, "ac");
  source.InsertVariable(1, Var(1, "b"));
  source.InsertVariable(source.ColumnCount(), Var(3, "d"));  // appends
  source.MakeVariable(Var(4, "e"), nullptr);
  EXPECT_EQ(Names(source), "abcde");
  EXPECT_EQ(source.FindVarIndex(LocallyUniqueID(1, 3)), -1);  // same serial, other group

  EXPECT_THROW(source.InsertVariable(6, Var(7, "x")), std::out_of_range);
  EXPECT_THROW(source.InsertVariable(-1, Var(7, "x")), std::out_of_range);
  EXPECT_THROW(source.InsertVariable(0, Var(1, "same id")), std::invalid_argument);
  EXPECT_THROW(source.DeleteVariables(4, 5), std::out_of_range);
  EXPECT_EQ(Names(source), "abcde");
  source.DeleteVariables(1, 3);  // both ends included
  EXPECT_EQ(Names(source), "ae");
}

TEST(PropertiesTest, WeightFilterAndSplitFollowTheirVariableByIdentifier) {
  DataFreeDataSource source;
  Fill(&source, "abcde");
  source.SetWeightVar(2);
  source.SetFilterVar(3);
  int const split[] = {4, 1, 0, 0, 0, 0, 0, 0, 0};
  source.SetSplit(2, split, true);
  source.DeleteVariables(0, 0);  // everything moves down one
  EXPECT_EQ(source.GetWeightVarIndex(), 1);
  EXPECT_EQ(source.GetFilterVariableID(), Id(3));
  EXPECT_EQ(source.GetSplitVarIndex(0), 3);
  EXPECT_EQ(source.GetSplitVarID(1), Id(1));
  EXPECT_EQ(source.GetSplitVarIndex(2), -1);
  source.DeleteVariables(2, 3);  // the filter and a split variable go
  EXPECT_TRUE(source.GetFilterVariableID().IsNone());
  EXPECT_EQ(source.GetNSplitVars(), 1);
  source.GetVariable(1) = Var(30, "new");  // replaced under the weight
  EXPECT_EQ(source.GetWeightVarIndex(), -1);
  source.SetFilterVar(0);
  source.SetFilterVar(-1);  // what the getter gives for no variable clears
  EXPECT_TRUE(source.GetFilterVariableID().IsNone());

  // A refused split keeps the old one; a split of none reads no position.
  EXPECT_THROW(source.SetSplit(9, split, false), std::invalid_argument);
  EXPECT_THROW(source.SetSplit(2, split, false), std::out_of_range);  // position 4 is gone
  EXPECT_EQ(source.GetSplitVarIndex(0), 0);
  EXPECT_TRUE(source.GetSplitqSeparate());
  source.SetSplit(0, nullptr, false);
  EXPECT_EQ(source.GetNSplitVars(), 0);
  EXPECT_FALSE(source.GetSplitqSeparate());
}

TEST(PropertiesTest, LabelMayBeNullFileSpecNeverIsAndAttributesEscape) {
  DataFreeDataSource source;
  EXPECT_EQ(source.GetLabel(), nullptr);
  source.SetLabel("");
  EXPECT_STREQ(source.GetLabel(), "");  // an empty label is still a label
  source.SetLabel(nullptr);
  EXPECT_EQ(source.GetLabel(), nullptr);
  EXPECT_STREQ(SystemFileDataSource().GetFileSpec(), "");
  source.SetFileSpec("/data/a.csv");
  source.SetFileSpec(nullptr);
  EXPECT_STREQ(source.GetFileSpec(), "");
  DatasourceAttributes attributes;
  attributes.Set("a=", "x;z\\");
  EXPECT_EQ(attributes.MakeString(), "a\\==x\\;z\\\\;");
}

TEST(ExtensionTest, RecordsCompareByTypeAndBytes) {
  using Ext = QUOR_DataSource::Extension;
  constexpr int kRecord = QUOR_DataSource::kExtensionRecord;
  std::string const payload("p\0q", 3);
  DataFreeDataSource source;
  EXPECT_TRUE(Ext(source, kRecord) == Ext(DataFreeDataSource(), kRecord));
  source.SetExtension(Ext(kRecord, payload));
  EXPECT_TRUE(Ext(source, kRecord) == Ext(kRecord, payload));
  EXPECT_FALSE(Ext(source, kRecord) == Ext(QUOR_DataSource::kExtensionAttributes, payload));
  EXPECT_FALSE(Ext(source, kRecord) == Ext(kRecord, "p"));
  EXPECT_FALSE(Ext(DataFreeDataSource(), kRecord) == Ext(source, kRecord));
}

TEST(ChainTest, DeletingASourceLeavesItsParentAlive) {
  std::vector<std::string> log;
  std::unique_ptr<QUOR_DataSource> head(CountingSource::Chain(&log, {"head", "middle", "root"}));
  std::unique_ptr<QUOR_DataSource> middle(head->GetParentSource());
  std::unique_ptr<QUOR_DataSource> root(middle->GetParentSource());
  head.reset();
  EXPECT_THAT(log, ElementsAre("head"));
  EXPECT_EQ(middle->NParents(), 1);  // read through the parent, which is still there
  middle.reset();                    // before its parent, as owners of a chain do
}

TEST(SystemFileTest, SampleFilesOpenWithTypedVariablesAndTheirRowCounts) {
  SystemFileDataSource survey(SDM_EXAMPLES_DATA_DIR "/survey.csv");
  EXPECT_EQ(Names(survey, true), "id:0 region:5 age:0 income:0 weight:0 satisfied:0 comment:22 ");
  EXPECT_EQ(survey.RowCount(), 8);
  EXPECT_FALSE(survey.IsDirty());
  SystemFileDataSource trial(SDM_EXAMPLES_DATA_DIR "/trial.csv");
  EXPECT_EQ(Names(trial, true), "subject:0 arm:1 dose:0 response:0 ");
  EXPECT_EQ(trial.RowCount(), 4);
}

TEST(SystemFileTest, ColumnsTakeVariableIdentifiersUniqueInTheProcess) {
  LocallyUniqueID const first = QUOR_DataSource::NewVariableID();
  SystemFileDataSource a(SDM_EXAMPLES_DATA_DIR "/trial.csv"), b(SDM_EXAMPLES_DATA_DIR "/trial.csv");
  // Group 1, never read as a dataset of group 0; each serial once.
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(a.GetVariable(i).GetID(), LocallyUniqueID(1, first.serial + 1 + i));
    EXPECT_EQ(b.GetVariable(i).GetID(), LocallyUniqueID(1, first.serial + 5 + i));
  }
}

TEST(SystemFileTest, QuotesLineEndsBlankLinesAndTypesAreReadAsWritten) {
  ScratchDir dir;
  SystemFileDataSource source(dir.Write("q.csv",
                                        "\xEF\xBB\xBFname,n,blank,plus\r\n\"a,b\",-2e3,,+3\r\n\r\n"
                                        "\"say \"\"hi\"\"\",1.5, ,4\n\"two\nlines\",nan,,\n\n"));
  // No byte-order mark in the first name; blanks are no evidence of text.
  EXPECT_EQ(Names(source, true), "name:9 n:4 blank:0 plus:0 ");
  OBS row;
  std::unique_ptr<ObsIterator> it(source.MakeIterator(&row));
  std::vector<std::vector<std::string>> rows;
  while (it->Next()) rows.push_back(row.fields);
  EXPECT_THAT(rows, ElementsAre(ElementsAre("a,b", "-2e3", "", "+3"),
                                ElementsAre("say \"hi\"", "1.5", " ", "4"),
                                ElementsAre("two\nlines", "nan", "", "")));
  EXPECT_EQ(SystemFileDataSource(dir.Write("h.csv", "a,b")).ColumnCount(), 2u);
}

TEST(SystemFileTest, EachMalformedFileGivesItsOwnErrorNamingFileAndLine) {
  std::vector<std::pair<std::string, std::string>> const cases = {
      {"", ", line 1: the file is empty"},
      {"\na,b\n", ", line 1: the header line is empty"},
      {"a,,c\n1,2,3\n", ", line 1: the header names no variable in column 2"},
      {"a,b,a\n1,2,3\n", ", line 1: the header names the variable \"a\" twice"},
      {"a,b\n1,2\n3,4,5\n", ", line 3: the row has 3 fields but the header has 2 variables"},
      {"a,b\n1,\"open\n2,3\n", ", line 2: the quoted field 2 that starts here is not closed"},
      {"a,b\n1,\"x\"y\n", ", line 2: text after the closing quote of field 2"},
      {"a,b\n1,x\"y\n", ", line 2: a quote inside field 2"},
      {"a,b\r\n1,\"one\r\ntwo\nthree\"\r\n4\r\n", ", line 5: the row has 1 field but"},
      {"missing", ": cannot open the file"},  // not written: no such file
  };
  ScratchDir dir;
  for (std::size_t i = 0; i < cases.size(); ++i) {
    std::string const name = "bad" + std::to_string(i) + ".csv";
    std::string const path =
        cases[i].first == "missing" ? dir.PathOf(name) : dir.Write(name, cases[i].first);
    EXPECT_THAT([&path] { SystemFileDataSource source(path); },
                ThrowsMessage<std::runtime_error>(HasSubstr(path + cases[i].second)));
  }
}

TEST(SystemFileTest, IteratorOutlivesItsFileAndLeavesTheRowAloneAfterTheLast) {
  ScratchDir dir;
  OBS row;
  std::unique_ptr<ObsIterator> it(
      SystemFileDataSource(dir.Write("r.csv", "a,b\n1,2\n3,4\n")).MakeIterator(&row));
  ASSERT_TRUE(it->Next() && it->Next());
  EXPECT_FALSE(it->Next());
  EXPECT_THAT(row.fields, ElementsAre("3", "4"));
  EXPECT_EQ(row.row, 1);
  EXPECT_FALSE(PassThroughIter(DataFreeDataSource(), &row, nullptr).Next());  // no parent
}

}  // namespace
