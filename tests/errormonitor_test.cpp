#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>

#include "ServerDataManager.h"

namespace {

// A client channel that passes a clone of each report through a stream into
// a blank message, as a real one must since the message is the sender's
// local, and logs what arrived; or throws when told to.
struct RecordingProxy : PackageProxy {
  void SendToClient(int32_t number, VSerializable& message) override {
    EXPECT_EQ(number, 1000);
    if (fail) throw std::runtime_error("channel closed");
    VStream stream;
    std::unique_ptr<VSerializable>(message.Clone())->Process(stream);
    stream.StartLoading();
    ReportedErrorMsg got;
    got.Process(stream);
    LocallyUniqueID const id = got.GetDataSetID();
    log += got.GetText() + "/" + std::to_string(got.GetSeverity()) + "." +
           std::to_string(got.GetDetail()) + "@" + std::to_string(id.group) + ":" +
           std::to_string(id.serial) + " ";
  }
  std::string log;
  bool fail = false;
};

// Only severity 1 is an error; warnings go while the switch is on, as it is
// from the start, and re-initializing keeps the switch. No channel, no report.
TEST(InteractiveErrorMonitorTest, SendsErrorsAlwaysAndWarningsWhileSwitchedOn) {
  RecordingProxy proxy;
  LocallyUniqueID later(5, 99);
  InteractiveErrorMonitor monitor(LocallyUniqueID(0, 40), &proxy);
  auto reportAll = [&monitor](char const* text) {
    for (uint8_t severity : {1, 0, 2, 255}) monitor.Report(ErrorText{text, severity, 9});
  };
  reportAll("on");
  monitor.DoNotReportWarnings();
  reportAll("off");
  monitor.InitializeErrorMonitor(later, &proxy);
  reportAll("later");
  monitor.ReportWarnings();
  monitor.Report(ErrorText{std::string("a\0b", 3), 0, 0xFEDCBA9876543210ull});
  EXPECT_EQ(proxy.log,
            "on/1.9@0:40 on/0.9@0:40 on/2.9@0:40 on/255.9@0:40 off/1.9@0:40 "
            "later/1.9@5:99 " +
                std::string("a\0b", 3) + "/0.18364758544493064720@5:99 ");
  monitor.InitializeErrorMonitor(later, nullptr);
  monitor.Report(ErrorText{"silenced", 1, 0});
  // The sanitizer build's leak checker sees a message lost on the way out.
  proxy.fail = true;
  monitor.InitializeErrorMonitor(later, &proxy);
  EXPECT_THROW(monitor.Report(ErrorText{"x", 1, 0}), std::runtime_error);
}

TEST(ErrorMessagesTest, ClassNamesAndTheOtherTwoCrossAStreamUnderNumberOne) {
  EXPECT_STREQ(ReportedErrorMsg().GetClassName(), "QuorMessages::ReportedErrorMsg");
  ErrorMsg error(0xFFFFFFF0u, "no such dataset"), errorIn;
  ReportedErrorMsgResponse response(9), responseIn;
  EXPECT_STREQ(error.GetClassName(), "DEMessages::ErrorMsg");
  EXPECT_STREQ(response.GetClassName(), "QuorMessages::ReportedErrorMsgResponse");
  std::pair<VSerializable*, VSerializable*> const pairs[] = {{&error, &errorIn},
                                                             {&response, &responseIn}};
  for (auto [sent, into] : pairs) {
    VStream stream;
    std::unique_ptr<VSerializable>(sent->Clone())->Process(stream);
    EXPECT_EQ(stream.Bytes().at(0), 1);
    stream.StartLoading();
    EXPECT_EQ(into->Process(stream), 0);
  }
  EXPECT_EQ(errorIn.GetCode(), 0xFFFFFFF0u);
  EXPECT_EQ(errorIn.GetText(), "no such dataset");
  EXPECT_EQ(responseIn.GetReply(), 9);
}

}  // namespace
