// What the snapshot costs in memory, and that reconciling an unchanged
// dictionary costs no allocation: counted through the replaced operator new
// of the allocation-failure binary, which this file is built into.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ServerDataManager.h"
#include "support/failing_new.h"

namespace {

// Counts this thread's allocations, and the heap bytes they hold, for its
// scope. Blocks taken before may be freed inside, and the other way round;
// each such block skews the held total by its size, so the tests count only
// around work that frees what it took or keeps it all.
class Counting {
 public:
  Counting() { failing_new::Arm(0, false); }
  ~Counting() { failing_new::Disarm(); }
  Counting(Counting const&) = delete;
  Counting& operator=(Counting const&) = delete;
  long calls() const { return failing_new::Counted(); }
  long heldBytes() const { return failing_new::HeldBytes(); }
};

constexpr int kVariables = 10000;

// An item over a dictionary-only source of kVariables variables, with the
// dataset properties a real dictionary carries set, so a no-difference
// Update walks every property stage with something to compare.
class SnapshotMemoryTest : public ::testing::Test {
 protected:
  SnapshotMemoryTest() : source(new DataFreeDataSource) {
    for (int i = 0; i < kVariables; ++i) {
      source->MakeVariable(QUOR_Variable(LocallyUniqueID(1, static_cast<uint32_t>(i + 1)),
                                         "variable" + std::to_string(i)),
                           nullptr);
    }
    source->SetLabel("a survey");
    source->SetFileSpec("survey.csv");
    source->SetWeightVar(kVariables - 1);
    source->SetFilterVar(kVariables / 2);
    int const split[] = {3, 1};
    source->SetSplit(2, split, true);
    source->GetTrendsInfo()->SetText("trends");
    DatasourceAttributes attributes;
    attributes.Set("origin", "interview");
    source->SetAttributes(attributes);
    source->SetExtension(
        QUOR_DataSource::Extension(QUOR_DataSource::kExtensionRecord, "record zero"));
    item = new SvrDMItem(LocallyUniqueID(0, 1), source, nullptr, 0, "", true);
  }

  DataFreeDataSource* source;  // owned by the item
  SvrDMItemPtr item;
};

TEST_F(SnapshotMemoryTest, SnapshotSharesDefinitionsAndCostsAtMost24BytesAVariable) {
  // The first Update queues one message a variable; the queue's own growth
  // is not the snapshot's, so it gets its room beforehand.
  item->notifications.reserve(kVariables + 16);
  long held;
  {
    Counting counting;
    item->observerView.Update();
    // The messages carry their own handles; what stays after they go is
    // the snapshot.
    item->ClearNotifications();
    held = counting.heldBytes();
  }

  QUOR_DataSource const& snapshot = item->observerView.Snapshot();
  ASSERT_EQ(snapshot.ColumnCount(), source->ColumnCount());
  for (int i = 0; i < kVariables; ++i) {
    ASSERT_EQ(snapshot.GetVariable(i).Definition(), source->GetVariable(i).Definition())
        << "at " << i;
  }
  // A copied definition alone would be several times this.
  EXPECT_LE(held, 24L * kVariables)
      << held / static_cast<double>(kVariables) << " bytes a variable";
}

TEST_F(SnapshotMemoryTest, UpdateFindingNoDifferenceAllocatesNothing) {
  item->observerView.Update();
  item->ClearNotifications();

  long calls;
  {
    Counting counting;
    item->observerView.Update();
    calls = counting.calls();
  }
  EXPECT_TRUE(item->notifications.empty());
  EXPECT_EQ(calls, 0);
}

// An Update that reorders every variable plans over working structures of
// its own (an index, counts, a permutation); they are gone when it returns,
// and what it took is its messages. This also shows the counters are live,
// or the zero above would prove nothing.
TEST_F(SnapshotMemoryTest, UpdateKeepsNothingButItsMessages) {
  item->observerView.Update();
  item->ClearNotifications();
  item->notifications.reserve(kVariables + 16);  // the queue's growth is not Update's
  std::vector<QUOR_Variable> reversed;
  for (int i = kVariables - 1; i >= 0; --i) reversed.push_back(source->GetVariable(i));
  source->DeleteVariables(0, kVariables - 1);
  for (QUOR_Variable const& variable : reversed) source->MakeVariable(variable, nullptr);

  long calls;
  long held;
  {
    Counting counting;
    item->observerView.Update();
    calls = counting.calls();
    item->ClearNotifications();
    held = counting.heldBytes();
  }
  EXPECT_GE(calls, kVariables - 1);  // a message a move, at the least
  EXPECT_EQ(held, 0) << "bytes kept by an Update beyond its messages";
}

}  // namespace
