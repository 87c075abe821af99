// Small stand-ins for the tests of access and notification: a data source and
// a message that report their end, and a one-shot latch to order threads.
#ifndef SDM_TESTS_SUPPORT_ACCESS_PROBES_H
#define SDM_TESTS_SUPPORT_ACCESS_PROBES_H

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <utility>

#include "ServerDataManager.h"

// A root data source that counts its destruction in `*destroyed`, which must
// outlive it.
class ProbeSource : public QUOR_DataSource {
 public:
  explicit ProbeSource(std::atomic<int>* destroyed)
      : QUOR_DataSource(nullptr), destroyed_(destroyed) {}
  ~ProbeSource() override { ++*destroyed_; }

 private:
  std::atomic<int>* destroyed_;
};

// A notification message that carries a label and counts its destruction.
class ProbeMessage : public DataSetMsg {
 public:
  ProbeMessage(std::string label, int* destroyed)
      : label_(std::move(label)), destroyed_(destroyed) {}
  ~ProbeMessage() override {
    if (destroyed_ != nullptr) ++*destroyed_;
  }
  VSerializable* Clone() const override { return new ProbeMessage(label_, destroyed_); }
  int Process(VStream&) override { return 0; }
  char const* GetClassName() const override { return "ProbeMessage"; }

  std::string const& Label() const { return label_; }

 private:
  std::string label_;
  int* destroyed_;
};

// Brings the item's snapshot in line with its live source by one write
// access that a throwaway observer watches, so that later passes queue only
// what a test does. Needs no other access to the item.
inline void SettleSnapshot(SvrDMItemPtr& item) {
  struct Quiet : SvrDMDataSetObserver {
    void DataSetChanged(SvrDMWriteableDataSource const*) override {}
  } quiet;
  item->Register(quiet);
  { SvrDMWriteableDataSource writer(item, false, nullptr); }
  item->Unregister(quiet);
}

// The label of a probe, the class name of any other message, "null" for a
// null entry.
inline std::string MessageLabel(DataSetMsg const* message) {
  if (message == nullptr) return "null";
  if (auto const* probe = dynamic_cast<ProbeMessage const*>(message)) return probe->Label();
  return message->GetClassName();
}

// Opens once for good; every waiter then passes.
class TestLatch {
 public:
  void Open() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      open_ = true;
    }
    changed_.notify_all();
  }
  void Wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return open_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool open_ = false;
};

#endif  // SDM_TESTS_SUPPORT_ACCESS_PROBES_H
