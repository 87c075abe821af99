// Small stand-ins for the tests of access and notification: a message that
// counts its end, an observer that logs what it hears, a try for write
// access, and a check for a thread that must wait on a lock.
#ifndef SDM_TESTS_SUPPORT_ACCESS_PROBES_H
#define SDM_TESTS_SUPPORT_ACCESS_PROBES_H

#include <chrono>
#include <functional>
#include <future>
#include <string>
#include <utility>
#include <vector>

#include "ServerDataManager.h"
#include "support/tracked_source.h"

// A message that goes by its label for a class name and counts its
// destruction in `*destroyed`.
struct ProbeMessage : DataSetMsg {
  ProbeMessage(std::string text, int* counter) : label(std::move(text)), destroyed(counter) {}
  ~ProbeMessage() override { ++*destroyed; }
  VSerializable* Clone() const override { return new ProbeMessage(label, destroyed); }
  char const* GetClassName() const override { return label.c_str(); }
  std::string const label;
  int* const destroyed;
};

// Logs "<name>: <class names>" for each pass,
// "<name> created <id word> <file>" and "<name> deleted <id word>", then
// runs `then`, if set.
struct Listener : SvrDMDataSetObserver, ServerDataManagerObserver {
  Listener(std::string text, std::vector<std::string>* out) : name(std::move(text)), log(out) {}
  void DataSetChanged(SvrDMWriteableDataSource const* source) override {
    std::string entry = name + ":";
    for (DataSetMsg* message : source->GetNotifications())
      (entry += " ") += message->GetClassName();
    Log(entry);
  }
  void DataSetCreated(LocallyUniqueID const& id, std::string const& file) override {
    Log(name + " created " + std::to_string(id.ToWord()) + " " + file);
  }
  void DataSetDeleted(LocallyUniqueID const& id) override {
    Log(name + " deleted " + std::to_string(id.ToWord()));
  }
  void Log(std::string const& entry) {
    log->push_back(entry);
    if (then) then();
  }
  std::function<void()> then;
  std::string const name;
  std::vector<std::string>* const log;
};

// One try for write access: 55 when it fails, 0 when the lock was had.
inline int TryWrite(SvrDMItemPtr item) {
  try {
    SvrDMWriteableDataSource writer(item, true, nullptr);
  } catch (int code) {
    return code;
  }
  return 0;
}

// Whether `run`, started while this thread holds a lock it needs, is still
// waiting after a pause long enough for an operation that waits for nothing.
inline bool Waits(std::future<void> const& run) {
  return run.wait_for(std::chrono::milliseconds(100)) == std::future_status::timeout;
}

#endif  // SDM_TESTS_SUPPORT_ACCESS_PROBES_H
