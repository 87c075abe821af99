// Errors of the data manager: the exception it throws, the messages that carry
// a dataset's errors to its client and the client's reply, and the monitor
// that sends them.
#ifndef SDM_ERRORMONITOR_H
#define SDM_ERRORMONITOR_H

#include <cstdint>
#include <string>

#include "clientchannel.h"
#include "platform.h"
#include "sdmexport.h"
#include "serialization.h"

// The exception of the library, thrown by value: a code and a text. Code
// 2001 with an empty text means an unknown dataset identifier. It can also
// cross a channel as "DEMessages::ErrorMsg"; a Clone comes from VUGlobal.
// A plain value: one thread at a time.
class SDM_EXPORT ErrorMsg : public VSerializable {
 public:
  // An empty message with code 0, the shape a channel reads one into.
  ErrorMsg() : code(0) {}
  ErrorMsg(unsigned int code, std::string const& text) : text(text), code(code) {}
  ErrorMsg(ErrorMsg const& other) = default;
  ErrorMsg& operator=(ErrorMsg const& other) = default;
  ~ErrorMsg() override = default;

  unsigned int GetCode() const { return code; }
  std::string const& GetText() const { return text; }

  VSerializable* Clone() const override;
  // Passes the message through `stream` under number 1 and its class name;
  // returns what ForeignProcess returns.
  int Process(VStream& stream) override;
  char const* GetClassName() const override;

  // Writes the text and the code when `stream` stores, reads them when it loads.
  void Serialize(VStream& stream);

 private:
  std::string text;
  unsigned int code;
};

// One error or warning of a dataset on its way to the client, sent as
// "QuorMessages::ReportedErrorMsg". Built on the stack by the monitor; a
// Clone comes from VUGlobal. One thread at a time.
class SDM_EXPORT ReportedErrorMsg : public VSerializable {
 public:
  // Empty text, severity 1, detail 0 and no dataset: the shape a channel
  // reads one into.
  ReportedErrorMsg();
  // `id` is only read.
  ReportedErrorMsg(LocallyUniqueID& id, ErrorText const& text);
  ReportedErrorMsg(ReportedErrorMsg const& other) = default;
  ReportedErrorMsg& operator=(ReportedErrorMsg const& other) = default;
  ~ReportedErrorMsg() override = default;

  std::string const& GetText() const { return text; }
  // 1 for an error, anything else for a warning.
  uint8_t GetSeverity() const { return severity; }
  uint64_t GetDetail() const { return detail; }
  LocallyUniqueID GetDataSetID() const { return dataSetID; }

  VSerializable* Clone() const override;
  int Process(VStream& stream) override;
  char const* GetClassName() const override;

  // Passes text, severity, detail and the identifier's word, in that order.
  void Serialize(VStream& stream);

 private:
  std::string text;
  uint8_t severity;
  uint64_t detail;
  LocallyUniqueID dataSetID;
};

// The client's answer to a ReportedErrorMsg, sent as
// "QuorMessages::ReportedErrorMsgResponse". The data manager reads nothing
// from it. One thread at a time.
class SDM_EXPORT ReportedErrorMsgResponse : public VSerializable {
 public:
  // `reply` starts at 0.
  ReportedErrorMsgResponse() : reply(0) {}
  explicit ReportedErrorMsgResponse(uint8_t reply) : reply(reply) {}
  ReportedErrorMsgResponse(ReportedErrorMsgResponse const& other) = default;
  ReportedErrorMsgResponse& operator=(ReportedErrorMsgResponse const& other) = default;
  ~ReportedErrorMsgResponse() override = default;

  uint8_t GetReply() const { return reply; }

  VSerializable* Clone() const override;
  int Process(VStream& stream) override;
  char const* GetClassName() const override;

  void Serialize(VStream& stream);

 private:
  uint8_t reply;
};

// Where a procedure reports the errors and warnings it raises on a dataset.
class ErrorMonitor {
 public:
  virtual ~ErrorMonitor() {}
  virtual void Report(ErrorText text) = 0;
};

// Sends a dataset's errors to its client as ReportedErrorMsg, and its
// warnings too while `reportWarnings` is on. The proxy is borrowed, never
// owned: whoever installs it keeps it alive. Takes no lock: callers order
// changes to the monitor against reports on other threads.
class SDM_EXPORT InteractiveErrorMonitor : public ErrorMonitor {
 public:
  // Warnings start on. A null `proxy` makes every Report a no-op.
  InteractiveErrorMonitor(LocallyUniqueID dataSetID, PackageProxy* proxy);
  // Leaves the proxy alone.
  ~InteractiveErrorMonitor() override;

  // Replaces the identifier and the channel; `id` is only read and the
  // warning switch keeps its value. A null `proxy` silences the monitor.
  void InitializeErrorMonitor(LocallyUniqueID& id, PackageProxy* proxy);

  void ReportWarnings() { reportWarnings = true; }
  void DoNotReportWarnings() { reportWarnings = false; }
  bool GetReportWarnings() { return reportWarnings; }

  // Sends `text` to the client under number 1000, unless there is no channel
  // or it is a warning (severity other than 1) while warnings are off.
  // Whatever SendToClient throws reaches the caller.
  void Report(ErrorText text) override;

  LocallyUniqueID GetDataSetID() const { return dataSetID; }
  PackageProxy* GetProxy() const { return proxy; }

 private:
  PackageProxy* proxy;
  LocallyUniqueID dataSetID;
  bool reportWarnings;
};

#endif  // SDM_ERRORMONITOR_H
