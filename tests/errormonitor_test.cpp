#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>

#include "ServerDataManager.h"

namespace {

// A client channel that logs a clone of each report, as a real one must
// since the message is the sender's local, or throws when told to. Every
// report travels under number 1000.
struct RecordingProxy : PackageProxy {
  void SendToClient(int32_t number, VSerializable& message) override {
    EXPECT_EQ(number, 1000);
    if (fail) throw std::runtime_error("channel closed");
    std::unique_ptr<VSerializable> copy(message.Clone());
    auto& sent = dynamic_cast<ReportedErrorMsg&>(*copy);
    log += sent.GetText() + "/" + std::to_string(sent.GetSeverity()) + "@" +
           std::to_string(sent.GetDataSetID().serial) + " ";
  }
  std::string log;
  bool fail = false;
};

// Only severity 1 is an error; warnings go while the switch is on, as it is
// from the start, and re-initializing keeps the switch. No channel, no report.
TEST(InteractiveErrorMonitorTest, SendsErrorsAlwaysAndWarningsWhileSwitchedOn) {
  RecordingProxy proxy;
  LocallyUniqueID later(5, 99);
  InteractiveErrorMonitor monitor(LocallyUniqueID(2, 40), &proxy);
  auto reportAll = [&monitor](char const* text) {
    for (uint8_t severity : {1, 0, 2, 255}) monitor.Report(ErrorText{text, severity, 0});
  };
  reportAll("on");
  monitor.DoNotReportWarnings();
  reportAll("off");
  monitor.InitializeErrorMonitor(later, &proxy);
  reportAll("later");
  monitor.ReportWarnings();
  reportAll("again");
  EXPECT_EQ(proxy.log,
            "on/1@40 on/0@40 on/2@40 on/255@40 off/1@40 later/1@99 again/1@99 "
            "again/0@99 again/2@99 again/255@99 ");
  monitor.InitializeErrorMonitor(later, nullptr);
  monitor.Report(ErrorText{"silenced", 1, 0});
  // An item's monitor carries the item's identifier.
  SvrDMItemPtr item(new SvrDMItem(LocallyUniqueID(1, 17), nullptr, nullptr, 0, "", false));
  item->InitializeErrorMonitor(&proxy);
  proxy.log.clear();
  item->GetErrorMonitor()->Report(ErrorText{"item", 0, 0});
  EXPECT_EQ(proxy.log, "item/0@17 ");
  // The sanitizer build's leak checker sees a message lost on the way out.
  proxy.fail = true;
  EXPECT_THROW(item->GetErrorMonitor()->Report(ErrorText{"x", 1, 0}), std::runtime_error);
}

TEST(ErrorMessagesTest, ClonesPassAStreamUnderNumberOneAndTheirNameAndComeBackEqual) {
  LocallyUniqueID id(0xF, 0xABCDEF1);
  ReportedErrorMsg reported(id, ErrorText{std::string("bad\0value", 9), 7, 0xFEDCBA9876543210ull}),
      reportedIn;
  ErrorMsg error(0xFFFFFFF0u, "no such dataset"), errorIn;
  ReportedErrorMsgResponse response(9), responseIn;
  struct Case {
    VSerializable *sent, *into;
    std::string name;
  };
  for (Case c : {Case{&reported, &reportedIn, "QuorMessages::ReportedErrorMsg"},
                 Case{&error, &errorIn, "DEMessages::ErrorMsg"},
                 Case{&response, &responseIn, "QuorMessages::ReportedErrorMsgResponse"}}) {
    EXPECT_EQ(c.sent->GetClassName(), c.name);
    VStream stream;
    EXPECT_EQ(std::unique_ptr<VSerializable>(c.sent->Clone())->Process(stream), 0);
    uint32_t number = 0;
    std::string name;
    stream.StartLoading();
    stream.Pass(number);
    stream.Pass(name);
    EXPECT_EQ(number, 1u);
    EXPECT_EQ(name, c.name);
    stream.StartLoading();
    c.into->Process(stream);
  }
  EXPECT_EQ(std::make_tuple(reportedIn.GetText(), reportedIn.GetSeverity(), reportedIn.GetDetail(),
                            reportedIn.GetDataSetID(), errorIn.GetCode(), errorIn.GetText(),
                            responseIn.GetReply()),
            std::make_tuple(std::string("bad\0value", 9), uint8_t(7), 0xFEDCBA9876543210ull, id,
                            0xFFFFFFF0u, std::string("no such dataset"), uint8_t(9)));
}

}  // namespace
