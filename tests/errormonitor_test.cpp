#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "ServerDataManager.h"

namespace {

// A client channel that keeps a copy of everything sent to it, or throws
// when told to.
class RecordingProxy : public PackageProxy {
 public:
  struct Sent {
    int32_t number;
    std::unique_ptr<VSerializable> message;
  };

  void SendToClient(int32_t number, VSerializable& message) override {
    if (failWith != nullptr) throw std::runtime_error(failWith);
    // The message is the sender's local: keep a clone, as a real channel would.
    sent.push_back(Sent{number, std::unique_ptr<VSerializable>(message.Clone())});
  }

  ReportedErrorMsg const& Reported(std::size_t i) const {
    return dynamic_cast<ReportedErrorMsg const&>(*sent.at(i).message);
  }

  std::vector<Sent> sent;
  char const* failWith = nullptr;
};

ErrorText MakeText(std::string const& text, uint8_t severity, uint64_t detail = 0) {
  ErrorText result;
  result.text = text;
  result.severity = severity;
  result.detail = detail;
  return result;
}

class InteractiveErrorMonitorTest : public ::testing::Test {
 protected:
  // Reports one text of each severity in `severities` and returns the
  // severities that reached the proxy, in order.
  std::vector<int> ReportSeverities(InteractiveErrorMonitor& monitor,
                                    std::vector<uint8_t> const& severities) {
    std::size_t before = proxy.sent.size();
    for (uint8_t severity : severities) monitor.Report(MakeText("text", severity));
    std::vector<int> got;
    for (std::size_t i = before; i < proxy.sent.size(); ++i) {
      got.push_back(proxy.Reported(i).GetSeverity());
    }
    return got;
  }

  LocallyUniqueID id{2, 40};
  RecordingProxy proxy;
};

TEST_F(InteractiveErrorMonitorTest, WithoutProxyEveryReportIsDropped) {
  InteractiveErrorMonitor monitor(LocallyUniqueID(), nullptr);
  EXPECT_NO_THROW(monitor.Report(MakeText("lost", 1)));
  EXPECT_NO_THROW(monitor.Report(MakeText("lost", 0)));
  EXPECT_TRUE(monitor.GetReportWarnings());
}

TEST_F(InteractiveErrorMonitorTest, SendsTheWholeTextUnderNumber1000) {
  InteractiveErrorMonitor monitor(id, &proxy);
  monitor.Report(MakeText("disk full", 1, 0x1122334455667788ull));
  ASSERT_EQ(proxy.sent.size(), 1u);
  EXPECT_EQ(proxy.sent[0].number, 1000);
  ReportedErrorMsg const& message = proxy.Reported(0);
  EXPECT_EQ(message.GetText(), "disk full");
  EXPECT_EQ(message.GetSeverity(), 1);
  EXPECT_EQ(message.GetDetail(), 0x1122334455667788ull);
  EXPECT_EQ(message.GetDataSetID(), id);
}

TEST_F(InteractiveErrorMonitorTest, SeverityRuleFollowsTheWarningSwitch) {
  InteractiveErrorMonitor monitor(id, &proxy);
  EXPECT_EQ(ReportSeverities(monitor, {0, 1, 2, 255}), (std::vector<int>{0, 1, 2, 255}));

  monitor.DoNotReportWarnings();
  EXPECT_FALSE(monitor.GetReportWarnings());
  EXPECT_EQ(ReportSeverities(monitor, {0, 1, 2, 255}), (std::vector<int>{1}));

  monitor.ReportWarnings();
  EXPECT_TRUE(monitor.GetReportWarnings());
  EXPECT_EQ(ReportSeverities(monitor, {2}), (std::vector<int>{2}));
}

TEST_F(InteractiveErrorMonitorTest, InitializeReplacesIdAndChannelButKeepsTheSwitch) {
  InteractiveErrorMonitor monitor(LocallyUniqueID(), nullptr);
  monitor.DoNotReportWarnings();
  LocallyUniqueID later(5, 99);
  monitor.InitializeErrorMonitor(later, &proxy);

  EXPECT_EQ(ReportSeverities(monitor, {0, 1}), (std::vector<int>{1}));
  EXPECT_EQ(proxy.Reported(0).GetDataSetID(), later);
  EXPECT_EQ(monitor.GetProxy(), &proxy);

  // The identifier of the last call wins over the constructor's.
  InteractiveErrorMonitor constructed(id, &proxy);
  constructed.InitializeErrorMonitor(later, &proxy);
  constructed.Report(MakeText("x", 1));
  EXPECT_EQ(proxy.Reported(proxy.sent.size() - 1).GetDataSetID(), later);
}

TEST_F(InteractiveErrorMonitorTest, InitializeWithNullProxySilencesTheMonitor) {
  InteractiveErrorMonitor monitor(id, &proxy);
  monitor.DoNotReportWarnings();
  monitor.InitializeErrorMonitor(id, nullptr);
  monitor.Report(MakeText("dropped", 1));
  EXPECT_TRUE(proxy.sent.empty());
  EXPECT_FALSE(monitor.GetReportWarnings());
}

TEST_F(InteractiveErrorMonitorTest, TwoMonitorsSwitchWarningsIndependently) {
  InteractiveErrorMonitor quiet(id, &proxy);
  InteractiveErrorMonitor loud(LocallyUniqueID(3, 3), &proxy);
  quiet.DoNotReportWarnings();
  EXPECT_TRUE(loud.GetReportWarnings());
  EXPECT_EQ(ReportSeverities(loud, {0}), (std::vector<int>{0}));
  EXPECT_EQ(ReportSeverities(quiet, {0}), (std::vector<int>{}));
}

TEST_F(InteractiveErrorMonitorTest, ExceptionFromTheChannelReachesTheCaller) {
  InteractiveErrorMonitor monitor(id, &proxy);
  proxy.failWith = "channel closed";
  long blocksBefore = VUGlobal::LiveBlocks();
  EXPECT_THROW(monitor.Report(MakeText("x", 1)), std::runtime_error);
  EXPECT_EQ(VUGlobal::LiveBlocks(), blocksBefore);
  EXPECT_EQ(monitor.GetDataSetID(), id);
  EXPECT_TRUE(monitor.GetReportWarnings());
}

TEST(SvrDMItemErrorMonitorTest, InitializeHandsTheItemsIdentifierToItsMonitor) {
  LocallyUniqueID itemID(1, 17);
  SvrDMItemPtr item(new SvrDMItem(itemID, nullptr, nullptr, 0, std::string(), false));
  InteractiveErrorMonitor* monitor = item->GetErrorMonitor();
  ASSERT_EQ(monitor, &item->errorMonitor);
  EXPECT_TRUE(monitor->GetDataSetID().IsNone());
  EXPECT_EQ(monitor->GetProxy(), nullptr);

  RecordingProxy proxy;
  item->InitializeErrorMonitor(&proxy);
  monitor->Report(MakeText("from item", 1));
  ASSERT_EQ(proxy.sent.size(), 1u);
  EXPECT_EQ(proxy.Reported(0).GetDataSetID(), itemID);
}

// ---- The messages ----

// Writes `message` through a stream and reads it back into `into`.
void RoundTrip(VSerializable& message, VSerializable& into) {
  VStream stream;
  message.Process(stream);
  stream.StartLoading();
  into.Process(stream);
  EXPECT_EQ(stream.Remaining(), 0u);
}

TEST(ErrorMessagesTest, ReportedErrorMsgIsRebuiltEqualFromAStream) {
  LocallyUniqueID id(0xF, 0xABCDEF1);
  ReportedErrorMsg sent(id, MakeText(std::string("bad\0value", 9), 7, 0xFEDCBA9876543210ull));
  ReportedErrorMsg received;
  RoundTrip(sent, received);
  EXPECT_EQ(received.GetText(), std::string("bad\0value", 9));
  EXPECT_EQ(received.GetSeverity(), 7);
  EXPECT_EQ(received.GetDetail(), 0xFEDCBA9876543210ull);
  EXPECT_EQ(received.GetDataSetID(), id);
}

TEST(ErrorMessagesTest, ErrorMsgAndResponseAreRebuiltEqualFromAStream) {
  ErrorMsg sent(0xFFFFFFF0u, "no such dataset");
  ErrorMsg received;
  RoundTrip(sent, received);
  EXPECT_EQ(received.GetCode(), 0xFFFFFFF0u);
  EXPECT_EQ(received.GetText(), "no such dataset");

  ReportedErrorMsgResponse reply(9);
  ReportedErrorMsgResponse replyReceived;
  EXPECT_EQ(replyReceived.GetReply(), 0);
  RoundTrip(reply, replyReceived);
  EXPECT_EQ(replyReceived.GetReply(), 9);
}

TEST(ErrorMessagesTest, ProcessPassesNumberOneAndTheClassName) {
  LocallyUniqueID id(1, 1);
  ErrorMsg error(5, "e");
  ReportedErrorMsg reported(id, MakeText("r", 1));
  ReportedErrorMsgResponse response;
  struct Expect {
    VSerializable* message;
    char const* name;
  };
  for (Expect const& expect : {Expect{&error, "DEMessages::ErrorMsg"},
                               Expect{&reported, "QuorMessages::ReportedErrorMsg"},
                               Expect{&response, "QuorMessages::ReportedErrorMsgResponse"}}) {
    expect.message->SetName("Something::Else");
    EXPECT_STREQ(expect.message->GetClassName(), expect.name);
    VStream stream;
    EXPECT_EQ(expect.message->Process(stream), 0);
    stream.StartLoading();
    uint32_t number = 0;
    std::string name;
    stream.Pass(number);
    stream.Pass(name);
    EXPECT_EQ(number, 1u);
    EXPECT_EQ(name, expect.name);
  }
}

TEST(ErrorMessagesTest, ClonesComeFromVUGlobalAndOutliveTheOriginal) {
  long blocksBefore = VUGlobal::LiveBlocks();
  std::unique_ptr<VSerializable> reportedCopy;
  std::unique_ptr<VSerializable> errorCopy;
  std::unique_ptr<VSerializable> responseCopy;
  {
    LocallyUniqueID id(4, 8);
    ReportedErrorMsg reported(id, MakeText("warning text", 0, 42));
    ErrorMsg error(77, "seventy-seven");
    ReportedErrorMsgResponse response(3);
    reportedCopy.reset(reported.Clone());
    errorCopy.reset(error.Clone());
    responseCopy.reset(response.Clone());
  }
  EXPECT_EQ(VUGlobal::LiveBlocks(), blocksBefore + 3);

  auto* reported = dynamic_cast<ReportedErrorMsg*>(reportedCopy.get());
  ASSERT_NE(reported, nullptr);
  EXPECT_EQ(reported->GetText(), "warning text");
  EXPECT_EQ(reported->GetSeverity(), 0);
  EXPECT_EQ(reported->GetDetail(), 42u);
  EXPECT_EQ(reported->GetDataSetID(), LocallyUniqueID(4, 8));

  auto* error = dynamic_cast<ErrorMsg*>(errorCopy.get());
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->GetCode(), 77u);
  EXPECT_EQ(error->GetText(), "seventy-seven");

  auto* response = dynamic_cast<ReportedErrorMsgResponse*>(responseCopy.get());
  ASSERT_NE(response, nullptr);
  EXPECT_EQ(response->GetReply(), 3);

  reportedCopy.reset();
  errorCopy.reset();
  responseCopy.reset();
  EXPECT_EQ(VUGlobal::LiveBlocks(), blocksBefore);
}

TEST(ErrorMessagesTest, UnknownIdentifierThrowsCode2001WithEmptyText) {
  try {
    ServerDataManager::GetInstance().GetDataSet(LocallyUniqueID(0xE, 0xFFFFFF0));
    FAIL() << "no exception";
  } catch (ErrorMsg const& error) {
    EXPECT_EQ(error.GetCode(), 2001u);
    EXPECT_EQ(error.GetText(), "");
  }
}

}  // namespace
