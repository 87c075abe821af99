#include <tuple>

#include <gtest/gtest.h>

#include "ServerDataManager.h"
#include "support/queues.h"
#include "support/scratchdir.h"
#include "support/tracked_source.h"

namespace {

using Names = std::vector<std::string>;

// Whether the item starts with the chain A -> B -> C (head first) or with no
// source; the new head: 0 none, 'A'..'C' a member of the old chain, 'N' a new
// source over A, 'X' the head of a new chain X -> Y; what the call deletes;
// and what is deleted once the item is gone too. Every replacement with a
// source that the item had queues ResetUndo, before anything a pass adds.
TEST(DataSetChainTest, SetDataSetDeletesExactlyTheSourcesLeftOverHeadFirst) {
  std::tuple<bool, char, Names, Names> const cases[] = {
      {false, 0, {}, {}},
      {false, 'X', {}, {"X", "Y"}},
      {true, 'A', {}, {"A", "B", "C"}},
      {true, 'B', {"A"}, {"A", "B", "C"}},
      {true, 'C', {"A", "B"}, {"A", "B", "C"}},
      {true, 'N', {}, {"N", "A", "B", "C"}},
      {true, 'X', {"A", "B", "C"}, {"A", "B", "C", "X", "Y"}},
      {true, 0, {"A", "B", "C"}, {"A", "B", "C"}},
  };
  ScratchDir scratch;
  std::string const file = scratch.Write("data.csv", "x\n1\n");
  int const descriptors = CountOpenDescriptors();
  for (auto const& [withChain, next, deletedBySet, deletedInAll] : cases) {
    SCOPED_TRACE(std::string(withChain ? "A -> " : "none -> ") + next);
    SetModificationTime(file, 1000);
    Names log;
    QUOR_DataSource* head = withChain ? TrackedSource::Chain(&log, {"A", "B", "C"}) : nullptr;
    SvrDMItemPtr item(new SvrDMItem({0, 1}, head, nullptr, 0, head ? file : "", true));
    item->fileName = file;  // an empty dataset holds no file until it has a source
    for (char at = 'A'; at < next && next <= 'C'; ++at) head = head->GetParentSource();
    if (next == 'N') (head = TrackedSource::Chain(&log, {"N"}))->SetParentSource(item->dataSource);
    if (next == 'X') head = TrackedSource::Chain(&log, {"X", "Y"});
    if (next == 0) head = nullptr;
    SetModificationTime(file, 1001);
    item->SetDataSet(head);
    EXPECT_EQ(log, deletedBySet);
    EXPECT_EQ(DescribeQueue(item->notifications), withChain ? Names{"ResetUndo"} : Names{});
    EXPECT_EQ(item->lockedFileTime, head ? 1001 : 0);  // with a source the file is held afresh
    item = nullptr;
    EXPECT_EQ(log, deletedInAll);
  }
  EXPECT_EQ(CountOpenDescriptors(), descriptors);
}

}  // namespace
