#include "errormonitor.h"

namespace {

constexpr char kErrorMsgName[] = "DEMessages::ErrorMsg";
constexpr char kReportedErrorMsgName[] = "QuorMessages::ReportedErrorMsg";
constexpr char kReportedErrorMsgResponseName[] = "QuorMessages::ReportedErrorMsgResponse";

// The number every message of this file travels under.
constexpr unsigned int kMessageNumber = 1;
// What the monitor passes to SendToClient with every report.
constexpr int32_t kReportNumber = 1000;

// ForeignProcess calls back with an untyped object; these put the type back.
template <typename Message>
void SerializeThunk(void* object, VStream& stream) {
  static_cast<Message*>(object)->Serialize(stream);
}

}  // namespace

// ---- ErrorMsg ----

// The class's operator new is VUGlobal's, and a constructor that throws
// hands the block back to VUGlobal's operator delete.
VSerializable* ErrorMsg::Clone() const { return new ErrorMsg(*this); }

int ErrorMsg::Process(VStream& stream) {
  return ForeignProcess(this, kMessageNumber, stream, &SerializeThunk<ErrorMsg>, kErrorMsgName);
}

char const* ErrorMsg::GetClassName() const { return kErrorMsgName; }

void ErrorMsg::Serialize(VStream& stream) {
  uint32_t wireCode = code;
  stream.Pass(text);
  stream.Pass(wireCode);
  code = wireCode;
}

// ---- ReportedErrorMsg ----

ReportedErrorMsg::ReportedErrorMsg() : severity(1), detail(0), dataSetID() {}

ReportedErrorMsg::ReportedErrorMsg(LocallyUniqueID& id, ErrorText const& errorText)
    : text(errorText.text), severity(errorText.severity), detail(errorText.detail), dataSetID(id) {}

VSerializable* ReportedErrorMsg::Clone() const { return new ReportedErrorMsg(*this); }

int ReportedErrorMsg::Process(VStream& stream) {
  return ForeignProcess(this, kMessageNumber, stream, &SerializeThunk<ReportedErrorMsg>,
                        kReportedErrorMsgName);
}

char const* ReportedErrorMsg::GetClassName() const { return kReportedErrorMsgName; }

void ReportedErrorMsg::Serialize(VStream& stream) {
  // The identifier goes as its word, which does not depend on how the
  // compiler lays out the bit fields.
  uint32_t idWord = dataSetID.ToWord();
  stream.Pass(text);
  stream.Pass(severity);
  stream.Pass(detail);
  stream.Pass(idWord);
  dataSetID = LocallyUniqueID::FromWord(idWord);
}

// ---- ReportedErrorMsgResponse ----

VSerializable* ReportedErrorMsgResponse::Clone() const {
  return new ReportedErrorMsgResponse(*this);
}

int ReportedErrorMsgResponse::Process(VStream& stream) {
  return ForeignProcess(this, kMessageNumber, stream, &SerializeThunk<ReportedErrorMsgResponse>,
                        kReportedErrorMsgResponseName);
}

char const* ReportedErrorMsgResponse::GetClassName() const { return kReportedErrorMsgResponseName; }

void ReportedErrorMsgResponse::Serialize(VStream& stream) { stream.Pass(reply); }

// ---- InteractiveErrorMonitor ----

InteractiveErrorMonitor::InteractiveErrorMonitor(LocallyUniqueID id, PackageProxy* channel)
    : proxy(channel), dataSetID(id), reportWarnings(true) {}

InteractiveErrorMonitor::~InteractiveErrorMonitor() {}

void InteractiveErrorMonitor::InitializeErrorMonitor(LocallyUniqueID& id, PackageProxy* channel) {
  dataSetID = id;
  proxy = channel;
}

void InteractiveErrorMonitor::Report(ErrorText text) {
  if (proxy == nullptr) return;
  // Only an exact 1 is an error; every other severity is a warning.
  if (text.severity != 1 && !reportWarnings) return;
  // The message lives only for this call: a proxy that keeps it clones it.
  ReportedErrorMsg message(dataSetID, text);
  proxy->SendToClient(kReportNumber, message);
}
