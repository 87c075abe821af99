// Eight threads on one registry of sixteen dataset slots for a bounded number
// of operations: every way of adding, replacing under an identifier,
// deleting, handles left for other threads to copy and drop, read accesses,
// write accesses editing at random or swapping the source, try-writers that
// meet 55, registry and dataset observers coming and going, clients joining
// datasets late. Each dataset's first observer, and each late client, keeps
// a client copy that must equal the live dictionary at every pass. Run it
// under the thread sanitizer; by hand, longer:
//   SDM_SOAK_SEED=7 sdm_soak_tests --soak-ops=5000000
#include <deque>
#include <future>
#include <map>
#include <mutex>
#include <random>
#include <thread>

#include <gtest/gtest.h>

#include "ServerDataManager.h"
#include "support/scratchdir.h"
#include "support/tracked_source.h"

namespace {

long gOperations = 400000;  // over all threads; --soak-ops=N
uint32_t gSeed = 1;         // SDM_SOAK_SEED
int const kThreads = 8, kSlots = 16, kBoundSeconds = 600;

// Numbers the passes it hears, as the first observer of its registry or
// dataset, so that later observers can say which pass they heard. `tags`
// (a dataset id, a queue length) is written under the lock of the pass.
struct Numbering {
  std::atomic<long> passes{0};
  std::vector<long> tags;
  void Count(long tag) {
    tags.push_back(tag);
    passes.store(static_cast<long>(tags.size()), std::memory_order_release);
  }
};

struct RegistryNumbering : ServerDataManagerObserver, Numbering {
  void DataSetCreated(LocallyUniqueID const& id, std::string const&) override {
    ++created;
    Count(id.ToWord());
  }
  void DataSetDeleted(LocallyUniqueID const& id) override {
    ++deleted;
    Count(id.ToWord());
  }
  long created = 0, deleted = 0;
};

// A dataset's watcher: its copy must equal the live dictionary after each
// pass. The file path is left out: the soak's sources rest on no data file.
struct Watcher : SvrDMDataSetObserver, Numbering {
  void DataSetChanged(SvrDMWriteableDataSource const* writer) override {
    DataFreeDataSource none;  // what a dataset without a source reads as
    QUOR_DataSource* live = writer->GetDataSource();
    std::string why = copy.Apply(writer->GetNotifications());
    if (why.empty()) why = copy.Differences(live ? *live : none, false);
    if (!why.empty() && mismatches++ == 0) error = why;
    Count(static_cast<long>(writer->GetNotifications().size()));
  }
  SvrDMClientCopy copy;
  std::string error;
  long mismatches = 0;
};

// A thread's observer, registered and removed at random; each registration
// must hear every pass numbered while it was surely in the list, once, with
// the first observer's tag, and nothing else.
struct Recorder : ServerDataManagerObserver, SvrDMDataSetObserver {
  void DataSetCreated(LocallyUniqueID const& id, std::string const&) override { Hear(id.ToWord()); }
  void DataSetDeleted(LocallyUniqueID const& id) override { Hear(id.ToWord()); }
  void DataSetChanged(SvrDMWriteableDataSource const* w) override {
    Hear(static_cast<long>(w->GetNotifications().size()));
  }
  void Hear(long tag) {
    spans.back().heard.push_back({numbering->passes.load(std::memory_order_acquire), tag});
  }
  struct Span {
    Numbering* numbering;
    long registered, unregistering;            // passes just after Register, just before Unregister
    std::vector<std::pair<long, long>> heard;  // pass, tag
  };
  Numbering* numbering = nullptr;  // set while registered
  SvrDMItemPtr item;               // the dataset, for one on a dataset
  std::vector<Span> spans;
};

class Soak {
 public:
  Soak() : slots_(kSlots), boxes_(kSlots) {
    for (auto& slot : slots_) slot = LocallyUniqueID::kNone;
    for (int i = 0; i < 4; ++i) files_.Write(std::to_string(i), "a\n1\n");
    registry_.Register(notices_);
  }

  void Run() {
    std::vector<Recorder> onRegistry(kThreads), onDataset(kThreads);
    std::promise<void> finished;
    std::thread watchdog([future = finished.get_future()] {
      if (future.wait_for(std::chrono::seconds(kBoundSeconds)) == std::future_status::ready) return;
      std::fprintf(stderr, "soak: not finished after %d s: a deadlock\n", kBoundSeconds);
      std::abort();
    });
    std::vector<std::thread> workers;
    for (int t = 0; t < kThreads; ++t)
      workers.emplace_back([&, t] { Work(t, onRegistry[t], onDataset[t]); });
    for (std::thread& worker : workers) worker.join();
    finished.set_value();
    watchdog.join();

    for (auto& box : boxes_) box.second = nullptr;
    for (SvrDMDataset const& open : registry_.GetAllDatasets()) {
      EXPECT_EQ(open.WritersCount() + open.ReadersCount(), 0)
          << "an access counter is not back to 0";
    }
    registry_.Clear();
    EXPECT_EQ(notices_.created, announcedWithSource_);
    EXPECT_EQ(notices_.deleted, announced_);
    long passes = 0, heard = 0;
    for (auto const& watcher : watchers_) EXPECT_EQ(watcher->mismatches, 0) << watcher->error;
    for (auto const& watcher : watchers_) passes += watcher->passes;
    for (Recorder const* recorders : {onRegistry.data(), onDataset.data()}) {
      for (int t = 0; t < kThreads; ++t) heard += CheckSpans(recorders[t]);
    }
    std::printf(
        "[ soak      ] seed %u: %d threads, %ld operations, %ld writes, %ld try-writers met 55, "
        "%ld registry notices, %ld late joins, %ld passes checked against a client copy, %ld "
        "heard by recorders\n",
        gSeed, kThreads, gOperations, writes_.load(), busy_.load(), notices_.passes.load(),
        lateJoins_.load(), passes, heard);
    EXPECT_GT(heard, 0);
  }

 private:
  // Each registration heard a run of consecutive passes, each with the tag
  // its first observer gave it, beginning no later than the first pass after
  // Register returned and ending no earlier than the last before Unregister.
  long CheckSpans(Recorder const& recorder) {
    long heard = 0;
    for (Recorder::Span const& span : recorder.spans) {
      long const first = span.heard.empty() ? span.registered + 1 : span.heard.front().first;
      long const last = first + static_cast<long>(span.heard.size()) - 1;
      EXPECT_LE(first, span.registered + 1) << "a pass missed after Register";
      EXPECT_GE(last, span.unregistering) << "a pass missed before Unregister";
      for (std::size_t i = 0; i < span.heard.size(); ++i) {
        EXPECT_EQ(span.heard[i].first, first + static_cast<long>(i))
            << "a pass missed or heard twice";
        EXPECT_EQ(span.heard[i].second,
                  span.numbering->tags[static_cast<std::size_t>(span.heard[i].first - 1)]);
      }
      heard += static_cast<long>(span.heard.size());
    }
    return heard;
  }

  void Work(int thread, Recorder& onRegistry, Recorder& onDataset) {
    Watcher* late = nullptr;  // this thread's late client, while registered
    SvrDMItemPtr lateItem;
    std::mt19937 random(gSeed * 7919u + static_cast<uint32_t>(thread));
    auto below = [&random](int n) { return static_cast<int>(random() % static_cast<uint32_t>(n)); };
    uint32_t serial = static_cast<uint32_t>(thread + 1) << 22;  // variables of this thread's own
    auto chain = [&] {
      TrackedSource* head = TrackedSource::Chain(1 + below(3), below(5), serial);
      serial += 8;
      return head;
    };
    for (long op = 0; op < gOperations / kThreads; ++op) {
      std::atomic<uint32_t>& slot = slots_[static_cast<std::size_t>(below(kSlots))];
      auto& box = boxes_[static_cast<std::size_t>(below(kSlots))];
      int const choice = below(100);
      bool const silent = below(5) == 0;
      if (choice < 10) {  // a new dataset in the slot; the one it displaces goes
        int const way = below(3);
        LocallyUniqueID id = way == 0 ? registry_.AddEmpty(silent)
                             : way == 1
                                 ? registry_.Add(*chain(), below(4) ? "" : File(below(4)), silent)
                                 : registry_.Add(*chain(), "", "password", false, silent);
        Adopt(id, silent, way != 0);
        registry_.Delete(LocallyUniqueID::FromWord(slot.exchange(id.ToWord())));
      } else if (choice < 14) {  // a new dataset under the slot's identifier
        LocallyUniqueID id = LocallyUniqueID::FromWord(slot.exchange(LocallyUniqueID::kNone));
        if (id.IsNone()) continue;
        registry_.Add(*chain(), "", silent, id, static_cast<unsigned int>(++reuses_));
        Adopt(id, silent, true);
        registry_.Delete(LocallyUniqueID::FromWord(slot.exchange(id.ToWord())));
      } else if (choice < 18) {
        registry_.Delete(LocallyUniqueID::FromWord(slot.exchange(LocallyUniqueID::kNone)));
      } else if (choice < 30) {  // a handle left for any thread, the one it displaces dropped here
        SvrDMItemPtr item = Find(slot, box), displaced;
        std::lock_guard<std::mutex> lock(box.first);
        displaced = std::exchange(box.second, item);
      } else if (choice < 36) {
        ToggleOnRegistry(onRegistry);
      } else if (choice < 42) {
        ToggleOnDataset(onDataset, Find(slot, box));
      } else if (choice < 45) {
        ToggleLate(late, lateItem, Find(slot, box));
      } else if (choice < 60) {  // the dictionary holds still under a read access
        SvrDMItemPtr item = Find(slot, box);
        if (!item.IsValid()) continue;
        SvrDMInputDataSource reader(item, false);
        unsigned int const columns = reader.operator->() ? reader->ColumnCount() : 0;
        std::this_thread::yield();
        EXPECT_EQ(reader.operator->() ? reader->ColumnCount() : 0, columns);
      } else if (SvrDMItemPtr item = Find(slot, box); item.IsValid()) {
        Write(item, choice >= 90, below, chain, serial);
      }
    }
    if (onRegistry.numbering != nullptr) ToggleOnRegistry(onRegistry);
    if (onDataset.numbering != nullptr) ToggleOnDataset(onDataset, nullptr);
    if (late != nullptr) ToggleLate(late, lateItem, nullptr);
  }

  template <typename Below, typename Chain>
  void Write(SvrDMItemPtr& item, bool tryOnly, Below& below, Chain& chain, uint32_t& serial) {
    try {
      SvrDMWriteableDataSource writer(item, tryOnly, nullptr);
      ++writes_;
      bool const creationDue = item->announce && !item->createNotified;
      auto* live = dynamic_cast<TrackedSource*>(writer.GetDataSource());
      if (live == nullptr || below(20) == 0) writer.SetDataSet(live = chain());
      if (below(20) == 0) writer.BulkVarMoves();
      for (int edits = below(5); edits > 0; --edits) {
        int const n = static_cast<int>(live->ColumnCount()), at = below(n + 1);
        switch (below(6)) {
          case 0:
            live->InsertVariable(at, QUOR_Variable(LocallyUniqueID(0, ++serial), "n"));
            break;
          case 1:
            if (at < n) live->DeleteVariables(at, at);
            break;
          case 2:
            if (at < n) live->GetVariable(at).SetName("r" + std::to_string(below(9)));
            break;
          case 3:
            live->SetWeightVar(at < n ? at : -1);
            break;
          case 4:
            live->SetLabel(below(2) ? nullptr : "label");
            break;
          default:
            live->rows = below(5);
        }
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

  // Registers or removes a recorder, noting the passes around the change;
  // the list changes under the lock that every pass holds.
  template <typename Change>
  void Toggle(Recorder& recorder, Numbering* numbering, Change change) {
    if (recorder.numbering == nullptr) {
      recorder.spans.push_back({numbering, 0, 0, {}});
      recorder.numbering = numbering;
      change(true);
      recorder.spans.back().registered = numbering->passes;
    } else {
      recorder.spans.back().unregistering = recorder.numbering->passes;
      change(false);
      recorder.numbering = nullptr;
    }
  }
  void ToggleOnRegistry(Recorder& r) {
    Toggle(r, &notices_, [&](bool on) { on ? registry_.Register(r) : registry_.Unregister(r); });
  }
  void ToggleOnDataset(Recorder& r, SvrDMItemPtr item) {
    Watcher* watcher = r.item.IsValid() ? nullptr : WatcherOf(item);
    if (watcher == nullptr && !r.item.IsValid()) return;  // no dataset, or not adopted yet
    Toggle(r, watcher, [&](bool on) {
      if (on) (r.item = item)->Register(r);
      if (!on) r.item->Unregister(r), r.item = nullptr;
    });
  }

  // Gives a new dataset its watcher under its write lock, before the id is
  // in a slot, so no pass can run before; that access's own pass tells the
  // watcher everything. An identifier reused while a thread still had it may
  // reach the dataset first: its pass runs no Update while nobody watches.
  void Adopt(LocallyUniqueID id, bool silent, bool withSource) {
    announced_ += silent ? 0 : 1;
    announcedWithSource_ += !silent && withSource ? 1 : 0;
    SvrDMItemPtr item = registry_.GetDataSet(id);
    auto* watcher = new Watcher;
    SvrDMWriteableDataSource writer(item, false, nullptr);
    item->Register(*watcher);
    std::lock_guard<std::mutex> lock(watchersMutex_);
    watchers_.emplace_back(watcher);
    watcherOf_[{item.get(), item->caseSequence}] = watcher;
  }

  // A client that joins an open dataset at any point of its life: seeded
  // from what its watchers were told and registered under one read access,
  // it must agree with the live dictionary at every pass from then on.
  void ToggleLate(Watcher*& late, SvrDMItemPtr& lateItem, SvrDMItemPtr item) {
    if (late != nullptr) {
      lateItem->Unregister(*late);
      late = nullptr;
      lateItem = nullptr;
      return;
    }
    if (!item.IsValid()) return;
    {
      std::lock_guard<std::mutex> lock(watchersMutex_);
      late = watchers_.emplace_back(new Watcher).get();
    }
    SvrDMInputDataSource reader(item, false);
    late->copy.Seed(*item);
    item->Register(*late);
    lateItem = item;
    ++lateJoins_;
  }

  Watcher* WatcherOf(SvrDMItemPtr const& item) {
    std::lock_guard<std::mutex> lock(watchersMutex_);
    auto found =
        item.IsValid() ? watcherOf_.find({item.get(), item->caseSequence}) : watcherOf_.end();
    return found == watcherOf_.end() ? nullptr : found->second;
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
  // By address and case sequence: a dataset added under a reused identifier
  // gets a sequence of its own, so it is never taken for an earlier item at
  // the same address before its watcher is in place.
  std::map<std::pair<SvrDMItem const*, uint32_t>, Watcher*> watcherOf_;
  ServerDataManager registry_;
  RegistryNumbering notices_;
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

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  if (char const* seed = std::getenv("SDM_SOAK_SEED"))
    gSeed = static_cast<uint32_t>(std::strtoul(seed, nullptr, 10));
  for (int i = 1; i < argc; ++i) {
    if (std::string(argv[i]).rfind("--soak-ops=", 0) == 0)
      gOperations = std::strtol(argv[i] + 11, nullptr, 10);
  }
  return RUN_ALL_TESTS();
}
