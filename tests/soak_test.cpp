// Eight threads on one registry of sixteen dataset slots: every way of
// adding, replacing under an identifier and deleting, reads, writes editing
// at random or swapping the source, try-writers that meet 55. Every dataset
// observer keeps a client copy that must equal the live dictionary at every
// pass. Run it under the thread sanitizer. By hand, longer:
//   SDM_SOAK_SEED=7 SDM_SOAK_OPS=5000000 sdm_soak_tests
#include <deque>
#include <mutex>
#include <random>
#include <thread>

#include <gtest/gtest.h>

#include "ServerDataManager.h"
#include "support/tracked_source.h"

namespace {

long FromEnvironment(char const* name, long otherwise) {
  char const* value = std::getenv(name);
  return value != nullptr ? std::strtol(value, nullptr, 10) : otherwise;
}

// A dataset's client: a pass missed or heard twice shows at the next one.
struct Watcher : SvrDMDataSetObserver {
  void DataSetChanged(SvrDMWriteableDataSource const* writer) override {
    DataFreeDataSource none;  // what a dataset without a source reads as
    QUOR_DataSource* live = writer->GetDataSource();
    std::string why = copy.Apply(writer->GetNotifications());
    if (why.empty()) why = copy.Differences(live ? *live : none, false);
    if (!why.empty() && mismatches++ == 0) error = why;
  }
  SvrDMClientCopy copy;
  std::string error;
  long mismatches = 0;
};

// A thread's own random numbers and variable serials.
struct Worker {
  int Below(int n) { return static_cast<int>(random() % static_cast<uint32_t>(n)); }
  TrackedSource* Chain() { return TrackedSource::Chain(1 + Below(3), Below(5), (serial += 8) - 8); }
  std::mt19937 random;
  uint32_t serial = 0;
};

class Soak : public ::testing::Test {
 protected:
  void Step(Worker& w, std::atomic<uint32_t>& slot, int choice) {
    LocallyUniqueID id = LocallyUniqueID::FromWord(slot);
    if (choice < 14) {  // a new dataset in the slot, in one of four ways; the one displaced goes
      int const way = w.Below(4);  // the fourth replaces the slot's under its identifier
      bool const silent = w.Below(5) == 0;
      if (way == 3 && (id = LocallyUniqueID::FromWord(slot.exchange(id.kNone))).IsNone()) return;
      if (way == 0) id = registry_.AddEmpty(silent);
      if (way == 1) id = registry_.Add(*w.Chain(), "", silent);
      if (way == 2) id = registry_.Add(*w.Chain(), "", "password", false, silent);
      if (way == 3) registry_.Add(*w.Chain(), "", silent, id, 0);
      // Its client, before any pass can run: that access's pass tells it everything.
      SvrDMWriteableDataSource(registry_, id, false, nullptr).Register(*NewWatcher());
      registry_.Delete(LocallyUniqueID::FromWord(slot.exchange(id.ToWord())));
    } else if (choice < 18) {
      registry_.Delete(LocallyUniqueID::FromWord(slot.exchange(LocallyUniqueID::kNone)));
    } else if (id.IsNone()) {
    } else if (choice < 50) {  // a reader holds and is counted
      EXPECT_GE(SvrDMInputDataSource(registry_, id, false).ReadersCount(), 1);
    } else {
      SvrDMWriteableDataSource writer(registry_, id, choice >= 90, nullptr);
      EXPECT_GE(writer.WritersCount(), 1);
      auto* live = dynamic_cast<TrackedSource*>(writer.GetDataSource());
      if (live == nullptr || w.Below(20) == 0) writer.SetDataSet(live = w.Chain());
      if (w.Below(20) == 0) writer.BulkVarMoves();
      for (int edits = w.Below(5); edits > 0; --edits) {
        int const n = static_cast<int>(live->ColumnCount()), at = w.Below(n + 1), kind = w.Below(5);
        if (kind == 0) live->InsertVariable(at, QUOR_Variable({0, ++w.serial}, "n"));
        if (kind == 1 && at < n) live->DeleteVariables(at, at);
        if (kind == 2 && at < n) live->GetVariable(at).SetName(std::to_string(w.Below(9)));
        if (kind == 3) live->SetWeightVar(at < n ? at : -1);
        if (kind == 4) live->rows = w.Below(5);
      }
    }
  }

  Watcher* NewWatcher() {
    std::lock_guard<std::mutex> lock(watchersMutex_);
    return watchers_.emplace_back(new Watcher).get();
  }

  std::mutex watchersMutex_;
  std::deque<std::unique_ptr<Watcher>> watchers_;  // outlive every item
  ServerDataManager registry_;
  std::atomic<uint32_t> slots_[16];
  std::atomic<long> busy_{0};
};

TEST_F(Soak, ManyThreadsOnOneRegistryLoseNothing) {
  long const sources = TrackedSource::live, messages = VUGlobal::LiveBlocks();
  uint32_t const seed = static_cast<uint32_t>(FromEnvironment("SDM_SOAK_SEED", 1));
  long const operations = FromEnvironment("SDM_SOAK_OPS", 400000) / 8;
  for (auto& slot : slots_) slot = LocallyUniqueID::kNone;
  std::deque<Worker> workers(8);
  std::vector<std::thread> threads;
  for (Worker& w : workers) {
    w.serial = static_cast<uint32_t>(threads.size() + 1) << 22;
    w.random.seed(seed * 7919u + w.serial);
    threads.emplace_back([&] {
      for (long op = 0; op < operations; ++op) {
        int const choice = w.Below(100);
        try {
          Step(w, slots_[w.Below(16)], choice);
        } catch (ErrorMsg const& error) {
          EXPECT_EQ(error.GetCode(), 2001u);  // deleted since the slot was read
        } catch (int code) {
          EXPECT_TRUE(code == 55 && choice >= 90);
          ++busy_;
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (SvrDMDataset const& open : registry_.GetAllDatasets()) {
    EXPECT_EQ(open.WritersCount() + open.ReadersCount(), 0) << "an access counter is not 0";
  }
  for (auto const& watcher : watchers_) EXPECT_EQ(watcher->mismatches, 0) << watcher->error;
  EXPECT_GT(busy_, 0) << "no try-writer met a held lock";
  registry_.Clear();
  EXPECT_EQ(TrackedSource::live, sources) << "data sources left over";
  EXPECT_EQ(TrackedSource::destroyedTwice, 0);
  EXPECT_EQ(VUGlobal::LiveBlocks(), messages) << "message blocks left over";
}

}  // namespace
