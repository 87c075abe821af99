// Small stand-ins for the tests of access and notification: a message that
// counts its end, and an observer that logs what it hears.
#ifndef SDM_TESTS_SUPPORT_ACCESS_PROBES_H
#define SDM_TESTS_SUPPORT_ACCESS_PROBES_H

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ServerDataManager.h"
#include "support/tracked_source.h"

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
// queue through the writer it was given, "<name> created <id word> <file>"
// and "<name> deleted <id word>"; the matching hook runs after.
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
  void DataSetDeleted(LocallyUniqueID const& id) override {
    log->push_back(name + " deleted " + std::to_string(id.ToWord()));
    if (onDeleted) onDeleted();
  }

  std::function<void(SvrDMWriteableDataSource const*)> onChanged;
  std::function<void()> onCreated, onDeleted;
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

// Runs each named operation on a thread of its own, for a test that holds a
// lock they all need. FinishedAfterAPause names those that have returned
// after a pause long enough for an operation that waits for nothing; what
// they throw is swallowed. The threads are joined when this goes, so keep it
// until the lock is released.
class Bystanders {
 public:
  using Operations = std::vector<std::pair<std::string, std::function<void()>>>;
  explicit Bystanders(Operations const& operations) : finished_(operations.size()) {
    for (std::size_t i = 0; i < operations.size(); ++i) {
      threads_.emplace_back([this, i, run = operations[i].second] {
        try {
          run();
        } catch (...) {
        }
        finished_[i] = true;
      });
      names_.push_back(operations[i].first);
    }
  }
  ~Bystanders() {
    for (std::thread& thread : threads_) thread.join();
  }
  std::vector<std::string> FinishedAfterAPause() {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    std::vector<std::string> early;
    for (std::size_t i = 0; i < names_.size(); ++i) {
      if (finished_[i]) early.push_back(names_[i]);
    }
    return early;
  }

 private:
  std::vector<std::atomic<bool>> finished_;
  std::vector<std::string> names_;
  std::vector<std::thread> threads_;
};

#endif  // SDM_TESTS_SUPPORT_ACCESS_PROBES_H
