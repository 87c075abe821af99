#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ServerDataManager.h"
#include "support/counting_source.h"
#include "support/scratchdir.h"
#include "support/watcher_model.h"

namespace {

using Names = std::vector<std::string>;

// One SetDataSet on an item with a real file. `next` names the new head: ""
// none, "A".."C" a member of the old chain A -> B -> C (head first), "N" a
// new source over A, "X" the head of a new chain X -> Y.
struct ChainCase {
  bool startEmpty;  // no source, and no file held, before the call
  char const* next;
  Names deletedBySet;
  Names deletedInAll;  // once the item is gone too
};

TEST(DataSetChainTest, SetDataSetDeletesExactlyTheSourcesLeftOverHeadFirst) {
  std::vector<ChainCase> const cases = {
      {true, "", {}, {}},
      {true, "X", {}, {"X", "Y"}},
      {false, "A", {}, {"A", "B", "C"}},
      {false, "B", {"A"}, {"A", "B", "C"}},
      {false, "C", {"A", "B"}, {"A", "B", "C"}},
      {false, "N", {}, {"N", "A", "B", "C"}},
      {false, "X", {"A", "B", "C"}, {"A", "B", "C", "X", "Y"}},
      {false, "", {"A", "B", "C"}, {"A", "B", "C"}},
  };
  ScratchDir scratch;
  std::string const file = scratch.Write("data.csv", "x\n1\n");
  int const descriptors = CountOpenDescriptors();
  for (ChainCase const& c : cases) {
    std::string const next = c.next;
    SCOPED_TRACE(std::string(c.startEmpty ? "none" : "A") + " -> " + next);
    SetModificationTime(file, 1000);
    Names log;
    QUOR_DataSource* a = c.startEmpty ? nullptr : CountingSource::Chain(&log, {"A", "B", "C"});
    SvrDMItemPtr item(new SvrDMItem(LocallyUniqueID(0, 1), a, nullptr, 0, a ? file : "", true));
    item->fileName = file;
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

    SetModificationTime(file, 1001);
    item->SetDataSet(head);
    EXPECT_EQ(log, c.deletedBySet);
    EXPECT_EQ(DescribeQueue(item->notifications), c.startEmpty ? Names{} : Names{"ResetUndo"});
    // With a source the file is held afresh, the new time its base.
    EXPECT_EQ(item->lockedFileTime, head ? 1001 : 0);
    item = nullptr;
    EXPECT_EQ(log, c.deletedInAll);
  }
  EXPECT_EQ(CountOpenDescriptors(), descriptors);
}

TEST(DataSetChainTest, WriteAccessHandsOutTheNewSourceAtOnce) {
  ServerDataManager registry;
  Names log;
  LocallyUniqueID id = registry.Add(*CountingSource::Chain(&log, {"head", "root"}), "", true);
  SvrDMWriteableDataSource access(registry, id, false, nullptr);
  auto* replacement = new SystemFileDataSource();
  access.SetDataSet(replacement);
  EXPECT_EQ(access.GetDataSource(), replacement);
  EXPECT_EQ(&*access, replacement);
  EXPECT_EQ(log, (Names{"head", "root"}));
}

}  // namespace
