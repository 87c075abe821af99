// Many threads against one registry for a bounded number of operations:
// datasets added, replaced and deleted, found by identifier and handle,
// handles passed between threads and dropped anywhere, registry observers
// coming and going. Run under the thread sanitizer it proves the locking;
// in any build it proves that nothing is lost: every source destroyed once,
// every message block and file given back, every notice heard once by every
// observer that was registered for it.
//
//   sdm_soak_tests [--soak-ops=N] [--soak-seconds=S]   seed: SDM_SOAK_SEED
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ServerDataManager.h"
#include "support/scratchdir.h"
#include "support/tracked_source.h"

namespace {

// How long and how hard; set by main from the command line and environment.
struct SoakSettings {
  uint32_t seed = 1;
  long operations = 200000;  // over all threads
  int threads = 8;
  int datasets = 16;
  int boundSeconds = 600;  // the watchdog's limit
};
SoakSettings gSettings;

enum class Notice : uint8_t { kCreated, kDeleted };

struct NoticeRecord {
  long sequence;
  Notice kind;
  uint32_t id;
};

// Registered first and never removed, so it hears every notice first in its
// pass: it numbers the notices, keeps them in order, and checks that a
// dataset's notices alternate. Called under the registry lock only, which
// guards everything here but `sequence`, which others read without it.
class PermanentObserver : public ServerDataManagerObserver {
 public:
  void DataSetCreated(LocallyUniqueID const& id, std::string const&) override {
    long n = sequence.load(std::memory_order_relaxed) + 1;
    journal.push_back({n, Notice::kCreated, id.ToWord()});
    bool& isLive = live[id.ToWord()];
    if (isLive) ++violations;  // created twice with no deletion between
    isLive = true;
    ++created;
    sequence.store(n, std::memory_order_release);
  }
  void DataSetDeleted(LocallyUniqueID const& id) override {
    long n = sequence.load(std::memory_order_relaxed) + 1;
    journal.push_back({n, Notice::kDeleted, id.ToWord()});
    live[id.ToWord()] = false;  // a dataset with no source has no creation notice
    ++deleted;
    sequence.store(n, std::memory_order_release);
  }

  std::atomic<long> sequence{0};
  std::vector<NoticeRecord> journal;
  std::map<uint32_t, bool> live;
  long created = 0;
  long deleted = 0;
  long violations = 0;
};

// One thread's observer, registered and removed by that thread at random.
// It tags each notice with the number the permanent observer gave it in the
// same pass. Its records are written under the registry lock and read by
// the owner after Unregister, which takes that lock too.
class TransientObserver : public ServerDataManagerObserver {
 public:
  explicit TransientObserver(PermanentObserver& numbering) : numbering_(numbering) {}

  void DataSetCreated(LocallyUniqueID const& id, std::string const&) override {
    seen.push_back({numbering_.sequence.load(std::memory_order_acquire), Notice::kCreated, id.ToWord()});
  }
  void DataSetDeleted(LocallyUniqueID const& id) override {
    seen.push_back({numbering_.sequence.load(std::memory_order_acquire), Notice::kDeleted, id.ToWord()});
  }

  // One registration: the sequence just before Register, just after it,
  // just before Unregister and just after it.
  struct Span {
    long beforeRegister, afterRegister, beforeUnregister, afterUnregister;
    std::vector<NoticeRecord> seen;
  };

  std::vector<NoticeRecord> seen;
  std::vector<Span> spans;

 private:
  PermanentObserver& numbering_;
};

// A handle parked for another thread to pick up.
struct Mailbox {
  std::mutex mutex;
  SvrDMItemPtr item;
};

// What the workers did that the end state must account for.
struct Tally {
  std::atomic<long> operations{0};
  std::atomic<long> announcedAdds{0};            // every announced dataset
  std::atomic<long> announcedAddsWithSource{0};  // those that are due a creation notice
  std::atomic<long> lookups{0};
  std::atomic<long> misses{0};
  std::atomic<long> handoffs{0};
  std::atomic<long> registrations{0};
  std::atomic<long> failures{0};
};

class Soak {
 public:
  Soak()
      : slots_(static_cast<std::size_t>(gSettings.datasets)),
        mail_(static_cast<std::size_t>(gSettings.datasets)) {
    for (int i = 0; i < 4; ++i) {
      files_.push_back(dir_.Write("shared-data-file-" + std::to_string(i) + ".csv", "a\n1\n"));
    }
    for (auto& slot : slots_) slot = LocallyUniqueID::kNone;
    registry_.Register(permanent_);
  }

  void Run() {
    std::vector<std::unique_ptr<TransientObserver>> observers;
    for (int t = 0; t < gSettings.threads; ++t) observers.emplace_back(new TransientObserver(permanent_));
    long const each = gSettings.operations / gSettings.threads;

    std::vector<std::thread> workers;
    for (int t = 0; t < gSettings.threads; ++t) {
      workers.emplace_back([this, t, each, &observers] { Work(t, each, *observers[t]); });
    }
    Watchdog watchdog(tally_);
    for (std::thread& worker : workers) worker.join();
    watchdog.Finished();

    for (Mailbox& box : mail_) box.item = nullptr;
    for (auto& slot : slots_) slot = LocallyUniqueID::kNone;
    registry_.Clear();

    CheckNotices(observers);
    std::printf("[ soak      ] seed %u: %d threads, %ld operations, %ld lookups (%ld of a dataset just gone), "
                "%ld handles passed between threads, %ld observer registrations, %ld notices\n",
                gSettings.seed, gSettings.threads, tally_.operations.load(), tally_.lookups.load(),
                tally_.misses.load(), tally_.handoffs.load(), tally_.registrations.load(),
                permanent_.sequence.load());
  }

 private:
  // Fails the run, with where each thread stood, when the workers have not
  // finished within the bound: a deadlock does not end a test by itself.
  class Watchdog {
   public:
    explicit Watchdog(Tally& tally) : thread_([this, &tally] {
      std::unique_lock<std::mutex> lock(mutex_);
      if (!changed_.wait_for(lock, std::chrono::seconds(gSettings.boundSeconds), [this] { return done_; })) {
        std::fprintf(stderr, "soak: not finished after %d s (%ld operations done): deadlock or livelock\n",
                     gSettings.boundSeconds, tally.operations.load());
        std::abort();
      }
    }) {}
    void Finished() {
      {
        std::lock_guard<std::mutex> lock(mutex_);
        done_ = true;
      }
      changed_.notify_all();
      thread_.join();
    }

   private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool done_ = false;
    std::thread thread_;
  };

  void Work(int thread, long operations, TransientObserver& observer) {
    std::mt19937 random(gSettings.seed * 7919u + static_cast<uint32_t>(thread));
    auto below = [&random](int n) { return static_cast<int>(random() % static_cast<uint32_t>(n)); };
    bool registered = false;
    unsigned int caseSequence = 0;

    for (long op = 0; op < operations; ++op) {
      std::size_t const slot = static_cast<std::size_t>(below(gSettings.datasets));
      int const choice = below(100);
      if (choice < 15) {
        AddNew(slot, below);
      } else if (choice < 22) {
        ReplaceUnderIdentifier(slot, below, ++caseSequence);
      } else if (choice < 30) {
        LocallyUniqueID old = LocallyUniqueID::FromWord(slots_[slot].exchange(LocallyUniqueID::kNone));
        if (!old.IsNone()) registry_.Delete(old);
      } else if (choice < 55) {
        Lookup(slot, static_cast<std::size_t>(below(gSettings.datasets)));
      } else if (choice < 75) {
        PickUpHandle(slot);
      } else if (choice < 80) {
        // Every item's handle is empty: the first one in the table answers.
        SvrDMItemPtr first = registry_.GetDataSet(std::string());
        if (first.IsValid() && !first->handle.empty()) ++tally_.failures;
      } else if (choice < 85) {
        Toggle(observer, registered);
      } else {
        // Pass a handle from one box to another: taken here, left there.
        PickUpHandle(slot);
        Lookup(static_cast<std::size_t>(below(gSettings.datasets)), slot);
      }
      ++tally_.operations;
    }
    if (registered) Toggle(observer, registered);
  }

  template <typename Below>
  TrackedSource* NewChain(Below& below) {
    return TrackedSource::Chain(1 + below(3), below(4));
  }

  template <typename Below>
  std::string const& SomeFile(Below& below) {
    static std::string const none;
    return below(4) == 0 ? files_[static_cast<std::size_t>(below(4))] : none;
  }

  template <typename Below>
  void AddNew(std::size_t slot, Below& below) {
    bool const silent = below(5) == 0;
    LocallyUniqueID id;
    int const way = below(3);
    if (way == 0) {
      id = registry_.AddEmpty(silent);
    } else if (way == 1) {
      id = registry_.Add(*NewChain(below), SomeFile(below), silent);
    } else {
      id = registry_.Add(*NewChain(below), SomeFile(below), "password", false, silent);
    }
    CountAdd(silent, way != 0);
    LocallyUniqueID old = LocallyUniqueID::FromWord(slots_[slot].exchange(id.ToWord()));
    if (!old.IsNone()) registry_.Delete(old);
  }

  template <typename Below>
  void ReplaceUnderIdentifier(std::size_t slot, Below& below, unsigned int caseSequence) {
    LocallyUniqueID id = LocallyUniqueID::FromWord(slots_[slot].load());
    if (id.IsNone()) return;
    bool const silent = below(5) == 0;
    // The slot may have moved on meanwhile; the dataset then stands in the
    // table under no slot until the final Clear, which is no harm.
    registry_.Add(*NewChain(below), SomeFile(below), silent, id, caseSequence);
    CountAdd(silent, true);
  }

  void CountAdd(bool silent, bool withSource) {
    if (silent) return;
    ++tally_.announcedAdds;
    if (withSource) ++tally_.announcedAddsWithSource;
  }

  // Finds the dataset of `slot` and leaves a copy of its handle in box
  // `box` for any thread; the handle it displaces is dropped here.
  void Lookup(std::size_t slot, std::size_t box) {
    LocallyUniqueID id = LocallyUniqueID::FromWord(slots_[slot].load());
    if (id.IsNone()) return;
    ++tally_.lookups;
    SvrDMItemPtr item;
    try {
      item = registry_.GetDataSet(id);
    } catch (ErrorMsg const& error) {
      // Deleted by another thread since the slot was read.
      ++tally_.misses;
      if (error.GetCode() != 2001) ++tally_.failures;
      return;
    }
    if (item->dataSetID != id || item->dataManager != &registry_) ++tally_.failures;
    SvrDMItemPtr displaced;
    {
      std::lock_guard<std::mutex> lock(mail_[box].mutex);
      displaced = mail_[box].item;
      mail_[box].item = item;
    }
  }

  // Takes whatever handle another thread left in the box, copies it about
  // and drops every copy, possibly the item's last reference.
  void PickUpHandle(std::size_t box) {
    SvrDMItemPtr item;
    {
      std::lock_guard<std::mutex> lock(mail_[box].mutex);
      item = mail_[box].item;
      mail_[box].item = nullptr;
    }
    if (!item.IsValid()) return;
    ++tally_.handoffs;
    std::vector<SvrDMItemPtr> copies(3, item);
    for (SvrDMItemPtr const& copy : copies) {
      if (copy->dataManager != &registry_ || copy->dataSetID.IsNone()) ++tally_.failures;
    }
  }

  void Toggle(TransientObserver& observer, bool& registered) {
    if (!registered) {
      TransientObserver::Span span{};
      span.beforeRegister = permanent_.sequence.load(std::memory_order_acquire);
      registry_.Register(observer);
      span.afterRegister = permanent_.sequence.load(std::memory_order_acquire);
      observer.spans.push_back(span);
      ++tally_.registrations;
    } else {
      TransientObserver::Span& span = observer.spans.back();
      span.beforeUnregister = permanent_.sequence.load(std::memory_order_acquire);
      registry_.Unregister(observer);
      span.afterUnregister = permanent_.sequence.load(std::memory_order_acquire);
      // Unregister took the registry lock: every record is ours to read.
      span.seen.swap(observer.seen);
    }
    registered = !registered;
  }

  // Every registration of every thread's observer heard each notice of its
  // span once, with the right dataset and kind, and nothing outside it.
  void CheckNotices(std::vector<std::unique_ptr<TransientObserver>> const& observers) {
    EXPECT_EQ(permanent_.violations, 0) << "a dataset was announced twice without going between";
    EXPECT_EQ(permanent_.created, tally_.announcedAddsWithSource.load());
    EXPECT_EQ(permanent_.deleted, tally_.announcedAdds.load());
    for (auto const& [id, isLive] : permanent_.live) {
      EXPECT_FALSE(isLive) << "dataset " << id << " never announced gone";
    }
    auto const& journal = permanent_.journal;
    long checked = 0;
    for (auto const& observer : observers) {
      for (TransientObserver::Span const& span : observer->spans) {
        std::size_t next = 0;
        for (long n = span.beforeRegister + 1; n <= span.afterUnregister; ++n) {
          bool heard = next < span.seen.size() && span.seen[next].sequence == n;
          bool due = n > span.afterRegister && n <= span.beforeUnregister;
          if (due && !heard) {
            ADD_FAILURE() << "notice " << n << " missed by an observer registered for it";
            return;
          }
          if (!heard) continue;
          NoticeRecord const& truth = journal[static_cast<std::size_t>(n - 1)];
          if (span.seen[next].kind != truth.kind || span.seen[next].id != truth.id) {
            ADD_FAILURE() << "notice " << n << " heard with the wrong dataset or kind";
            return;
          }
          ++next;
          ++checked;
        }
        if (next != span.seen.size()) {
          ADD_FAILURE() << "an observer heard a notice twice or outside its registration";
          return;
        }
      }
    }
    EXPECT_GT(checked, 0) << "no transient observer heard anything";
  }

  ScratchDir dir_;
  std::vector<std::string> files_;
  ServerDataManager registry_;
  PermanentObserver permanent_;
  std::vector<std::atomic<uint32_t>> slots_;
  std::vector<Mailbox> mail_;
  Tally tally_;
};

TEST(Soak, ManyThreadsOnOneRegistryLoseNothing) {
  long const sources = TrackedSource::Live();
  long const messageBlocks = VUGlobal::LiveBlocks();
  int const descriptors = CountOpenDescriptors();
  {
    Soak soak;
    soak.Run();
  }
  EXPECT_EQ(TrackedSource::Live(), sources) << "data sources left over";
  EXPECT_EQ(TrackedSource::DoubleDestroyed(), 0) << "a data source was destroyed twice";
  EXPECT_GT(TrackedSource::Created(), 0);
  EXPECT_EQ(VUGlobal::LiveBlocks(), messageBlocks) << "message blocks left over";
  EXPECT_EQ(CountOpenDescriptors(), descriptors) << "data files left open";
}

}  // namespace

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  if (char const* seed = std::getenv("SDM_SOAK_SEED")) {
    gSettings.seed = static_cast<uint32_t>(std::strtoul(seed, nullptr, 10));
  }
  for (int i = 1; i < argc; ++i) {
    std::string const arg = argv[i];
    if (arg.rfind("--soak-ops=", 0) == 0) {
      gSettings.operations = std::strtol(arg.c_str() + 11, nullptr, 10);
    } else if (arg.rfind("--soak-seconds=", 0) == 0) {
      gSettings.boundSeconds = static_cast<int>(std::strtol(arg.c_str() + 15, nullptr, 10));
    } else {
      std::fprintf(stderr, "usage: %s [--soak-ops=N] [--soak-seconds=S] (seed from SDM_SOAK_SEED)\n", argv[0]);
      return 2;
    }
  }
  return RUN_ALL_TESTS();
}
