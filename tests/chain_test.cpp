#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "ServerDataManager.h"
#include "support/queues.h"
#include "support/scratchdir.h"
#include "support/tracked_source.h"

namespace {

using Names = std::vector<std::string>;

TEST(DataSetChainTest, SetDataSetDeletesExactlyTheSourcesLeftOverHeadFirst) {
  // Whether the item starts with the chain A -> B -> C (head first) or with
  // no source; the new head: "" none, "A".."C" a member of the old chain,
  // "N" a new source over A, "X" the head of a new chain X -> Y; what the
  // call deletes; and what is deleted once the item is gone too.
  std::vector<std::tuple<bool, std::string, Names, Names>> const cases = {
      {false, "", {}, {}},
      {false, "X", {}, {"X", "Y"}},
      {true, "A", {}, {"A", "B", "C"}},
      {true, "B", {"A"}, {"A", "B", "C"}},
      {true, "C", {"A", "B"}, {"A", "B", "C"}},
      {true, "N", {}, {"N", "A", "B", "C"}},
      {true, "X", {"A", "B", "C"}, {"A", "B", "C", "X", "Y"}},
      {true, "", {"A", "B", "C"}, {"A", "B", "C"}},
  };
  ScratchDir scratch;
  std::string const file = scratch.Write("data.csv", "x\n1\n");
  int const descriptors = CountOpenDescriptors();
  for (auto const& [withChain, next, deletedBySet, deletedInAll] : cases) {
    SCOPED_TRACE(std::string(withChain ? "A" : "none") + " -> " + next);
    SetModificationTime(file, 1000);
    Names log;
    QUOR_DataSource* a = withChain ? TrackedSource::Chain(&log, {"A", "B", "C"}) : nullptr;
    SvrDMItemPtr item(new SvrDMItem(LocallyUniqueID(0, 1), a, nullptr, 0, a ? file : "", true));
    item->fileName = file;  // an empty dataset holds no file until it has a source
    QUOR_DataSource* b = a ? a->GetParentSource() : nullptr;
    QUOR_DataSource* head = next == "A"   ? a
                            : next == "B" ? b
                            : next == "C" ? b->GetParentSource()
                                          : nullptr;
    if (next == "N") (head = TrackedSource::Chain(&log, {"N"}))->SetParentSource(a);
    if (next == "X") head = TrackedSource::Chain(&log, {"X", "Y"});

    SetModificationTime(file, 1001);
    item->SetDataSet(head);
    EXPECT_EQ(log, deletedBySet);
    EXPECT_EQ(DescribeQueue(item->notifications), withChain ? Names{"ResetUndoMsg"} : Names{});
    // With a source the file is held afresh, the new time its base.
    EXPECT_EQ(item->lockedFileTime, head ? 1001 : 0);
    item = nullptr;
    EXPECT_EQ(log, deletedInAll);
  }
  EXPECT_EQ(CountOpenDescriptors(), descriptors);
}

// Watchers of a write access that replaces the source hear ResetUndo
// before the differences the new source brings.
TEST(DataSetChainTest, WriteAccessReplacesTheSourceAndResetUndoComesFirst) {
  struct Watcher : SvrDMDataSetObserver {
    void DataSetChanged(SvrDMWriteableDataSource const* access) override {
      last = DescribeQueue(access->GetNotifications());
    }
    Names last;
  } watcher;
  ServerDataManager registry;
  Names log;
  LocallyUniqueID id = registry.Add(*TrackedSource::Chain(&log, {"head", "root"}), "", true);
  SvrDMDataset(registry, id).Register(watcher);
  {
    SvrDMWriteableDataSource access(registry, id, false, nullptr);
    auto* replacement = new SystemFileDataSource();
    replacement->InsertVariable(0, QUOR_Variable(LocallyUniqueID(0, 1), "A"));
    access.SetDataSet(replacement);
    EXPECT_EQ(&*access, replacement);
    EXPECT_EQ(log, (Names{"head", "root"}));
  }
  EXPECT_EQ(watcher.last, (Names{"ResetUndoMsg", "InsertVarsMsg", "ResetClientDataMsg"}));
  SvrDMDataset(registry, id).Unregister(watcher);
}

}  // namespace
