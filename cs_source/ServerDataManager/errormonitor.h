// Errors of the data manager: the exception it throws and the monitor that
// passes a dataset's errors to its client.
#ifndef SDM_ERRORMONITOR_H
#define SDM_ERRORMONITOR_H

#include <string>

#include "clientchannel.h"
#include "platform.h"

// The exception of the library, thrown by value: a code and a text. Code
// 2001 means an unknown dataset identifier.
class ErrorMsg {
 public:
  ErrorMsg() : code_(0) {}
  ErrorMsg(unsigned int code, std::string const& text) : text_(text), code_(code) {}

  unsigned int GetCode() const { return code_; }
  std::string const& GetText() const { return text_; }

 private:
  std::string text_;
  unsigned int code_;
};

// Forwards the errors of one dataset to its client channel. The proxy is
// borrowed, never owned.
class InteractiveErrorMonitor {
 public:
  InteractiveErrorMonitor(LocallyUniqueID dataSetID, PackageProxy* proxy)
      : dataSetID_(dataSetID), proxy_(proxy) {}

  LocallyUniqueID GetDataSetID() const { return dataSetID_; }
  PackageProxy* GetProxy() const { return proxy_; }

 private:
  LocallyUniqueID dataSetID_;
  PackageProxy* proxy_;
};

#endif  // SDM_ERRORMONITOR_H
