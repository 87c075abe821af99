// Many threads against one registry for a bounded number of operations:
// datasets added, replaced and deleted, found by identifier and handle,
// handles passed between threads and dropped anywhere, read accesses, write
// accesses that edit the dictionary at random or swap the data source,
// try-writers that meet a busy lock, registry and dataset observers coming
// and going. Every dataset has a watcher that checks, at each pass, that
// the messages it has heard add up to the live dictionary. Run under the
// thread sanitizer it proves the locking; in any build it proves that
// nothing is lost: every source destroyed once, every message block and
// file given back, every counter back to 0, every notice heard once by
// every observer that was registered for it.
//
//   sdm_soak_tests [--soak-ops=N] [--soak-seconds=S]   seed: SDM_SOAK_SEED
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ServerDataManager.h"
#include "support/scratchdir.h"
#include "support/tracked_source.h"
#include "support/watcher_model.h"

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
// pass: it numbers the notices and keeps them in order. Called under the
// registry lock only, which guards everything here but `sequence`, which
// others read without it.
//
// A dataset's notices need not alternate: a writer that still holds a
// deleted dataset and gives it its first source sends its creation notice
// after its deletion notice, and an identifier can come back with the Add
// that names it. So the counts are checked, not the order per dataset.
class PermanentObserver : public ServerDataManagerObserver {
 public:
  void DataSetCreated(LocallyUniqueID const& id, std::string const&) override {
    long n = sequence.load(std::memory_order_relaxed) + 1;
    journal.push_back({n, Notice::kCreated, id.ToWord()});
    ++created;
    sequence.store(n, std::memory_order_release);
  }
  void DataSetDeleted(LocallyUniqueID const& id) override {
    long n = sequence.load(std::memory_order_relaxed) + 1;
    journal.push_back({n, Notice::kDeleted, id.ToWord()});
    ++deleted;
    sequence.store(n, std::memory_order_release);
  }

  std::atomic<long> sequence{0};
  std::vector<NoticeRecord> journal;
  long created = 0;
  long deleted = 0;
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

// The first observer of every dataset, registered before anyone else can
// reach the dataset and kept for its life. It numbers the passes, and keeps
// a watcher model that must equal the live dictionary after each pass.
// Called under the dataset's write lock and observer lock, which guard
// everything here but `passes`, which others read without them.
class ModelObserver : public SvrDMDataSetObserver {
 public:
  void DataSetChanged(SvrDMWriteableDataSource const* writer) override {
    std::vector<DataSetMsg*> const& queue = writer->GetNotifications();
    sizes.push_back(queue.size());
    std::string error;
    QUOR_DataSource* live = writer->GetDataSource();
    DataFreeDataSource empty;  // what Update reads a dataset without a source as
    if (!model.Apply(queue, &error) || !model.Matches(live != nullptr ? *live : empty, &error, false)) {
      if (firstError.empty()) firstError = error + "; queue: " + ::testing::PrintToString(DescribeQueue(queue));
      ++mismatches;
    }
    passes.store(static_cast<long>(sizes.size()), std::memory_order_release);
  }

  std::atomic<long> passes{0};
  std::vector<std::size_t> sizes;  // queue length of each pass
  WatcherModel model;
  long mismatches = 0;
  std::string firstError;
};

// A thread's observer of one dataset at a time, registered and removed at
// random. It tags each pass with the number the model observer gave it and
// notes the queue's length.
class PassRecorder : public SvrDMDataSetObserver {
 public:
  struct Heard {
    long pass;
    std::size_t size;
  };
  void DataSetChanged(SvrDMWriteableDataSource const* writer) override {
    heard.push_back({numbering->passes.load(std::memory_order_acquire), writer->GetNotifications().size()});
  }

  struct Span {
    ModelObserver* numbering;
    long beforeRegister, afterRegister, beforeUnregister, afterUnregister;
    std::vector<Heard> heard;
  };

  // Set while registered.
  ModelObserver* numbering = nullptr;
  SvrDMItemPtr item;
  std::vector<Heard> heard;
  std::vector<Span> spans;
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
  std::atomic<long> datasetRegistrations{0};
  std::atomic<long> reads{0};
  std::atomic<long> writes{0};
  std::atomic<long> edits{0};
  std::atomic<long> swaps{0};
  std::atomic<long> busy{0};  // try-writers that met a held lock: int 55
  std::atomic<long> failures{0};
};

// Random edits of a live dictionary, as a procedure under write access
// makes them. Identifiers come from a range of the thread's own, so no two
// threads ever make the same variable.
class DictionaryEditor {
 public:
  DictionaryEditor(std::mt19937& random, uint32_t idBase) : random_(random), nextSerial_(idBase) {}

  int Below(int n) { return n <= 0 ? 0 : static_cast<int>(random_() % static_cast<uint32_t>(n)); }

  QUOR_Variable NewVariable() {
    ++nextSerial_;
    return QUOR_Variable(LocallyUniqueID(0, nextSerial_), "v" + std::to_string(nextSerial_), Below(3));
  }

  void Edit(TrackedSource& source) {
    int const n = static_cast<int>(source.ColumnCount());
    switch (Below(14)) {
      case 0:
      case 1:
        source.InsertVariable(Below(n + 1), NewVariable());
        break;
      case 2:
        if (n > 0) {
          int first = Below(n);
          source.DeleteVariables(first, first + Below(std::min(2, n - first)));
        }
        break;
      case 3:
        if (n > 1) {
          int from = Below(n);
          QUOR_Variable moved = source.GetVariable(from);
          source.DeleteVariables(from, from);
          source.InsertVariable(Below(n), moved);
        }
        break;
      case 4:
        if (n > 0) source.GetVariable(Below(n)).SetName("r" + std::to_string(Below(100)));
        break;
      case 5:
        if (n > 0) source.GetVariable(Below(n)).SetType(Below(3));
        break;
      case 6:
        source.SetWeightVar(Below(4) == 0 ? -1 : Below(n));
        break;
      case 7:
        source.SetFilterVar(Below(4) == 0 ? -1 : Below(n));
        break;
      case 8: {
        int positions[3];
        int count = std::min(n, Below(3));
        for (int i = 0; i < count; ++i) positions[i] = Below(n);
        source.SetSplit(static_cast<unsigned>(count), positions, Below(2) == 0);
        break;
      }
      case 9:
        source.SetLabel(Below(3) == 0 ? nullptr : ("label " + std::to_string(Below(5))).c_str());
        break;
      case 10:
        source.RowsPerImputation(Below(3));
        source.GetTrendsInfo()->SetText("t" + std::to_string(Below(3)));
        break;
      case 11: {
        VariableSetImpl set;
        set.name = "set" + std::to_string(Below(3));
        if (n > 0) set.members.push_back(source.GetVariable(Below(n)).GetID());
        if (Below(2) == 0) {
          source.SetMRSets({set});
        } else {
          source.SetVariableSets({set});
        }
        break;
      }
      case 12: {
        DatasourceAttributes attributes;
        attributes.Set("k" + std::to_string(Below(3)), std::to_string(Below(3)));
        source.SetAttributes(attributes);
        source.SetExtension(QUOR_DataSource::Extension(0, "x" + std::to_string(Below(3))));
        break;
      }
      default:
        source.rows = Below(5);
        source.SetDirty(Below(2) == 0);
        break;
    }
  }

 private:
  std::mt19937& random_;
  uint32_t nextSerial_;
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
    std::vector<std::unique_ptr<PassRecorder>> recorders;
    for (int t = 0; t < gSettings.threads; ++t) {
      observers.emplace_back(new TransientObserver(permanent_));
      recorders.emplace_back(new PassRecorder);
    }
    long const each = gSettings.operations / gSettings.threads;

    std::vector<std::thread> workers;
    for (int t = 0; t < gSettings.threads; ++t) {
      workers.emplace_back([this, t, each, &observers, &recorders] {
        Work(t, each, *observers[static_cast<std::size_t>(t)], *recorders[static_cast<std::size_t>(t)]);
      });
    }
    Watchdog watchdog(tally_);
    for (std::thread& worker : workers) worker.join();
    watchdog.Finished();

    for (Mailbox& box : mail_) box.item = nullptr;
    for (auto& slot : slots_) slot = LocallyUniqueID::kNone;
    // Nobody holds an access now: every counter is back to 0.
    std::vector<SvrDMDataset> open = registry_.GetAllDatasets();
    for (SvrDMDataset const& dataset : open) {
      EXPECT_EQ(dataset.WritersCount(), 0) << "dataset " << dataset.GetDataSetID().ToWord();
      EXPECT_EQ(dataset.ReadersCount(), 0) << "dataset " << dataset.GetDataSetID().ToWord();
    }
    open.clear();
    registry_.Clear();

    CheckNotices(observers);
    CheckPasses(recorders);
    std::printf("[ soak      ] seed %u: %d threads, %ld operations: %ld reads, %ld writes (%ld edits, "
                "%ld source swaps), %ld try-writers met 55, %ld lookups (%ld of a dataset just gone), "
                "%ld handles passed between threads, %ld registry and %ld dataset observer registrations, "
                "%ld registry notices, %ld passes checked against the watcher model\n",
                gSettings.seed, gSettings.threads, tally_.operations.load(), tally_.reads.load(),
                tally_.writes.load(), tally_.edits.load(), tally_.swaps.load(), tally_.busy.load(),
                tally_.lookups.load(), tally_.misses.load(), tally_.handoffs.load(),
                tally_.registrations.load(), tally_.datasetRegistrations.load(), permanent_.sequence.load(),
                passesChecked_);
    EXPECT_EQ(tally_.failures.load(), 0) << "a worker saw a wrong dataset, handle or exception";
  }

 private:
  // Fails the run, with how far it got, when the workers have not finished
  // within the bound: a deadlock does not end a test by itself.
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

  typedef std::function<int(int)> Below;

  void Work(int thread, long operations, TransientObserver& observer, PassRecorder& recorder) {
    std::mt19937 random(gSettings.seed * 7919u + static_cast<uint32_t>(thread));
    Below below = [&random](int n) { return static_cast<int>(random() % static_cast<uint32_t>(n)); };
    DictionaryEditor editor(random, static_cast<uint32_t>(thread + 1) << 22);
    bool registered = false;

    for (long op = 0; op < operations; ++op) {
      std::size_t const slot = static_cast<std::size_t>(below(gSettings.datasets));
      std::size_t const box = static_cast<std::size_t>(below(gSettings.datasets));
      int const choice = below(100);
      if (choice < 8) {
        AddNew(slot, below, editor);
      } else if (choice < 12) {
        ReplaceUnderIdentifier(slot, below, editor);
      } else if (choice < 16) {
        LocallyUniqueID old = LocallyUniqueID::FromWord(slots_[slot].exchange(LocallyUniqueID::kNone));
        if (!old.IsNone()) registry_.Delete(old);
      } else if (choice < 30) {
        Lookup(slot, box);
      } else if (choice < 40) {
        PickUpHandle(box);
      } else if (choice < 43) {
        // Every item's handle is empty: the first one in the table answers.
        SvrDMItemPtr first = registry_.GetDataSet(std::string());
        if (first.IsValid() && !first->handle.empty()) ++tally_.failures;
      } else if (choice < 45) {
        // Handles of every open dataset, copied out under the registry lock.
        for (SvrDMDataset const& dataset : registry_.GetAllDatasets()) {
          if (dataset.GetDataSetID().IsNone()) ++tally_.failures;
        }
      } else if (choice < 48) {
        Toggle(observer, registered);
      } else if (choice < 52) {
        ToggleRecorder(recorder, slot);
      } else if (choice < 68) {
        Read(slot, box);
      } else if (choice < 90) {
        Write(slot, below, editor, false);
      } else {
        Write(slot, below, editor, true);
      }
      ++tally_.operations;
    }
    if (registered) Toggle(observer, registered);
    if (recorder.item.IsValid()) ToggleRecorder(recorder, 0);
  }

  TrackedSource* NewChain(Below const& below, DictionaryEditor& editor) {
    TrackedSource* head = TrackedSource::Chain(1 + below(3), 0);
    for (int i = below(6); i > 0; --i) head->MakeVariable(editor.NewVariable(), nullptr);
    head->rows = below(5);
    return head;
  }

  std::string const& SomeFile(Below const& below) {
    static std::string const none;
    return below(4) == 0 ? files_[static_cast<std::size_t>(below(4))] : none;
  }

  // Gives a new item its watcher before anything else can reach it, under
  // its write lock, so that no pass can be under way meanwhile; that first
  // access's own pass then tells the watcher the whole dictionary.
  void Adopt(SvrDMItemPtr item) {
    auto* model = new ModelObserver;
    SvrDMWriteableDataSource writer(item, false, nullptr);
    item->Register(*model);
    // Findable by pass recorders only now, so the watcher stays first in the
    // dataset's list of observers and numbers each pass before they hear it.
    std::lock_guard<std::mutex> lock(modelsMutex_);
    models_.emplace_back(model);
    modelOf_[{item.get(), item->caseSequence}] = model;
  }

  ModelObserver* ModelOf(SvrDMItemPtr const& item) {
    std::lock_guard<std::mutex> lock(modelsMutex_);
    auto found = modelOf_.find({item.get(), item->caseSequence});
    return found == modelOf_.end() ? nullptr : found->second;
  }

  void AddNew(std::size_t slot, Below const& below, DictionaryEditor& editor) {
    bool const silent = below(5) == 0;
    LocallyUniqueID id;
    int const way = below(3);
    if (way == 0) {
      id = registry_.AddEmpty(silent);
    } else if (way == 1) {
      id = registry_.Add(*NewChain(below, editor), SomeFile(below), silent);
    } else {
      id = registry_.Add(*NewChain(below, editor), SomeFile(below), "password", false, silent);
    }
    CountAdd(silent, way != 0);
    // Not yet in a slot: no other thread knows the identifier.
    Adopt(registry_.GetDataSet(id));
    LocallyUniqueID old = LocallyUniqueID::FromWord(slots_[slot].exchange(id.ToWord()));
    if (!old.IsNone()) registry_.Delete(old);
  }

  // Takes the dataset out of its slot and puts a new one in its place under
  // the same identifier. Threads that read the slot before may still find
  // the new dataset before it has its watcher; its case sequence, unique to
  // it, keeps them from taking it for an older item at the same address.
  void ReplaceUnderIdentifier(std::size_t slot, Below const& below, DictionaryEditor& editor) {
    LocallyUniqueID id = LocallyUniqueID::FromWord(slots_[slot].exchange(LocallyUniqueID::kNone));
    if (id.IsNone()) return;
    bool const silent = below(5) == 0;
    unsigned int const token = static_cast<unsigned int>(++replacements_);
    registry_.Add(*NewChain(below, editor), SomeFile(below), silent, id, token);
    CountAdd(silent, true);
    try {
      SvrDMItemPtr item = registry_.GetDataSet(id);
      if (item->caseSequence == token) Adopt(item);
    } catch (ErrorMsg const&) {
      return;  // a thread that read the slot before deleted it already
    }
    LocallyUniqueID old = LocallyUniqueID::FromWord(slots_[slot].exchange(id.ToWord()));
    if (!old.IsNone() && old != id) registry_.Delete(old);
  }

  void CountAdd(bool silent, bool withSource) {
    if (silent) return;
    ++tally_.announcedAdds;
    if (withSource) ++tally_.announcedAddsWithSource;
  }

  // The dataset of `slot`, or of the box when the slot is empty; null when
  // neither has one.
  SvrDMItemPtr Find(std::size_t slot, std::size_t box) {
    LocallyUniqueID id = LocallyUniqueID::FromWord(slots_[slot].load());
    if (!id.IsNone()) {
      try {
        return registry_.GetDataSet(id);
      } catch (ErrorMsg const& error) {
        if (error.GetCode() != 2001) ++tally_.failures;
      }
    }
    std::lock_guard<std::mutex> lock(mail_[box].mutex);
    return mail_[box].item;
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

  // A read access: the dictionary holds still while it is held.
  void Read(std::size_t slot, std::size_t box) {
    SvrDMItemPtr item = Find(slot, box);
    if (!item.IsValid()) return;
    SvrDMInputDataSource reader(item, false);
    ++tally_.reads;
    QUOR_DataSource* source = reader.operator->();
    if (source == nullptr) return;
    unsigned int const columns = source->ColumnCount();
    std::map<uint32_t, int> ids;
    for (unsigned int i = 0; i < columns; ++i) ++ids[source->GetVariable(static_cast<int>(i)).GetID().ToWord()];
    std::this_thread::yield();
    if (source->ColumnCount() != columns || ids.size() != columns) ++tally_.failures;
  }

  // A write access that edits the dictionary at random, now and then swaps
  // the data source or passes its changes on half way; its end delivers.
  void Write(std::size_t slot, Below const& below, DictionaryEditor& editor, bool tryOnly) {
    SvrDMItemPtr item = Find(slot, static_cast<std::size_t>(below(gSettings.datasets)));
    if (!item.IsValid()) return;
    try {
      SvrDMWriteableDataSource writer(item, tryOnly, nullptr);
      ++tally_.writes;
      // An announced dataset without a source is due its creation notice
      // from the first pass that has something to deliver once it has one.
      bool const creationDue = item->announce && !item->createNotified;
      auto* live = dynamic_cast<TrackedSource*>(writer.GetDataSource());
      int const what = below(20);
      if (live == nullptr || what == 0) {
        // A dataset that gets its first source while announced is due its
        // creation notice, which this access's end sends.
        TrackedSource* chain = NewChain(below, editor);
        writer.SetDataSet(chain);
        ++tally_.swaps;
        live = dynamic_cast<TrackedSource*>(writer.GetDataSource());
      } else if (what == 1) {
        writer.BulkVarMoves();
      } else if (what == 2) {
        writer.Notify();
      }
      for (int edits = below(5); edits > 0; --edits) {
        editor.Edit(*live);
        ++tally_.edits;
      }
      if (creationDue) {
        // Delivered here, under the lock, to see whether the notice went.
        writer.Notify();
        if (item->createNotified) ++tally_.announcedAddsWithSource;
      }
    } catch (int code) {
      if (code == 55 && tryOnly) {
        ++tally_.busy;
      } else {
        ++tally_.failures;
      }
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

  // Registers the thread's pass recorder on the dataset of `slot`, or
  // removes it from the one it is on.
  void ToggleRecorder(PassRecorder& recorder, std::size_t slot) {
    if (!recorder.item.IsValid()) {
      SvrDMItemPtr item = Find(slot, slot);
      ModelObserver* numbering = item.IsValid() ? ModelOf(item) : nullptr;
      if (numbering == nullptr) return;  // not adopted yet
      PassRecorder::Span span{};
      span.numbering = numbering;
      recorder.numbering = numbering;
      recorder.item = item;
      span.beforeRegister = numbering->passes.load(std::memory_order_acquire);
      item->Register(recorder);
      span.afterRegister = numbering->passes.load(std::memory_order_acquire);
      recorder.spans.push_back(span);
      ++tally_.datasetRegistrations;
    } else {
      PassRecorder::Span& span = recorder.spans.back();
      span.beforeUnregister = recorder.numbering->passes.load(std::memory_order_acquire);
      recorder.item->Unregister(recorder);
      span.afterUnregister = recorder.numbering->passes.load(std::memory_order_acquire);
      // Unregister took the observer lock: every record is ours to read.
      span.heard.swap(recorder.heard);
      recorder.item = nullptr;
      recorder.numbering = nullptr;
    }
  }

  // Every registration of every thread's observer heard each notice of its
  // span once, with the right dataset and kind, and nothing outside it.
  void CheckNotices(std::vector<std::unique_ptr<TransientObserver>> const& observers) {
    // Every announced dataset is announced gone once, and announced created
    // once if it ever had a source and something to deliver with it.
    EXPECT_EQ(permanent_.created, tally_.announcedAddsWithSource.load());
    EXPECT_EQ(permanent_.deleted, tally_.announcedAdds.load());
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
    EXPECT_GT(checked, 0) << "no registry observer but the first heard anything";
  }

  // Every watcher's model equalled the live dictionary after every pass, and
  // every registration of a pass recorder heard each pass of its span once,
  // with the queue the watcher heard.
  void CheckPasses(std::vector<std::unique_ptr<PassRecorder>> const& recorders) {
    for (auto const& model : models_) {
      passesChecked_ += static_cast<long>(model->sizes.size());
      EXPECT_EQ(model->mismatches, 0) << model->firstError;
    }
    EXPECT_GT(passesChecked_, 0);
    long heardTotal = 0;
    for (auto const& recorder : recorders) {
      for (PassRecorder::Span const& span : recorder->spans) {
        std::size_t next = 0;
        for (long n = span.beforeRegister + 1; n <= span.afterUnregister; ++n) {
          bool heard = next < span.heard.size() && span.heard[next].pass == n;
          bool due = n > span.afterRegister && n <= span.beforeUnregister;
          if (due && !heard) {
            ADD_FAILURE() << "pass " << n << " missed by a dataset observer registered for it";
            return;
          }
          if (!heard) continue;
          if (span.heard[next].size != span.numbering->sizes[static_cast<std::size_t>(n - 1)]) {
            ADD_FAILURE() << "pass " << n << " delivered different queues to two observers";
            return;
          }
          ++next;
          ++heardTotal;
        }
        if (next != span.heard.size()) {
          ADD_FAILURE() << "a dataset observer heard a pass twice or outside its registration";
          return;
        }
      }
    }
    EXPECT_GT(heardTotal, 0) << "no dataset observer but the watchers heard anything";
  }

  ScratchDir dir_;
  std::vector<std::string> files_;
  // Watchers outlive every item: declared before the registry, they go after it.
  std::mutex modelsMutex_;
  std::deque<std::unique_ptr<ModelObserver>> models_;
  std::map<std::pair<SvrDMItem const*, uint32_t>, ModelObserver*> modelOf_;
  ServerDataManager registry_;
  PermanentObserver permanent_;
  std::vector<std::atomic<uint32_t>> slots_;
  std::vector<Mailbox> mail_;
  std::atomic<long> replacements_{0};
  Tally tally_;
  long passesChecked_ = 0;
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
