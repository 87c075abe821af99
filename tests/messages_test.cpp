#include <gtest/gtest.h>
#include <sys/resource.h>

#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "ServerDataManager.h"

namespace {

LocallyUniqueID const kDataSet(0, 3);
LocallyUniqueID Id(uint32_t serial) { return LocallyUniqueID(0, serial); }

std::string Shown(DataSetMsg const& message) {
  std::ostringstream out;
  message.Print(out);
  return out.str();
}

// One message of each class, every field set, with its one-line display and
// a blank one of the same class to rebuild it into. What the builders were
// given is changed before the messages are used: each must hold its own copy.
TEST(MessagesTest, EveryClassDisplaysOnOneLineAndCrossesAStreamWholeButNeverCutOrForeign) {
  long const before = VUGlobal::LiveBlocks();
  std::string text = "The \"label\"\n";
  QUOR_Variable var(Id(5), "e", 8);
  var.SetLabel("Ee");
  std::vector<QUOR_Variable> vars = {QUOR_Variable(Id(1), "a"), var}, inserted = vars;
  std::vector<LocallyUniqueID> split = {Id(1), LocallyUniqueID(2, 7)};
  QUOR_TrendsInfo trends;
  trends.SetText("t");
  auto* imputation = new ImputationInfoMsg;
  imputation->rowsPerImputation = -4;
  // Each display is the class name, the common fields and its own.
  auto at17 = [](char const* name, char const* fields) {
    return "DEMessages::" + std::string(name) + " reserved=0 dataSet=0:3 caseSequence=17 " + fields;
  };
  struct Case {
    DataSetMsg *sent, *blank;
    std::string display;
  } const cases[] = {
      {new DeleteVarsMsg(0, kDataSet, 17, vars), new DeleteVarsMsg,
       at17("DeleteVarsMsg", "variables=[0:1 \"a\" type 0, 0:5 \"e\" type 8]")},
      {new InsertVarsMsg(0, kDataSet, 17, inserted, Id(9)), new InsertVarsMsg,
       at17("InsertVarsMsg", "variables=[0:1 \"a\" type 0, 0:5 \"e\" type 8] before=0:9")},
      {new MoveVarsMsg(0, kDataSet, 17, {3, 0}, 2), new MoveVarsMsg,
       at17("MoveVarsMsg", "indices=[3, 0] target=2")},
      {new ModifyVarMsg(0, kDataSet, 17, var), new ModifyVarMsg,
       at17("ModifyVarMsg", "variable=0:5 \"e\" label=\"Ee\" type 8")},
      {new WeightVarMsg(0, kDataSet, 17, Id(1)), new WeightVarMsg,
       at17("WeightVarMsg", "weight=0:1")},
      {new FilterVarMsg(0, kDataSet, 17, LocallyUniqueID()), new FilterVarMsg,
       at17("FilterVarMsg", "filter=none")},
      {new SplitFileMsg(0, kDataSet, 17, 2, split.data(), true), new SplitFileMsg,
       at17("SplitFileMsg", "split=[0:1, 2:7] separate=true")},
      {new FileLabelChangeMsg(0, kDataSet, 17, text.c_str()), new FileLabelChangeMsg,
       at17("FileLabelChangeMsg", "label=\"The \\\"label\\\"\\n\"")},
      {new FileSpecChangeMsg(0, kDataSet, 17, text.c_str(), true), new FileSpecChangeMsg,
       at17("FileSpecChangeMsg", "fileSpec=\"The \\\"label\\\"\\n\" specFlag=true")},
      {new ExtensionsMsg(0, kDataSet, 17, new QUOR_ExtensionImpl(19, 2, 3, "k\0=")),
       new ExtensionsMsg, at17("ExtensionsMsg", "extension type 19, 3 bytes")},
      {new TrendsInfoMsg(0, kDataSet, 17, &trends), new TrendsInfoMsg,
       at17("TrendsInfoMsg", "trends=\"t\"")},
      {new DataSetModifiedMsg(0, kDataSet, 17, true), new DataSetModifiedMsg,
       at17("DataSetModifiedMsg", "dirty=true")},
      {imputation, new ImputationInfoMsg,
       "DEMessages::ImputationInfoMsg reserved=0 dataSet=none caseSequence=0 rowsPerImputation=-4"},
      {new ResetClientDataMsg(7, LocallyUniqueID(), 0xFFFFFFFF, -5), new ResetClientDataMsg,
       "DEMessages::ResetClientDataMsg reserved=7 dataSet=none caseSequence=4294967295 "
       "rowCount=-5"},
      {new ResetUndoMsg, new ResetUndoMsg,
       "DEMessages::ResetUndoMsg reserved=0 dataSet=none caseSequence=0"}};
  EXPECT_TRUE(inserted.empty()) << "the insert message takes its list over";
  EXPECT_EQ(VUGlobal::LiveBlocks(), before + 30);  // every message from VUGlobal
  text.assign(40, 'x');
  var.SetName("changed");
  vars[0].SetType(3);
  split.assign(8, Id(0));
  trends.SetText("after");
  for (Case const& c : cases) {
    EXPECT_EQ(Shown(*c.sent), c.display);
    VStream out;
    std::unique_ptr<VSerializable>(c.sent->Clone())->Process(out);
    std::vector<uint8_t> const bytes = out.Bytes();
    for (std::size_t length = 0; length < bytes.size(); ++length) {
      VStream cut(std::vector<uint8_t>(bytes.begin(), bytes.begin() + long(length)));
      EXPECT_THROW(c.blank->Process(cut), std::runtime_error) << c.display << " cut at " << length;
    }
    VStream in(bytes), foreign(bytes);
    EXPECT_EQ(c.blank->Process(in), 0);
    EXPECT_EQ(in.Remaining(), 0u);
    EXPECT_EQ(Shown(*c.blank), c.display);
    if (dynamic_cast<ResetUndoMsg*>(c.sent) == nullptr) {
      EXPECT_THROW(ResetUndoMsg().Process(foreign), std::runtime_error) << c.display;
    }
    delete c.sent;
    delete c.blank;
  }
  EXPECT_EQ(VUGlobal::LiveBlocks(), before);
}

// Counts that the stream carries are checked before anything is taken on
// trust: a split beyond 8, or a string length of almost 4 GiB before two
// bytes, fails on the count alone, allocating nothing for it.
TEST(MessagesTest, CountsAreBoundedWhenBuiltAndWhenRead) {
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
  VStream corrupt(bytes), huge(std::vector<uint8_t>{0xF0, 0xFF, 0xFF, 0xFF, 'x', 'y'});
  EXPECT_THROW(SplitFileMsg().Process(corrupt), std::runtime_error);
  std::string kept = "kept";
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  long const peakBefore = usage.ru_maxrss;
  EXPECT_THROW(huge.Pass(kept), std::runtime_error);
  getrusage(RUSAGE_SELF, &usage);
  EXPECT_LT(usage.ru_maxrss - peakBefore, 256L * 1024);
  EXPECT_EQ(kept, "kept");
}

}  // namespace
