#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "ServerDataManager.h"

namespace {

LocallyUniqueID const kDataSet(0, 3);
LocallyUniqueID Id(uint32_t serial) { return LocallyUniqueID(0, serial); }

// One message of each class, every field set, is displayed on one line
// after its class name, crosses a stream into a blank one of its class that
// then displays the same, and is refused cut short anywhere or read as
// another class. What the builders were given is changed before the
// messages are used: each must hold its own copy.
TEST(MessagesTest, EveryClassDisplaysOnOneLineAndCrossesAStreamWholeButNeverCutOrForeign) {
  long const before = VUGlobal::LiveBlocks();
  std::string text = "The \"label\"\n";
  QUOR_Variable var(Id(5), "e", 8);
  std::vector<QUOR_Variable> vars = {QUOR_Variable(Id(1), "a"), var}, inserted = vars;
  std::vector<LocallyUniqueID> split = {Id(1), LocallyUniqueID(2, 7)};
  QUOR_TrendsInfo trends;
  trends.SetText("t");
  auto* imputation = new ImputationInfoMsg;
  imputation->rowsPerImputation = -4;
  std::pair<DataSetMsg*, DataSetMsg*> const messages[] = {
      {new DeleteVarsMsg(1, kDataSet, 17, vars), new DeleteVarsMsg},
      {new InsertVarsMsg(0, kDataSet, 17, inserted, Id(9)), new InsertVarsMsg},
      {new MoveVarsMsg(0, kDataSet, 17, {3, 0}, 2), new MoveVarsMsg},
      {new ModifyVarMsg(0, kDataSet, 17, var), new ModifyVarMsg},
      {new WeightVarMsg(0, kDataSet, 17, Id(1)), new WeightVarMsg},
      {new FilterVarMsg(0, kDataSet, 17, LocallyUniqueID()), new FilterVarMsg},
      {new SplitFileMsg(0, kDataSet, 17, 2, split.data(), true), new SplitFileMsg},
      {new FileLabelChangeMsg(0, kDataSet, 17, text.c_str()), new FileLabelChangeMsg},
      {new FileSpecChangeMsg(0, kDataSet, 17, text.c_str(), true), new FileSpecChangeMsg},
      {new ExtensionsMsg(0, kDataSet, 17, new QUOR_ExtensionImpl(19, 2, 3, "k\0=")),
       new ExtensionsMsg},
      {new TrendsInfoMsg(0, kDataSet, 17, &trends), new TrendsInfoMsg},
      {imputation, new ImputationInfoMsg},
      {new ResetClientDataMsg(7, LocallyUniqueID(), 0xFFFFFFFF, -5), new ResetClientDataMsg},
      {new ResetUndoMsg, new ResetUndoMsg},
      {new DataSetModifiedMsg(0, kDataSet, 17, true), new DataSetModifiedMsg}};
  EXPECT_TRUE(inserted.empty()) << "the insert message takes its list over";
  EXPECT_EQ(VUGlobal::LiveBlocks(), before + 30);  // every message from VUGlobal
  std::vector<std::string> shown;
  for (auto [sent, blank] : messages) {
    std::ostringstream out;
    sent->Print(out);
    shown.push_back(out.str());
  }
  text.assign(40, 'x');
  var.SetName("changed");
  vars[0].SetType(3);
  split.assign(8, Id(0));
  trends.SetText("after");
  for (std::size_t i = 0; i < std::size(messages); ++i) {
    auto [sent, blank] = messages[i];
    EXPECT_EQ(shown[i].find(sent->GetClassName() + std::string(" reserved=")), 0u) << shown[i];
    EXPECT_EQ(shown[i].find('\n'), std::string::npos) << shown[i];
    VStream out;
    std::unique_ptr<VSerializable>(sent->Clone())->Process(out);
    std::vector<uint8_t> const bytes = out.Bytes();
    for (std::size_t length = 0; length < bytes.size(); ++length) {
      VStream cut(std::vector<uint8_t>(bytes.begin(), bytes.begin() + long(length)));
      EXPECT_THROW(blank->Process(cut), std::runtime_error) << shown[i] << " cut at " << length;
    }
    VStream in(bytes), foreign(bytes);
    EXPECT_EQ(blank->Process(in), 0);
    EXPECT_EQ(in.Remaining(), 0u);
    std::ostringstream back;
    blank->Print(back);
    EXPECT_EQ(back.str(), shown[i]);
    if (dynamic_cast<ResetUndoMsg*>(sent) == nullptr) {
      EXPECT_THROW(ResetUndoMsg().Process(foreign), std::runtime_error) << shown[i];
    }
    delete sent;
    delete blank;
  }
  EXPECT_EQ(VUGlobal::LiveBlocks(), before);
}

// A count the stream carries is checked before anything is taken on trust:
// a split beyond 8, or a string length of almost 4 GiB before two bytes.
TEST(MessagesTest, CountsAreBoundedWhenBuiltAndWhenRead) {
  LocallyUniqueID const ids[9];
  EXPECT_THROW(SplitFileMsg(0, kDataSet, 1, 9, ids, false), std::invalid_argument);
  EXPECT_THROW(SplitFileMsg(0, kDataSet, 1, 1, nullptr, false), std::invalid_argument);
  VStream stream;
  SplitFileMsg(0, kDataSet, 1, 1, ids, false).Process(stream);
  std::vector<uint8_t> bytes = stream.Bytes();
  // The count follows the number, the class name and the common fields.
  std::size_t const countAt = 4 + 4 + std::string("DEMessages::SplitFileMsg").size() + 12;
  ASSERT_EQ(bytes.at(countAt), 1);
  bytes[countAt] = 9;  // one too many, with room for them in the stream
  bytes.resize(bytes.size() + 8 * 4);
  VStream corrupt(bytes), huge(std::vector<uint8_t>{0xF0, 0xFF, 0xFF, 0xFF, 'x', 'y'});
  EXPECT_THROW(SplitFileMsg().Process(corrupt), std::runtime_error);
  std::string kept = "kept";
  EXPECT_THROW(huge.Pass(kept), std::runtime_error);
  EXPECT_EQ(kept, "kept");
}

}  // namespace
