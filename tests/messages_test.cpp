#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "ServerDataManager.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

LocallyUniqueID const kDataSet(0, 3);
uint32_t const kCase = 17;

LocallyUniqueID Id(uint32_t serial) { return LocallyUniqueID(0, serial); }

// Every message a builder can make, as the library makes them: from
// VUGlobal, with the common three fields where the class takes them.
std::vector<DataSetMsg*> OneOfEach() {
  std::vector<QUOR_Variable> vars = {QUOR_Variable(Id(1), "a"), QUOR_Variable(Id(2), "b", 4)};
  QUOR_Variable var(Id(5), "e");
  LocallyUniqueID const split[] = {Id(1), Id(2)};
  QUOR_TrendsInfo trends;
  trends.SetText("t");
  RefCountPtr<QUOR_ExtensionImpl> ext(new QUOR_ExtensionImpl(17, 1, 2, "k="));
  auto* imputation = new ImputationInfoMsg;
  imputation->rowsPerImputation = 0;
  return {
      new DeleteVarsMsg(0, kDataSet, kCase, vars),
      new InsertVarsMsg(0, kDataSet, kCase, vars, LocallyUniqueID()),
      new MoveVarsMsg(0, kDataSet, kCase, {3}, 0),
      new ModifyVarMsg(0, kDataSet, kCase, var),
      new WeightVarMsg(0, kDataSet, kCase, Id(1)),
      new FilterVarMsg(0, kDataSet, kCase, LocallyUniqueID()),
      new SplitFileMsg(0, kDataSet, kCase, 2, split, true),
      new FileLabelChangeMsg(0, kDataSet, kCase, "label"),
      new FileSpecChangeMsg(0, kDataSet, kCase, "/d/f.csv", true),
      new ExtensionsMsg(0, kDataSet, kCase, ext),
      new TrendsInfoMsg(0, kDataSet, kCase, &trends),
      imputation,
      new ResetClientDataMsg(0, kDataSet, kCase, 8),
      new ResetUndoMsg,
      new DataSetModifiedMsg(0, kDataSet, kCase, true),
  };
}

TEST(MessagesTest, EveryClassComesFromVUGlobalAndGoesBackThere) {
  long const before = VUGlobal::LiveBlocks();
  std::vector<DataSetMsg*> messages = OneOfEach();
  EXPECT_EQ(VUGlobal::LiveBlocks(), before + 15);
  std::vector<DataSetMsg*> clones;
  for (DataSetMsg* message : messages) clones.push_back(static_cast<DataSetMsg*>(message->Clone()));
  EXPECT_EQ(VUGlobal::LiveBlocks(), before + 30);
  for (DataSetMsg* message : messages) delete message;
  for (DataSetMsg* message : clones) delete message;
  EXPECT_EQ(VUGlobal::LiveBlocks(), before);
}

TEST(MessagesTest, EachClassHasItsOwnNameAndPrintsOneLine) {
  std::vector<DataSetMsg*> messages = OneOfEach();
  std::vector<std::string> names;
  for (DataSetMsg* message : messages) {
    names.push_back(message->GetClassName());
    std::ostringstream line;
    line << *message;
    EXPECT_THAT(line.str(), HasSubstr(message->GetClassName()));
    EXPECT_THAT(line.str(), Not(HasSubstr("\n")));
    // A clone is of the same class.
    std::unique_ptr<VSerializable> clone(message->Clone());
    EXPECT_STREQ(clone->GetClassName(), message->GetClassName());
    delete message;
  }
  EXPECT_THAT(names, ElementsAre("DEMessages::DeleteVarsMsg", "DEMessages::InsertVarsMsg",
                                 "DEMessages::MoveVarsMsg", "DEMessages::ModifyVarMsg",
                                 "DEMessages::WeightVarMsg", "DEMessages::FilterVarMsg",
                                 "DEMessages::SplitFileMsg", "DEMessages::FileLabelChangeMsg",
                                 "DEMessages::FileSpecChangeMsg", "DEMessages::ExtensionsMsg",
                                 "DEMessages::TrendsInfoMsg", "DEMessages::ImputationInfoMsg",
                                 "DEMessages::ResetClientDataMsg", "DEMessages::ResetUndoMsg",
                                 "DEMessages::DataSetModifiedMsg"));
}

TEST(MessagesTest, PrintedLineShowsTheFields) {
  std::vector<QUOR_Variable> vars = {QUOR_Variable(Id(1), "age")};
  InsertVarsMsg insert(0, kDataSet, kCase, vars, Id(4));
  std::ostringstream out;
  out << insert;
  EXPECT_EQ(out.str(),
            "DEMessages::InsertVarsMsg reserved=0 dataSet=0:3 caseSequence=17 "
            "variables=[0:1 \"age\" type 0] before=0:4");

  LocallyUniqueID const split[] = {Id(2)};
  SplitFileMsg splitMsg(0, kDataSet, kCase, 1, split, false);
  FileLabelChangeMsg label(0, LocallyUniqueID(), 1, "two\nlines");
  std::ostringstream more;
  more << splitMsg << '|' << label;
  EXPECT_THAT(more.str(), HasSubstr("split=[0:2] separate=false|"));
  EXPECT_THAT(more.str(), HasSubstr("dataSet=none caseSequence=1 label=\"two\\nlines\""));
}

TEST(MessagesTest, MessageKeepsItsCopyAfterTheBuildersDataIsGone) {
  std::unique_ptr<FileLabelChangeMsg> label;
  std::unique_ptr<FileSpecChangeMsg> fileSpecMsg;
  std::unique_ptr<SplitFileMsg> split;
  std::unique_ptr<InsertVarsMsg> insert;
  std::unique_ptr<ModifyVarMsg> modify;
  std::unique_ptr<TrendsInfoMsg> trendsMsg;
  QUOR_Variable live(Id(7), "g");
  {
    std::string text = "The label";
    std::string path = "/data/file.csv";
    std::vector<LocallyUniqueID> ids = {Id(3), Id(1), Id(2)};
    std::vector<QUOR_Variable> list = {live};
    QUOR_TrendsInfo trends;
    trends.SetText("before");

    label.reset(new FileLabelChangeMsg(0, kDataSet, kCase, text.c_str()));
    fileSpecMsg.reset(new FileSpecChangeMsg(0, kDataSet, kCase, path.c_str(), true));
    split.reset(new SplitFileMsg(0, kDataSet, kCase, 2, ids.data(), true));
    insert.reset(new InsertVarsMsg(0, kDataSet, kCase, list, LocallyUniqueID()));
    modify.reset(new ModifyVarMsg(0, kDataSet, kCase, live));
    trendsMsg.reset(new TrendsInfoMsg(0, kDataSet, kCase, &trends));

    text.assign(40, 'x');
    path.clear();
    ids.assign(3, Id(9));
    list.clear();
    trends.SetText("after");
  }
  live.SetName("changed");
  live.SetType(3);

  EXPECT_EQ(label->GetLabel(), "The label");
  EXPECT_EQ(fileSpecMsg->GetFileSpec(), "/data/file.csv");
  EXPECT_TRUE(fileSpecMsg->GetSpecFlag());
  EXPECT_EQ(split->GetSplitCount(), 2);
  EXPECT_THAT(split->GetSplitIDs(), ElementsAre(Id(3), Id(1)));
  EXPECT_TRUE(split->GetSeparate());
  ASSERT_EQ(insert->GetVariables().size(), 1u);
  EXPECT_EQ(insert->GetVariables()[0].GetName(), "g");
  EXPECT_TRUE(insert->GetBeforeID().IsNone());
  EXPECT_EQ(modify->GetVariable().GetName(), "g");
  EXPECT_EQ(modify->GetVariable().GetType(), 0);
  EXPECT_EQ(trendsMsg->GetTrendsInfo().GetText(), "before");
}

TEST(MessagesTest, ExtensionIsSharedNotCopied) {
  RefCountPtr<QUOR_ExtensionImpl> ext(new QUOR_ExtensionImpl(7, 1, 3, "abc"));
  ExtensionsMsg message(0, kDataSet, kCase, ext);
  EXPECT_TRUE(message.GetExtension() == ext);
  EXPECT_TRUE(ext->IsShared());
  ext = nullptr;  // the message keeps it alive
  EXPECT_EQ(message.GetExtension()->GetType(), 7);
  EXPECT_EQ(message.GetExtension()->GetLength(), 3);
}

TEST(MessagesTest, InsertTakesTheListOverAndSharesItsDefinitions) {
  QUOR_Variable const a(Id(1), "a");
  std::vector<QUOR_Variable> list = {a, QUOR_Variable(Id(2), "b")};
  QUOR_VariableImpl const* second = list[1].Definition();
  InsertVarsMsg insert(0, kDataSet, kCase, list, Id(4));
  EXPECT_TRUE(list.empty());
  ASSERT_EQ(insert.GetVariables().size(), 2u);
  EXPECT_EQ(insert.GetVariables()[0].Definition(), a.Definition());
  EXPECT_EQ(insert.GetVariables()[1].Definition(), second);
}

TEST(MessagesTest, EmptyListsNoSplitAndNoFilterAreValid) {
  std::vector<QUOR_Variable> none;
  DeleteVarsMsg deleted(0, kDataSet, kCase, none);
  InsertVarsMsg inserted(0, kDataSet, kCase, none, LocallyUniqueID());
  SplitFileMsg noSplit(0, kDataSet, kCase, 0, nullptr, false);
  FilterVarMsg noFilter(0, kDataSet, kCase, LocallyUniqueID());
  FileLabelChangeMsg noLabel(0, kDataSet, kCase, nullptr);
  EXPECT_TRUE(deleted.GetVariables().empty());
  EXPECT_TRUE(inserted.GetVariables().empty());
  EXPECT_EQ(noSplit.GetSplitCount(), 0);
  EXPECT_TRUE(noFilter.GetFilterID().IsNone());
  EXPECT_EQ(noLabel.GetLabel(), "");
}

TEST(MessagesTest, BadSplitIsRefusedAndTheBlockGoesBack) {
  LocallyUniqueID ids[9];
  long const before = VUGlobal::LiveBlocks();
  EXPECT_THROW(new SplitFileMsg(0, kDataSet, kCase, 9, ids, false), std::invalid_argument);
  EXPECT_THROW(new SplitFileMsg(0, kDataSet, kCase, -1, ids, false), std::invalid_argument);
  EXPECT_THROW(new SplitFileMsg(0, kDataSet, kCase, 1, nullptr, false), std::invalid_argument);
  EXPECT_EQ(VUGlobal::LiveBlocks(), before);
}

// Passes `sent` through a stream by Process and rebuilds it in `received`.
void Cross(DataSetMsg& sent, DataSetMsg& received) {
  VStream stream;
  EXPECT_EQ(sent.Process(stream), 0);
  stream.StartLoading();
  EXPECT_EQ(received.Process(stream), 0);
  EXPECT_EQ(stream.Remaining(), 0u);
}

TEST(MessagesTest, MessagesCrossAStreamAndAreRebuilt) {
  QUOR_Variable labelled(Id(2), "b", 6);
  labelled.SetLabel("Bee");
  std::vector<QUOR_Variable> vars = {QUOR_Variable(Id(1), "a"), labelled};
  InsertVarsMsg insert(0, kDataSet, kCase, vars, Id(9));
  InsertVarsMsg insertBack;
  Cross(insert, insertBack);
  EXPECT_EQ(insertBack.GetDataSetID(), kDataSet);
  EXPECT_EQ(insertBack.GetCaseSequence(), kCase);
  EXPECT_EQ(insertBack.GetBeforeID(), Id(9));
  ASSERT_EQ(insertBack.GetVariables().size(), 2u);
  EXPECT_TRUE(insertBack.GetVariables()[1] == labelled);

  LocallyUniqueID const ids[] = {Id(4), LocallyUniqueID(2, 5)};
  SplitFileMsg split(0, kDataSet, kCase, 2, ids, true);
  SplitFileMsg splitBack;
  Cross(split, splitBack);
  EXPECT_THAT(splitBack.GetSplitIDs(), ElementsAre(Id(4), LocallyUniqueID(2, 5)));
  EXPECT_TRUE(splitBack.GetSeparate());

  RefCountPtr<QUOR_ExtensionImpl> ext(new QUOR_ExtensionImpl(19, 1, 4, "\0\1\2\3"));
  ExtensionsMsg extension(0, kDataSet, kCase, ext);
  ExtensionsMsg extensionBack;
  Cross(extension, extensionBack);
  ASSERT_TRUE(extensionBack.GetExtension().IsValid());
  EXPECT_TRUE(extensionBack.GetExtension()->SameContent(*ext));

  ResetClientDataMsg reset(0, kDataSet, kCase, -5);
  ResetClientDataMsg resetBack;
  Cross(reset, resetBack);
  EXPECT_EQ(resetBack.GetRowCount(), -5);
}

TEST(MessagesTest, StreamOfAnotherClassIsRefused) {
  WeightVarMsg weight(0, kDataSet, kCase, Id(1));
  VStream stream;
  weight.Process(stream);
  stream.StartLoading();
  FilterVarMsg filter;
  EXPECT_THROW(filter.Process(stream), std::runtime_error);
}

TEST(MessagesTest, CorruptSplitCountInAStreamIsRefused) {
  LocallyUniqueID const ids[] = {Id(1)};
  SplitFileMsg split(0, kDataSet, kCase, 1, ids, false);
  VStream stream;
  split.Process(stream);
  std::vector<uint8_t> bytes = stream.Bytes();
  // The count follows the header (number, name) and the common fields.
  std::size_t const countAt = 4 + 4 + std::string("DEMessages::SplitFileMsg").size() + 12;
  ASSERT_EQ(bytes[countAt], 1);
  bytes[countAt] = 200;
  VStream corrupt(bytes);
  SplitFileMsg back;
  EXPECT_THROW(back.Process(corrupt), std::runtime_error);
  EXPECT_EQ(back.GetSplitCount(), 0);
}

}  // namespace
