#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "ServerDataManager.h"

namespace {

// A client channel that keeps a clone of each report, as a real one must
// since the message is the sender's local, or throws when told to. Every
// report travels under number 1000.
struct RecordingProxy : PackageProxy {
  void SendToClient(int32_t number, VSerializable& message) override {
    EXPECT_EQ(number, 1000);
    if (fail) throw std::runtime_error("channel closed");
    sent.emplace_back(&dynamic_cast<ReportedErrorMsg&>(*message.Clone()));
  }
  std::vector<std::unique_ptr<ReportedErrorMsg>> sent;
  bool fail = false;
};

TEST(InteractiveErrorMonitorTest, ReportSendsErrorsAlwaysAndWarningsWhileSwitchedOn) {
  for (bool warningsOn : {false, true}) {
    for (uint8_t severity : {1, 0, 2, 255}) {
      SCOPED_TRACE(testing::Message()
                   << "severity " << int(severity) << ", warnings " << warningsOn);
      RecordingProxy proxy;
      InteractiveErrorMonitor monitor(LocallyUniqueID(2, 40), &proxy);
      monitor.DoNotReportWarnings();
      if (warningsOn) monitor.ReportWarnings();
      monitor.Report(ErrorText{"disk full", severity, 0x1122334455667788ull});
      ASSERT_EQ(proxy.sent.size(), severity == 1 || warningsOn ? 1u : 0u);
      if (proxy.sent.empty()) continue;
      EXPECT_EQ(proxy.sent[0]->GetText(), "disk full");
      EXPECT_EQ(proxy.sent[0]->GetSeverity(), severity);
      EXPECT_EQ(proxy.sent[0]->GetDetail(), 0x1122334455667788ull);
      EXPECT_EQ(proxy.sent[0]->GetDataSetID(), LocallyUniqueID(2, 40));
    }
  }
}

// An item's monitor starts with warnings on; initializing a
// monitor replaces its identifier and channel and keeps the warning switch.
TEST(InteractiveErrorMonitorTest, InitializeReplacesIdAndChannelAndKeepsTheSwitch) {
  LocallyUniqueID itemID(1, 17), later(5, 99);
  SvrDMItemPtr item(new SvrDMItem(itemID, nullptr, nullptr, 0, std::string(), false));
  InteractiveErrorMonitor& monitor = *item->GetErrorMonitor();
  RecordingProxy proxy;
  item->InitializeErrorMonitor(&proxy);
  monitor.Report(ErrorText{"warning", 0, 0});
  monitor.DoNotReportWarnings();
  monitor.InitializeErrorMonitor(later, &proxy);
  monitor.Report(ErrorText{"dropped warning", 0, 0});
  monitor.Report(ErrorText{"error", 1, 0});
  monitor.InitializeErrorMonitor(later, nullptr);
  monitor.Report(ErrorText{"silenced", 1, 0});
  ASSERT_EQ(proxy.sent.size(), 2u);
  EXPECT_EQ(proxy.sent[0]->GetDataSetID(), itemID);
  EXPECT_EQ(proxy.sent[1]->GetDataSetID(), later);
}

TEST(InteractiveErrorMonitorTest, ChannelExceptionReachesTheCaller) {
  RecordingProxy proxy;
  proxy.fail = true;
  InteractiveErrorMonitor monitor(LocallyUniqueID(2, 40), &proxy);
  // The sanitizer build's leak checker sees a message lost on the way out.
  EXPECT_THROW(monitor.Report(ErrorText{"x", 1, 0}), std::runtime_error);
}

TEST(ErrorMessagesTest, ClonesPassAStreamUnderNumberOneAndTheirNameAndComeBackEqual) {
  LocallyUniqueID id(0xF, 0xABCDEF1);
  ReportedErrorMsg reported(id, ErrorText{std::string("bad\0value", 9), 7, 0xFEDCBA9876543210ull}),
      reportedIn;
  ErrorMsg error(0xFFFFFFF0u, "no such dataset"), errorIn;
  ReportedErrorMsgResponse response(9), responseIn;
  struct Case {
    VSerializable *sent, *into;
    char const* name;
  };
  for (Case c : {Case{&reported, &reportedIn, "QuorMessages::ReportedErrorMsg"},
                 Case{&error, &errorIn, "DEMessages::ErrorMsg"},
                 Case{&response, &responseIn, "QuorMessages::ReportedErrorMsgResponse"}}) {
    SCOPED_TRACE(c.name);
    EXPECT_STREQ(c.sent->GetClassName(), c.name);
    VStream stream;
    EXPECT_EQ(std::unique_ptr<VSerializable>(c.sent->Clone())->Process(stream), 0);
    VStream header(stream.Bytes());
    uint32_t number = 0;
    std::string name;
    header.Pass(number);
    header.Pass(name);
    EXPECT_EQ(number, 1u);
    EXPECT_EQ(name, c.name);
    stream.StartLoading();
    c.into->Process(stream);
  }
  EXPECT_EQ(reportedIn.GetText(), std::string("bad\0value", 9));
  EXPECT_EQ(reportedIn.GetSeverity(), 7);
  EXPECT_EQ(reportedIn.GetDetail(), 0xFEDCBA9876543210ull);
  EXPECT_EQ(reportedIn.GetDataSetID(), id);
  EXPECT_EQ(errorIn.GetCode(), 0xFFFFFFF0u);
  EXPECT_EQ(errorIn.GetText(), "no such dataset");
  EXPECT_EQ(responseIn.GetReply(), 9);
}

}  // namespace
