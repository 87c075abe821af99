// Small stand-ins for the tests of access and notification: a data source and
// a message that count their end, and an observer that logs what it hears.
#ifndef SDM_TESTS_SUPPORT_ACCESS_PROBES_H
#define SDM_TESTS_SUPPORT_ACCESS_PROBES_H

#include <atomic>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "ServerDataManager.h"

// A root data source that counts its destruction in `*destroyed`, which must
// outlive it.
struct ProbeSource : QUOR_DataSource {
  explicit ProbeSource(std::atomic<int>* counter) : QUOR_DataSource(nullptr), destroyed(counter) {}
  ~ProbeSource() override { ++*destroyed; }
  std::atomic<int>* const destroyed;
};

// A notification message that carries a label and counts its destruction in
// `*destroyed`, which must outlive it.
struct ProbeMessage : DataSetMsg {
  ProbeMessage(std::string text, int* counter) : label(std::move(text)), destroyed(counter) {}
  ~ProbeMessage() override { ++*destroyed; }
  VSerializable* Clone() const override { return new ProbeMessage(label, destroyed); }
  char const* GetClassName() const override { return "ProbeMessage"; }
  std::string const label;
  int* const destroyed;
};

// Hears both kinds of notice and logs them: "<name>: <labels>" for each
// DataSetChanged, the labels (class names for other messages) read from the
// queue through the writer it was given, and "<name> created <id word>
// <file>"; the matching hook runs after.
struct Listener : SvrDMDataSetObserver, ServerDataManagerObserver {
  Listener(std::string text, std::vector<std::string>* out) : name(std::move(text)), log(out) {}
  void DataSetChanged(SvrDMWriteableDataSource const* source) override {
    std::string entry = name + ":";
    for (DataSetMsg* message : source->GetNotifications()) {
      auto const* probe = dynamic_cast<ProbeMessage const*>(message);
      entry += " " + (probe != nullptr ? probe->label : std::string(message->GetClassName()));
    }
    log->push_back(entry);
    if (onChanged) onChanged(source);
  }
  void DataSetCreated(LocallyUniqueID const& id, std::string const& fileName) override {
    log->push_back(name + " created " + std::to_string(id.ToWord()) + " " + fileName);
    if (onCreated) onCreated();
  }
  void DataSetDeleted(LocallyUniqueID const&) override {}

  std::function<void(SvrDMWriteableDataSource const*)> onChanged;
  std::function<void()> onCreated;
  std::string const name;
  std::vector<std::string>* const log;
};

// Brings the item's snapshot in line with its live source by one watched
// write access, so that later passes queue only what a test adds.
inline void SettleSnapshot(SvrDMItemPtr& item) {
  std::vector<std::string> ignored;
  Listener quiet("", &ignored);
  item->Register(quiet);
  { SvrDMWriteableDataSource writer(item, false, nullptr); }
  item->Unregister(quiet);
}

// One try for write access from the calling thread: 55 when it fails, 0 when
// the lock was had (and given back at once).
inline int TryWrite(SvrDMItemPtr item) {
  try {
    SvrDMWriteableDataSource writer(item, true, nullptr);
  } catch (int code) {
    return code;
  }
  return 0;
}

#endif  // SDM_TESTS_SUPPORT_ACCESS_PROBES_H
