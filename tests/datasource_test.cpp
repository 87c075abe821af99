#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "ServerDataManager.h"
#include "support/scratchdir.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::ThrowsMessage;

QUOR_Variable Var(uint32_t serial, std::string const& name) { return {{0, serial}, name}; }

// A dictionary of variables a, b, c, ... with serials 0, 1, 2, ...
void Fill(QUOR_DataSource& source, std::string const& names) {
  for (char c : names) source.MakeVariable(Var(uint32_t(c - 'a'), std::string(1, c)), nullptr);
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

TEST(DictionaryTest, RefusedEditsLeaveTheDictionaryAsItWas) {
  DataFreeDataSource source;
  EXPECT_NO_THROW(source.DeleteVariables(0, -1));  // an empty dictionary: nothing to do
  Fill(source, "ace");
  source.InsertVariable(1, Var(1, "b"));
  source.InsertVariable(source.ColumnCount(), Var(5, "f"));  // appends
  EXPECT_EQ(source.FindVarIndex({1, 2}), -1);                // same serial, other group
  int const split[] = {4, 9};
  std::vector<std::function<void()>> const refused = {
      [&] { source.InsertVariable(6, Var(7, "x")); },
      [&] { source.InsertVariable(-1, Var(7, "x")); },
      [&] { source.InsertVariable(0, Var(1, "same id")); },
      [&] { source.DeleteVariables(4, 5); },
      [&] { source.SetSplit(9, split, false); },
      [&] { source.SetSplit(2, split, false); },
      [&] { source.MakeIterator(nullptr); },
  };
  for (std::size_t i = 0; i < refused.size(); ++i) {
    EXPECT_THROW(refused[i](), std::logic_error) << i;
    EXPECT_EQ(Names(source), "abcef") << i;
  }
  source.DeleteVariables(1, 3);  // both ends included
  EXPECT_EQ(Names(source), "af");
}

TEST(SystemFileTest, QuotesLineEndsAndBlankLinesAreReadAsWritten) {
  ScratchDir dir;
  OBS row;
  std::unique_ptr<ObsIterator> it(
      SystemFileDataSource(dir.Write("q.csv",
                                     "\xEF\xBB\xBFname,n,blank,plus\r\n\"a,b\",-2e3,,+3\r\n"
                                     "\r\n\"say \"\"hi\"\"\",1.5, ,4\n\"two\nlines\",nan,,"
                                     "\n\n"))
          .MakeIterator(&row));  // the iterator outlives its source
  std::vector<std::vector<std::string>> rows;
  while (it->Next()) rows.push_back(row.fields);
  EXPECT_THAT(rows, ElementsAre(ElementsAre("a,b", "-2e3", "", "+3"),
                                ElementsAre("say \"hi\"", "1.5", " ", "4"),
                                ElementsAre("two\nlines", "nan", "", "")));
  EXPECT_EQ(row.row, 2);  // left alone after the last
  // No byte-order mark in the first name; blanks are no evidence of text.
  LocallyUniqueID const before = QUOR_DataSource::NewVariableID();
  SystemFileDataSource const again(dir.PathOf("q.csv"));
  EXPECT_EQ(Names(again, true), "name:9 n:4 blank:0 plus:0 ");
  EXPECT_EQ(again.GetVariable(3).GetID(), LocallyUniqueID(1, before.serial + 4));  // process-wide
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

}  // namespace
