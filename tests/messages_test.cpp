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
using Pairs = std::vector<std::pair<DataSetMsg*, DataSetMsg*>>;

// One message of each class, each field set, beside a blank one of the same
// class to rebuild it into. `atBuild` gets their byte form before what the
// builders were given is changed.
Pairs OneOfEach(VStream* atBuild) {
  std::string text = "The \"label\"\n";
  QUOR_Variable var(Id(5), "e", 8);
  var.SetLabel("Ee");
  std::vector<QUOR_Variable> vars = {QUOR_Variable(Id(1), "a"), var}, inserted = vars;
  std::vector<LocallyUniqueID> split = {Id(1), LocallyUniqueID(2, 7)};
  QUOR_TrendsInfo trends;
  trends.SetText("t");
  auto* imputation = new ImputationInfoMsg;
  imputation->rowsPerImputation = -4;
  Pairs messages = {
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
      {new ResetClientDataMsg(0, LocallyUniqueID(), 0xFFFFFFFF, -5), new ResetClientDataMsg},
      {new ResetUndoMsg, new ResetUndoMsg},
      {new DataSetModifiedMsg(0, kDataSet, 17, true), new DataSetModifiedMsg}};
  EXPECT_TRUE(inserted.empty()) << "the insert message takes its list over";
  for (auto const& message : messages) message.first->Process(*atBuild);
  text.assign(40, 'x');
  var.SetName("changed");
  vars[0].SetType(3);
  split.assign(8, Id(0));
  trends.SetText("after");
  return messages;
}

// Each message, cloned, is written as it was at its building, reads back
// into a blank one field for field, and is refused cut short anywhere or
// read as another class.
TEST(MessagesTest, EveryClassCrossesAStreamWholeAndNeverCutOrForeign) {
  long const before = VUGlobal::LiveBlocks();
  VStream atBuild;
  Pairs messages = OneOfEach(&atBuild);
  EXPECT_EQ(VUGlobal::LiveBlocks(), before + 30);
  std::vector<uint8_t> written;
  for (auto const& [sent, blank] : messages) {
    SCOPED_TRACE(sent->GetClassName());
    VStream out;
    std::unique_ptr<VSerializable>(sent->Clone())->Process(out);  // whole, and from VUGlobal
    std::vector<uint8_t> const bytes = out.Bytes();
    written.insert(written.end(), bytes.begin(), bytes.end());
    for (std::size_t length = 0; length < bytes.size(); ++length) {
      VStream cut(std::vector<uint8_t>(bytes.begin(), bytes.begin() + long(length)));
      EXPECT_THROW(blank->Process(cut), std::runtime_error) << "cut at " << length;
    }
    VStream in(bytes), foreign(bytes);
    EXPECT_EQ(blank->Process(in), 0);
    EXPECT_EQ(in.Remaining(), 0u);
    std::ostringstream sentText, receivedText;
    sent->Print(sentText), blank->Print(receivedText);
    EXPECT_EQ(receivedText.str(), sentText.str());
    if (dynamic_cast<ResetUndoMsg*>(sent) == nullptr) {
      EXPECT_THROW(ResetUndoMsg().Process(foreign), std::runtime_error);
    }
    delete sent;
    delete blank;
  }
  EXPECT_EQ(written, atBuild.Bytes());
  EXPECT_EQ(VUGlobal::LiveBlocks(), before);
}

TEST(MessagesTest, SplitCountsAreBoundedWhenBuiltAndWhenRead) {
  LocallyUniqueID const ids[9];
  EXPECT_THROW(SplitFileMsg(0, kDataSet, 1, 9, ids, false), std::invalid_argument);
  EXPECT_THROW(SplitFileMsg(0, kDataSet, 1, -1, ids, false), std::invalid_argument);
  EXPECT_THROW(SplitFileMsg(0, kDataSet, 1, 1, nullptr, false), std::invalid_argument);
  VStream stream;
  SplitFileMsg(0, kDataSet, 1, 1, ids, false).Process(stream);
  std::vector<uint8_t> bytes = stream.Bytes();
  // The count follows the number, the class name and the common fields.
  std::size_t const countAt = 4 + 4 + std::string("DEMessages::SplitFileMsg").size() + 12;
  ASSERT_EQ(bytes.at(countAt), 1);
  bytes[countAt] = 9;  // one too many, with room for them in the stream
  bytes.resize(bytes.size() + 8 * 4);
  VStream corrupt(bytes);
  EXPECT_THROW(SplitFileMsg().Process(corrupt), std::runtime_error);
}

}  // namespace
