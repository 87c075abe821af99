#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "ServerDataManager.h"
#include "support/scratchdir.h"

namespace {

using ::testing::ElementsAre;

// Each variable's name and type, and the weight and label.
std::string Dictionary(QUOR_DataSource const& source) {
  std::string out = std::to_string(source.GetWeightVarIndex()) + source.GetLabel() + ":";
  for (int i = 0; i < static_cast<int>(source.ColumnCount()); ++i)
    out += " " + source.GetVariable(i).GetName() + "/" +
           std::to_string(source.GetVariable(i).GetType());
  return out;
}

// Quotes, line ends and blank lines are read as written; a column's type is
// numeric only when each of its values reads as a number, and blanks are no
// evidence of text.
TEST(SystemFileTest, RowsAndColumnTypesAsWrittenAndTheWholeDictionaryCopied) {
  ScratchDir dir;
  OBS row;
  SystemFileDataSource source(
      dir.Write("q.csv",
                "\xEF\xBB\xBFname,n,blank,plus\r\n\"a,b\",-2e3,,+3\r\n"
                "\r\n\"say \"\"hi\"\"\",1.5, ,4\n\"two\nlines\",nan,,\n\n"));
  std::unique_ptr<ObsIterator> it(source.MakeIterator(&row));
  std::vector<std::vector<std::string>> rows;
  while (it->Next()) rows.push_back(row.fields);
  EXPECT_THAT(rows, ElementsAre(ElementsAre("a,b", "-2e3", "", "+3"),
                                ElementsAre("say \"hi\"", "1.5", " ", "4"),
                                ElementsAre("two\nlines", "nan", "", "")));
  source.SetWeightVar(1);
  source.SetLabel("L");
  EXPECT_EQ(Dictionary(source), "1L: name/9 n/4 blank/0 plus/0");
  DataFreeDataSource copy;
  copy.CopyDictionary(source);
  copy.DeleteVariables(0, 0);  // the copy's own
  EXPECT_EQ(Dictionary(source), "1L: name/9 n/4 blank/0 plus/0");
  EXPECT_EQ(Dictionary(copy), "0L: n/4 blank/0 plus/0");
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
    EXPECT_THAT(
        [&path] { SystemFileDataSource source(path); },
        testing::ThrowsMessage<std::runtime_error>(testing::HasSubstr(path + cases[i].second)));
  }
}

}  // namespace
