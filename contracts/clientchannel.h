// The client channel of the server: where a dataset's errors go.
#ifndef SDM_CONTRACTS_CLIENTCHANNEL_H
#define SDM_CONTRACTS_CLIENTCHANNEL_H

#include <cstdint>

#include "serialization.h"

// The server's link to one client. Implemented by the server; the library
// only calls SendToClient, from whichever thread reports the error.
class PackageProxy {
 public:
  virtual ~PackageProxy() = default;
  virtual void SendToClient(int32_t number, VSerializable& message) = 0;
};

#endif  // SDM_CONTRACTS_CLIENTCHANNEL_H
