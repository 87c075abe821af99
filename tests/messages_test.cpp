// The messages that reach clients: the data set messages, the error reports
// with the monitor that sends them, and the sentences that failures read as.
#include <gtest/gtest.h>

#include <stdexcept>

#include "ServerDataManager.h"

namespace {

// Writes a clone of `message`, as a sender whose message is a local must,
// and reads it back into `into`.
void Cross(VSerializable const& message, VSerializable& into) {
  VStream stream;
  std::unique_ptr<VSerializable>(message.Clone())->Process(stream);
  EXPECT_EQ(stream.Bytes().at(0), 1) << "every message travels under number 1";
  stream.StartLoading();
  EXPECT_EQ(into.Process(stream), 0);
}

// One message of each class, every field set, shows on one line, and crosses
// a stream into a blank one of its class that then shows the same. The
// builders' inputs change before the messages are used: each must hold its
// own copy.
TEST(MessagesTest, EveryClassDisplaysOnOneLineAndCrossesAStreamWhole) {
  LocallyUniqueID const set(0, 3), one(0, 1), two(2, 7);
  std::string text = "The \"label\"\n";
  QUOR_Variable var(LocallyUniqueID(0, 5), "e", 8);
  std::vector<QUOR_Variable> vars = {QUOR_Variable(one, "a"), var}, taken = vars;
  std::vector<LocallyUniqueID> split = {one, two};
  QUOR_TrendsInfo trends;
  trends.SetText("t");
  std::pair<DataSetMsg*, DataSetMsg*> const messages[] = {
      {new DeleteVarsMsg(1, set, 17, vars), new DeleteVarsMsg},
      {new InsertVarsMsg(0, set, 17, taken, two), new InsertVarsMsg},
      {new MoveVarsMsg(0, set, 17, {3, 0}, 2), new MoveVarsMsg},
      {new ModifyVarMsg(0, set, 17, var), new ModifyVarMsg},
      {new WeightVarMsg(0, set, 17, one), new WeightVarMsg},
      {new FilterVarMsg(0, set, 17, LocallyUniqueID()), new FilterVarMsg},
      {new SplitFileMsg(0, set, 17, 2, split.data(), true), new SplitFileMsg},
      {new FileLabelChangeMsg(0, set, 17, text.c_str()), new FileLabelChangeMsg},
      {new FileSpecChangeMsg(0, set, 17, text.c_str(), true), new FileSpecChangeMsg},
      {new ExtensionsMsg(0, set, 17, new QUOR_ExtensionImpl(19, 2, 3, "k\0=")), new ExtensionsMsg},
      {new TrendsInfoMsg(0, set, 17, &trends), new TrendsInfoMsg},
      {new ImputationInfoMsg, new ImputationInfoMsg},
      {new ResetClientDataMsg(7, LocallyUniqueID(), 0xFFFFFFFF, -5), new ResetClientDataMsg},
      {new ResetUndoMsg, new ResetUndoMsg},
      {new DataSetModifiedMsg(0, set, 17, true), new DataSetModifiedMsg}};
  static_cast<ImputationInfoMsg*>(messages[11].first)->rowsPerImputation = -4;
  std::ostringstream shown[std::size(messages)], back[std::size(messages)];
  for (std::size_t i = 0; i < std::size(messages); ++i) messages[i].first->Print(shown[i]);
  text.assign(40, 'x');
  var.SetName("changed");
  split.assign(8, one);
  trends.SetText("after");
  for (std::size_t i = 0; i < std::size(messages); ++i) {
    auto [sent, blank] = messages[i];
    EXPECT_EQ(shown[i].str().find('\n'), std::string::npos) << shown[i].str();
    Cross(*sent, *blank);
    blank->Print(back[i]);
    EXPECT_EQ(back[i].str(), shown[i].str());
    delete sent;
    delete blank;
  }
}

// A client channel that logs each report as it arrives on the far side.
// Every report travels under number 1000.
struct RecordingProxy : PackageProxy {
  void SendToClient(int32_t number, VSerializable& message) override {
    EXPECT_EQ(number, 1000);
    EXPECT_STREQ(message.GetClassName(), "QuorMessages::ReportedErrorMsg");
    ReportedErrorMsg got;
    Cross(message, got);
    EXPECT_EQ(got.GetDetail(), ~0ull);
    log += got.GetText() + "/" + std::to_string(got.GetSeverity()) + "@" +
           std::to_string(got.GetDataSetID().serial) + " ";
  }
  std::string log;
};

// Only severity 1 is an error; warnings go while the switch is on, as it is
// from the start, and re-initializing keeps the switch. No channel, no report.
TEST(InteractiveErrorMonitorTest, SendsErrorsAlwaysAndWarningsWhileSwitchedOn) {
  RecordingProxy proxy;
  LocallyUniqueID later(5, 99);
  InteractiveErrorMonitor monitor(LocallyUniqueID(0, 40), &proxy);
  auto reportAll = [&monitor](char const* text) {
    for (uint8_t severity : {1, 0, 2, 255}) monitor.Report(ErrorText{text, severity, ~0ull});
  };
  reportAll("on");
  monitor.DoNotReportWarnings();
  monitor.InitializeErrorMonitor(later, &proxy);
  reportAll("off");
  monitor.ReportWarnings();
  reportAll("again");
  EXPECT_EQ(proxy.log,
            "on/1@40 on/0@40 on/2@40 on/255@40 off/1@99 again/1@99 again/0@99 "
            "again/2@99 again/255@99 ");
  monitor.InitializeErrorMonitor(later, nullptr);
  monitor.Report(ErrorText{"silenced", 1, 0});
}

template <typename Thrown>
std::string Described(Thrown thrown, LocallyUniqueID id = LocallyUniqueID()) {
  return SvrDMDescribeFailure(id, std::make_exception_ptr(thrown));
}

TEST(FailuresTest, ErrorsCrossAStreamAndEachCaughtFailureReadsAsOneSentence) {
  EXPECT_STREQ(ReportedErrorMsgResponse().GetClassName(), "QuorMessages::ReportedErrorMsgResponse");
  ErrorMsg errorIn;
  Cross(ErrorMsg(0xFFFFFFF0u, "no such dataset"), errorIn);
  EXPECT_STREQ(errorIn.GetClassName(), "DEMessages::ErrorMsg");
  EXPECT_EQ(Described(errorIn), "the data manager failed (ErrorMsg 4294967280: no such dataset)");
  LocallyUniqueID const id(0, 48);
  EXPECT_EQ(Described(ErrorMsg(kSvrDMUnknownDataSet, ""), id),
            "no dataset 0:48 is open (ErrorMsg 2001)");
  EXPECT_EQ(Described(ErrorMsg(2001, "")), "no dataset of that identifier is open (ErrorMsg 2001)");
  EXPECT_EQ(Described(kSvrDMLockNotAvailable),
            "the dataset is busy: a try for its access lock failed (55)");
  EXPECT_EQ(Described(55, id), "the dataset 0:48 is busy: a try for its access lock failed (55)");
  EXPECT_EQ(Described(ErrorMsg(7, "")), "the data manager failed (ErrorMsg 7)");
  EXPECT_EQ(Described(56), "a failure of unknown meaning (int 56)");
  EXPECT_EQ(Described(std::runtime_error("survey.csv, line 3: bad")), "survey.csv, line 3: bad");
  EXPECT_EQ(Described(2.5), "a failure of a type the data manager does not throw");
  EXPECT_EQ(SvrDMDescribeFailure(id), "no failure");  // outside a catch block
}

}  // namespace
