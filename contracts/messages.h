// The messages library of the server: the notification messages that tell a
// dataset's watchers what a writer changed.
#ifndef SDM_CONTRACTS_MESSAGES_H
#define SDM_CONTRACTS_MESSAGES_H

#include "serialization.h"

// Base of every notification message. Allocated through VUGlobal.
class DataSetMsg : public VSerializable {
 public:
  ~DataSetMsg() override = default;
};

#endif  // SDM_CONTRACTS_MESSAGES_H
