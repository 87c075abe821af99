// Fails every allocation of the end of a write access that changes
// everything in turn (k = 1, 2, ... until a run fails nothing), once with
// only the k-th failing and once with every one from the k-th on, on both
// paths of the variable stage; a watcher must lose nothing, and nothing may
// be left over. Also: a message the queue cannot take, what the snapshot
// and an Update hold, and hostile bootstrap forms.
#include <dirent.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <new>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "ServerDataManager.h"
#include "support/failing_new.h"
#include "support/scratchdir.h"
#include "support/tracked_source.h"

namespace {

// Written once: a run must leave no block behind, a growing list included.
std::string const& File() {
  static ScratchDir dir;
  static std::string const file = dir.Write("data-file-with-a-long-name.csv", "a\n1\n");
  return file;
}

// A client of the dataset: applies every queue it is shown to its copy,
// with allocation failures held off, since the copy is the client's and
// not the library's.
struct Watcher : SvrDMDataSetObserver {
  void DataSetChanged(SvrDMWriteableDataSource const* access) override {
    failing_new::Pause pause;
    ++count;
    EXPECT_EQ(client.Apply(access->GetNotifications()), "");
  }
  int count = 0;
  SvrDMClientCopy client;
};
// One run's state: a registry, the edited dataset and its open write access.
struct World {
  ~World() {
    delete writer;
    item = nullptr;
    registry.Clear();
  }
  Watcher watcher;
  ServerDataManager registry;
  TrackedSource* source = nullptr;
  SvrDMItemPtr item;
  SvrDMWriteableDataSource* writer = nullptr;  // ended by delete: its end may throw
};

// Eight variables over a data-file root, so a new file path is announced.
TrackedSource* StartingSource() {
  TrackedSource* source = new TrackedSource(8, 1);
  source->SetParentSource(new SystemFileDataSource());
  source->rows = 3;
  return source;
}

void EditEveryWay(TrackedSource& s) {
  s.DeleteVariables(1, 1);
  s.InsertVariable(0, QUOR_Variable(LocallyUniqueID(0, 20), "fresh"));
  QUOR_Variable moved = s.GetVariable(5);
  s.DeleteVariables(5, 5);
  s.InsertVariable(2, moved);
  s.GetVariable(3).SetName("renamed");
  s.GetVariable(4).SetType(8);
  s.SetWeightVar(0);
  s.SetFilterVar(2);
  int const split[] = {1, 3};
  s.SetSplit(2, split, true);
  s.SetLabel("a dataset label");
  s.SetFileSpec(File().c_str());
  s.RowsPerImputation(2);
  s.GetTrendsInfo()->SetText("trends");
  VariableSetImpl set;
  set.members = {s.GetVariable(0).GetID()};
  s.SetMRSets({set});
  s.SetVariableSets({set, set});
  DatasourceAttributes attributes;
  attributes.Set("key", "value");
  s.SetAttributes(attributes);
  s.SetExtension(QUOR_DataSource::Extension(0, "payload"));
  s.rows = 5;
}

// A dataset whose snapshot is settled and known to the watcher, then edited
// in every way, with a write access open on it.
void Edited(World& w, bool bulk) {
  w.source = StartingSource();
  w.item = w.registry.GetDataSet(w.registry.Add(*w.source, "", true));
  w.item->Register(w.watcher);
  { SvrDMWriteableDataSource settle(w.item, false, nullptr); }
  EditEveryWay(*w.source);
  w.writer = new SvrDMWriteableDataSource(w.item, false, nullptr);
  if (bulk) w.writer->BulkVarMoves();
}

// However the end failed, the lock and the counters are let go, and a
// watcher that applies every queue it is shown holds the live dictionary
// after the next write access: a failed pass's messages wait in the queue
// and describe exactly what it did to the snapshot. One more access is quiet.
void CheckEnd(World& w, bool threw) {
  EXPECT_EQ(w.item->writersCount + w.item->readersCount, 0);
  std::thread([&] { EXPECT_TRUE(SvrDMInputDataSource(w.item, true).HasDataSource()); }).join();
  EXPECT_EQ(w.watcher.count, threw ? 1 : 2);
  if (threw) {
    SvrDMWriteableDataSource next(w.item, false, nullptr);
  }
  EXPECT_EQ(w.watcher.client.Differences(*w.source), "");
  int const passes = w.watcher.count;
  { SvrDMWriteableDataSource quiet(w.item, false, nullptr); }
  EXPECT_EQ(w.watcher.count, passes) << "a quiet access was shown messages";
  w.item->Unregister(w.watcher);
}

// One run of the end of a write access on the given path with the k-th
// allocation failing (0: none); returns how many failed.
long RunOnce(bool bulk, long k, bool persistent) {
  long const sources = TrackedSource::live, messages = VUGlobal::LiveBlocks();
  long const blocks = failing_new::LiveBlocks();
  int const descriptors = CountOpenDescriptors();
  long failed = 0;
  {
    World w;
    Edited(w, bulk);
    failing_new::Arm(k, persistent);
    bool threw = false;
    try {
      delete std::exchange(w.writer, nullptr);
    } catch (std::bad_alloc const&) {
      threw = true;
    }
    failing_new::Disarm();
    failed = failing_new::Failed();
    EXPECT_TRUE(!threw || failed > 0);
    CheckEnd(w, threw);
  }
  EXPECT_EQ(TrackedSource::live, sources) << "data sources left over";
  EXPECT_EQ(TrackedSource::destroyedTwice, 0);
  EXPECT_EQ(VUGlobal::LiveBlocks(), messages) << "message blocks left over";
  EXPECT_EQ(CountOpenDescriptors(), descriptors) << "files left open";
  // Not after the first run, which builds what the libraries build once.
  if (k > 0 && !::testing::Test::HasFailure()) {
    EXPECT_EQ(failing_new::LiveBlocks(), blocks) << "blocks left over";
  }
  return failed;
}

class AllocationFailure : public ::testing::TestWithParam<bool> {};  // on the bulk path

TEST_P(AllocationFailure, EndOfAWriteAccessChangingEverythingLosesNoWatcher) {
  for (bool persistent : {false, true}) {
    long k = 0;
    RunOnce(GetParam(), 0, persistent);
    while (!HasFailure() && ++k < 20000) {
      SCOPED_TRACE("allocation " + std::to_string(k) + (persistent ? " and later ones" : "") +
                   " failing");
      if (RunOnce(GetParam(), k, persistent) == 0) break;
    }
    std::printf("[ injection ] %-11s %-10s %3ld points\n", GetParam() ? "bulk" : "incremental",
                persistent ? "persistent" : "transient", k - 1);
  }
}

INSTANTIATE_TEST_SUITE_P(Paths, AllocationFailure, ::testing::Bool());

// A message that cannot be queued is deleted, not left to leak, and the
// failure passes to the caller.
TEST(QueueTest, AMessageTheQueueCannotTakeIsDeleted) {
  SvrDMItemPtr item(new SvrDMItem(LocallyUniqueID(), nullptr, nullptr, 0, "", true));
  long const blocks = VUGlobal::LiveBlocks();
  DataSetMsg* message = new ResetUndoMsg();
  failing_new::Arm(1, false);
  EXPECT_THROW(item->QueueNotification(message), std::bad_alloc);
  failing_new::Disarm();
  EXPECT_EQ(VUGlobal::LiveBlocks(), blocks);
  EXPECT_TRUE(item->notifications.empty());
}

// What the snapshot costs in memory and what an Update allocates, counted
// through the same replaced operator new, over a dictionary of 10,000
// variables with every dataset property but the set lists set, so that a
// no-difference Update walks the property stages with something to compare.
TEST(SnapshotMemoryTest, SnapshotSharesDefinitionsAndUpdateKeepsOnlyItsMessages) {
  constexpr int n = 10000;
  auto* source = new TrackedSource(n, 100);  // owned by the item
  EditEveryWay(*source);
  // Set lists come out of a source by value, so comparing them copies them.
  source->SetMRSets({}), source->SetVariableSets({});
  SvrDMItemPtr item(new SvrDMItem(LocallyUniqueID(0, 1), source, nullptr, 0, "", true));
  item->notifications.reserve(n + 16);  // the queue's growth is not Update's

  // One Update: the allocations it made, and the bytes it still holds once
  // its messages, which carry their own handles, are gone.
  auto update = [&item] {
    failing_new::Arm(0, false);
    item->observerView.Update();
    long const calls = failing_new::Counted();
    item->ClearNotifications();
    std::pair<long, long> const counted(calls, failing_new::HeldBytes());
    failing_new::Disarm();
    return counted;
  };
  // The first fills the snapshot: shared definitions, where a copied one
  // alone would be several times the bound.
  EXPECT_LE(update().second, 24L * n);
  for (int i = 0; i < n; ++i) {
    ASSERT_EQ(item->observerView.Snapshot().GetVariable(i).Definition(),
              source->GetVariable(i).Definition());
  }
  EXPECT_EQ(update().first, 0) << "an Update finding nothing allocated";

  // A full reversal plans over an index, counts and a permutation of its
  // own: all gone when it returns (and the count above is live).
  std::vector<QUOR_Variable> reversed;
  for (int i = n - 1; i >= 0; --i) reversed.push_back(source->GetVariable(i));
  source->DeleteVariables(0, n - 1);
  for (QUOR_Variable const& variable : reversed) source->MakeVariable(variable, nullptr);
  std::pair<long, long> const counted = update();
  EXPECT_GE(counted.first, n - 1);  // a message a move, at the least
  EXPECT_EQ(counted.second, 0) << "bytes kept beyond the messages";
}

// Every cut of every bootstrap seed, and every seed with any four bytes
// turned into a count promising far or just too much in either byte order,
// is read without an allocation beyond a bound of the form's size.
TEST(BootstrapSweep, NoFormAllocatesBeyondItsSize) {
  long reads = 0;
  auto read = [&reads](std::string const& form) {
    SvrBootstrapSpecs specs;
    failing_new::Arm(0, false);
    SvrBootstrapSpecsSerializer::deserializeSpecs(form, specs);
    failing_new::Disarm();
    ++reads;
    EXPECT_LE(failing_new::LargestRequest(), 2 * form.size() + 256) << "for " << form.size();
  };
  DIR* listing = opendir(SDM_BOOTSTRAP_CORPUS_DIR);
  ASSERT_NE(listing, nullptr);
  while (dirent const* entry = readdir(listing)) {
    if (entry->d_name[0] == '.') continue;
    std::ifstream in(std::string(SDM_BOOTSTRAP_CORPUS_DIR) + "/" + entry->d_name);
    std::string const form{std::istreambuf_iterator<char>(in), {}};
    for (std::size_t length = 0; length <= form.size(); ++length) read(form.substr(0, length));
    for (std::size_t at = 0; at + 4 <= form.size(); ++at) {
      for (uint32_t value : {0xFFFFFFFFu, 0x80000000u, 0x80u, uint32_t(form.size() - at) / 4}) {
        std::string altered = form;
        for (int i = 0; i < 4; ++i) altered[at + i] = static_cast<char>(value >> 8 * i);
        read(altered);
        std::reverse(altered.begin() + static_cast<long>(at),
                     altered.begin() + static_cast<long>(at) + 4);
        read(altered);
      }
    }
  }
  closedir(listing);
  std::printf("[ sweep     ] %ld reads of cut and altered seeds\n", reads);
}

}  // namespace
