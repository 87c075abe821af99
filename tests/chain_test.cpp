#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ServerDataManager.h"
#include "support/counting_source.h"
#include "support/scratchdir.h"
#include "support/watcher_model.h"

namespace {

using Names = std::vector<std::string>;

constexpr int64_t kBase = 1600000000;

// One SetDataSet on an item with a real file. `next` names the new head: ""
// none, "A".."C" a member of the old chain A -> B -> C (head first), "N" a
// new source over A, "X" the head of a new chain X -> Y.
struct ChainCase {
  bool startEmpty;  // the item has no source, and holds no file, before
  char const* next;
  Names deletedBySet;
  bool resetUndo;
  bool held;
  Names deletedInAll;  // once the item is gone too
};

TEST(DataSetChainTest, SetDataSetDeletesExactlyTheSourcesLeftOverHeadFirst) {
  std::vector<ChainCase> const cases = {
      {true, "", {}, false, false, {}},
      {true, "X", {}, false, true, {"X", "Y"}},
      {false, "A", {}, true, true, {"A", "B", "C"}},
      {false, "B", {"A"}, true, true, {"A", "B", "C"}},
      {false, "C", {"A", "B"}, true, true, {"A", "B", "C"}},
      {false, "N", {}, true, true, {"N", "A", "B", "C"}},
      {false, "X", {"A", "B", "C"}, true, true, {"A", "B", "C", "X", "Y"}},
      {false, "", {"A", "B", "C"}, true, false, {"A", "B", "C"}},
  };
  ScratchDir scratch;
  std::string const file = scratch.Write("data.csv", "x\n1\n");
  int const descriptors = CountOpenDescriptors();
  for (ChainCase const& c : cases) {
    SCOPED_TRACE(std::string(c.startEmpty ? "empty" : "A") + " -> " + c.next);
    SetModificationTime(file, kBase);
    Names log;
    QUOR_DataSource* a = c.startEmpty ? nullptr : CountingSource::Chain(&log, {"A", "B", "C"});
    SvrDMItemPtr item(
        new SvrDMItem(LocallyUniqueID(0, 1), a, nullptr, 0, c.startEmpty ? "" : file, true));
    item->fileName = file;
    std::string const next = c.next;
    QUOR_DataSource* b = a == nullptr ? nullptr : a->GetParentSource();
    QUOR_DataSource* head = next == "A"   ? a
                            : next == "B" ? b
                            : next == "C" ? b->GetParentSource()
                                          : nullptr;
    if (next == "N") {
      head = new CountingSource(&log, "N");
      head->SetParentSource(a);
    }
    if (next == "X") head = CountingSource::Chain(&log, {"X", "Y"});

    SetModificationTime(file, kBase + 1);
    item->SetDataSet(head);
    EXPECT_EQ(log, c.deletedBySet);
    EXPECT_EQ(item->dataSource, head);
    EXPECT_EQ(DescribeQueue(item->notifications), c.resetUndo ? Names{"ResetUndo"} : Names{});
    // A source after the call means the file was opened afresh, new base and all.
    EXPECT_EQ(item->lockedFile != nullptr, c.held);
    EXPECT_EQ(item->lockedFileTime, c.held ? kBase + 1 : 0);
    item = nullptr;
    EXPECT_EQ(log, c.deletedInAll);
  }
  EXPECT_EQ(CountOpenDescriptors(), descriptors);
}

// Watchers learn of the new source through a write access: ResetUndo first,
// then the differences to the new dictionary.
class QueueObserver : public SvrDMDataSetObserver {
 public:
  void DataSetChanged(SvrDMWriteableDataSource const* source) override {
    passes.push_back(DescribeQueue(source->GetNotifications()));
  }
  std::vector<Names> passes;
};

TEST(DataSetChainTest, WriteAccessSetsTheSourceAndWatchersHearResetUndoFirst) {
  ServerDataManager registry;
  Names log;
  LocallyUniqueID id = registry.Add(*CountingSource::Chain(&log, {"head", "root"}), "", true);
  QueueObserver observer;
  SvrDMDataset(registry, id).Register(observer);
  {
    SvrDMWriteableDataSource access(registry, id, false, nullptr);
    auto* replacement = new SystemFileDataSource();
    replacement->InsertVariable(0, QUOR_Variable(LocallyUniqueID(0, 1), "A"));
    access.SetDataSet(replacement);
    EXPECT_EQ(access.GetDataSource(), replacement);
    EXPECT_EQ(&*access, replacement);
    EXPECT_EQ(log, (Names{"head", "root"}));
  }
  EXPECT_EQ(observer.passes,
            (std::vector<Names>{{"ResetUndo", "Insert [A] before none", "ResetClient 0"}}));
  SvrDMDataset(registry, id).Unregister(observer);
}

}  // namespace
