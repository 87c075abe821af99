// Eight threads on one registry of sixteen dataset slots for a bounded number
// of operations: every way of adding, replacing under an identifier,
// deleting, handles left for other threads to copy and drop, read accesses,
// write accesses editing at random or swapping the source, try-writers that
// meet 55, registry and dataset observers coming and going, clients joining
// datasets late. Each dataset's first observer, and each late client, keeps
// a client copy that must equal the live dictionary at every pass. Run it
// under the thread sanitizer; a deadlock ends at the test's time limit. By
// hand, longer:
//   SDM_SOAK_SEED=7 SDM_SOAK_OPS=5000000 sdm_soak_tests
#include <deque>
#include <mutex>
#include <random>
#include <thread>

#include <gtest/gtest.h>

#include "ServerDataManager.h"
#include "support/scratchdir.h"
#include "support/tracked_source.h"

namespace {

long FromEnvironment(char const* name, long otherwise) {
  char const* value = std::getenv(name);
  return value != nullptr ? std::strtol(value, nullptr, 10) : otherwise;
}
long const gOperations = FromEnvironment("SDM_SOAK_OPS", 400000);  // over all threads
uint32_t const gSeed = static_cast<uint32_t>(FromEnvironment("SDM_SOAK_SEED", 1));
int const kThreads = 8, kSlots = 16;

// The registry's first observer numbers the passes it hears, under the lock
// of the pass, so that later observers can say which they heard.
struct Numbering : ServerDataManagerObserver {
  void DataSetCreated(LocallyUniqueID const&, std::string const&) override { ++created, ++passes; }
  void DataSetDeleted(LocallyUniqueID const&) override { ++deleted, ++passes; }
  long created = 0, deleted = 0;
  std::atomic<long> passes{0};
};

// A dataset's client: its copy must equal the live dictionary after each
// pass, so a pass missed or heard twice shows at the next one. The file path
// is left out: the soak's sources rest on no data file.
struct Watcher : SvrDMDataSetObserver {
  void DataSetChanged(SvrDMWriteableDataSource const* writer) override {
    DataFreeDataSource none;  // what a dataset without a source reads as
    QUOR_DataSource* live = writer->GetDataSource();
    std::string why = copy.Apply(writer->GetNotifications());
    if (why.empty()) why = copy.Differences(live ? *live : none, false);
    if (!why.empty() && mismatches++ == 0) error = why;
    ++passes;
  }
  SvrDMClientCopy copy;
  std::string error;
  long mismatches = 0, passes = 0;
};

// A thread's registry observer, registered and removed at random; each
// registration must hear every pass numbered while it was surely in the
// list, once.
struct Recorder : ServerDataManagerObserver {
  void DataSetCreated(LocallyUniqueID const&, std::string const&) override { Hear(); }
  void DataSetDeleted(LocallyUniqueID const&) override { Hear(); }
  void Hear() { spans.back().heard.push_back(numbering->passes.load(std::memory_order_acquire)); }
  struct Span {
    long registered, unregistering;  // passes just after Register, just before Unregister
    std::vector<long> heard;
  };
  Numbering* numbering = nullptr;  // set while registered
  std::vector<Span> spans;
};

// What each thread keeps of its own.
struct Worker {
  int Below(int n) { return static_cast<int>(random() % static_cast<uint32_t>(n)); }
  TrackedSource* Chain() { return TrackedSource::Chain(1 + Below(3), Below(5), (serial += 8) - 8); }
  std::mt19937 random;
  uint32_t serial;  // variables of this thread's own
  Recorder recorder;
  Watcher* late = nullptr;  // this thread's late client, while registered
  SvrDMItemPtr lateItem;
};

class Soak {
 public:
  Soak() : slots_(kSlots), boxes_(kSlots) {
    for (auto& slot : slots_) slot = LocallyUniqueID::kNone;
    for (int i = 0; i < 4; ++i) files_.Write(std::to_string(i), "a\n1\n");
    registry_.Register(notices_);
  }

  void Run() {
    std::deque<Worker> workers;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      Worker& w = workers.emplace_back();
      w.random.seed(gSeed * 7919u + static_cast<uint32_t>(t));
      w.serial = static_cast<uint32_t>(t + 1) << 22;
      threads.emplace_back([this, &w] { Work(w); });
    }
    for (std::thread& thread : threads) thread.join();

    for (auto& box : boxes_) box.second = nullptr;
    for (SvrDMDataset const& open : registry_.GetAllDatasets()) {
      EXPECT_EQ(open.WritersCount() + open.ReadersCount(), 0) << "an access counter is not 0";
    }
    registry_.Clear();
    EXPECT_EQ(notices_.created, announcedWithSource_);
    EXPECT_EQ(notices_.deleted, announced_);
    long passes = 0, heard = 0;
    for (auto const& watcher : watchers_) EXPECT_EQ(watcher->mismatches, 0) << watcher->error;
    for (auto const& watcher : watchers_) passes += watcher->passes;
    for (Worker const& w : workers) heard += CheckSpans(w.recorder);
    std::printf(
        "[ soak      ] seed %u: %d threads, %ld operations, %ld writes, %ld try-writers met 55, "
        "%ld registry notices, %ld late joins, %ld passes checked against a client copy, %ld "
        "heard by recorders\n",
        gSeed, kThreads, gOperations, writes_.load(), busy_.load(), notices_.passes.load(),
        lateJoins_.load(), passes, heard);
    EXPECT_GT(heard, 0);
  }

 private:
  // Each registration heard a run of consecutive passes, beginning no later
  // than the first pass after Register returned and ending no earlier than
  // the last before Unregister.
  static long CheckSpans(Recorder const& recorder) {
    long heard = 0;
    for (Recorder::Span const& span : recorder.spans) {
      long const first = span.heard.empty() ? span.registered + 1 : span.heard.front();
      long const count = static_cast<long>(span.heard.size());
      EXPECT_LE(first, span.registered + 1) << "a pass missed after Register";
      EXPECT_GE(first + count - 1, span.unregistering) << "a pass missed before Unregister";
      for (long i = 0; i < count; ++i) {
        EXPECT_EQ(span.heard[static_cast<std::size_t>(i)], first + i) << "missed or heard twice";
      }
      heard += count;
    }
    return heard;
  }

  void Work(Worker& w) {
    for (long op = 0; op < gOperations / kThreads; ++op) {
      std::atomic<uint32_t>& slot = slots_[static_cast<std::size_t>(w.Below(kSlots))];
      auto& box = boxes_[static_cast<std::size_t>(w.Below(kSlots))];
      int const choice = w.Below(100);
      bool const silent = w.Below(5) == 0;
      if (choice <
          14) {  // a new dataset in the slot, in one of four ways; the one it displaces goes
        int const way = w.Below(4);
        LocallyUniqueID id;  // the fourth way replaces the slot's dataset under its identifier
        if (way == 3 && (id = LocallyUniqueID::FromWord(slot.exchange(id.ToWord()))).IsNone()) {
          continue;
        }
        if (way == 0) id = registry_.AddEmpty(silent);
        if (way == 1) id = registry_.Add(*w.Chain(), w.Below(4) ? "" : File(w.Below(4)), silent);
        if (way == 2) id = registry_.Add(*w.Chain(), "", "password", false, silent);
        if (way == 3) registry_.Add(*w.Chain(), "", silent, id, ++reuses_);
        Adopt(id, silent, way != 0);
        registry_.Delete(LocallyUniqueID::FromWord(slot.exchange(id.ToWord())));
      } else if (choice < 18) {
        registry_.Delete(LocallyUniqueID::FromWord(slot.exchange(LocallyUniqueID::kNone)));
      } else if (choice < 30) {  // a handle left for any thread, the one it displaces dropped here
        SvrDMItemPtr item = Find(slot, box), displaced;
        std::lock_guard<std::mutex> lock(box.first);
        displaced = std::exchange(box.second, item);
      } else if (choice < 36) {
        Toggle(w.recorder);
      } else if (choice < 45) {
        ToggleLate(w, Find(slot, box));
      } else if (choice < 60) {  // the dictionary holds still under a read access
        SvrDMItemPtr item = Find(slot, box);
        if (!item.IsValid()) continue;
        SvrDMInputDataSource reader(item, false);
        unsigned int const columns = reader.operator->() ? reader->ColumnCount() : 0;
        std::this_thread::yield();
        EXPECT_EQ(reader.operator->() ? reader->ColumnCount() : 0, columns);
      } else if (SvrDMItemPtr item = Find(slot, box); item.IsValid()) {
        Write(w, item, choice >= 90);
      }
    }
    if (w.recorder.numbering != nullptr) Toggle(w.recorder);
    if (w.late != nullptr) ToggleLate(w, nullptr);
  }

  void Write(Worker& w, SvrDMItemPtr& item, bool tryOnly) {
    try {
      SvrDMWriteableDataSource writer(item, tryOnly, nullptr);
      ++writes_;
      bool const creationDue = item->announce && !item->createNotified;
      auto* live = dynamic_cast<TrackedSource*>(writer.GetDataSource());
      if (live == nullptr || w.Below(20) == 0) writer.SetDataSet(live = w.Chain());
      if (w.Below(20) == 0) writer.BulkVarMoves();
      for (int edits = w.Below(5); edits > 0; --edits) {
        int const n = static_cast<int>(live->ColumnCount()), at = w.Below(n + 1), kind = w.Below(6);
        if (kind == 0) live->InsertVariable(at, QUOR_Variable(LocallyUniqueID(0, ++w.serial), "n"));
        if (kind == 1 && at < n) live->DeleteVariables(at, at);
        if (kind == 2 && at < n) live->GetVariable(at).SetName("r" + std::to_string(w.Below(9)));
        if (kind == 3) live->SetWeightVar(at < n ? at : -1);
        if (kind == 4) live->SetLabel(w.Below(2) ? nullptr : "label");
        if (kind == 5) live->rows = w.Below(5);
      }
      if (creationDue) {  // delivered here, under the lock, to see whether the notice went
        writer.Notify();
        if (item->createNotified) ++announcedWithSource_;
      }
    } catch (int code) {
      EXPECT_TRUE(code == 55 && tryOnly);
      ++busy_;
    }
  }

  // Registers the recorder or removes it, noting the passes around the
  // change; the list changes under the lock that every pass holds.
  void Toggle(Recorder& r) {
    if (r.numbering != nullptr) {
      r.spans.back().unregistering = r.numbering->passes;
      registry_.Unregister(r);
      r.numbering = nullptr;
      return;
    }
    r.spans.push_back({0, 0, {}});
    r.numbering = &notices_;
    registry_.Register(r);
    r.spans.back().registered = notices_.passes;
  }

  // Gives a new dataset its watcher under its write lock, before the id is
  // in a slot, so no pass can run before; that access's own pass tells the
  // watcher everything. An identifier reused while a thread still had it may
  // reach the dataset first: its pass runs no Update while nobody watches.
  void Adopt(LocallyUniqueID id, bool silent, bool withSource) {
    announced_ += silent ? 0 : 1;
    announcedWithSource_ += !silent && withSource ? 1 : 0;
    SvrDMItemPtr item = registry_.GetDataSet(id);
    SvrDMWriteableDataSource writer(item, false, nullptr);
    item->Register(*NewWatcher());
  }

  // A client that joins an open dataset at any point of its life: seeded
  // from what its watchers were told and registered under one read access,
  // it must agree with the live dictionary at every pass from then on.
  void ToggleLate(Worker& w, SvrDMItemPtr item) {
    if (w.late != nullptr) {
      w.lateItem->Unregister(*std::exchange(w.late, nullptr));
      w.lateItem = nullptr;
    } else if (item.IsValid()) {
      w.late = NewWatcher();
      SvrDMInputDataSource reader(item, false);
      w.late->copy.Seed(*item);
      item->Register(*w.late);
      w.lateItem = item;
      ++lateJoins_;
    }
  }

  Watcher* NewWatcher() {
    std::lock_guard<std::mutex> lock(watchersMutex_);
    return watchers_.emplace_back(new Watcher).get();
  }

  SvrDMItemPtr Find(std::atomic<uint32_t>& slot, std::pair<std::mutex, SvrDMItemPtr>& box) {
    try {
      LocallyUniqueID id = LocallyUniqueID::FromWord(slot.load());
      if (!id.IsNone()) return registry_.GetDataSet(id);
    } catch (ErrorMsg const& error) {
      EXPECT_EQ(error.GetCode(), 2001u);  // deleted since the slot was read
    }
    std::lock_guard<std::mutex> lock(box.first);
    return box.second;
  }

  std::string File(int i) { return files_.PathOf(std::to_string(i)); }

  ScratchDir files_;
  std::mutex watchersMutex_;
  std::deque<std::unique_ptr<Watcher>> watchers_;  // outlive every item
  ServerDataManager registry_;
  Numbering notices_;
  std::vector<std::atomic<uint32_t>> slots_;
  std::vector<std::pair<std::mutex, SvrDMItemPtr>> boxes_;
  std::atomic<long> writes_{0}, busy_{0}, announced_{0}, announcedWithSource_{0}, reuses_{0},
      lateJoins_{0};
};

TEST(Soak, ManyThreadsOnOneRegistryLoseNothing) {
  long const sources = TrackedSource::live, messages = VUGlobal::LiveBlocks();
  int const files = CountOpenDescriptors();
  Soak().Run();
  EXPECT_EQ(TrackedSource::live, sources) << "data sources left over";
  EXPECT_EQ(TrackedSource::destroyedTwice, 0);
  EXPECT_EQ(VUGlobal::LiveBlocks(), messages) << "message blocks left over";
  EXPECT_EQ(CountOpenDescriptors(), files) << "files left open";
}

}  // namespace
