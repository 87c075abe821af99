// What the snapshot costs in memory and what an Update allocates, counted
// through the replaced operator new of the allocation-failure binary, which
// this file is built into.
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "ServerDataManager.h"
#include "support/failing_new.h"

namespace {

// Over a dictionary of 10,000 variables with every dataset property set, so
// that a no-difference Update walks every property stage with something to
// compare.
TEST(SnapshotMemoryTest, SnapshotSharesDefinitionsAndUpdateKeepsOnlyItsMessages) {
  constexpr int n = 10000;
  auto* source = new DataFreeDataSource;  // owned by the item
  for (int i = 0; i < n; ++i)
    source->MakeVariable(QUOR_Variable(LocallyUniqueID(1, i + 1u), "v" + std::to_string(i)),
                         nullptr);
  source->SetLabel("a survey");
  source->SetFileSpec("survey.csv");
  source->SetWeightVar(n - 1);
  source->SetFilterVar(n / 2);
  int const split[] = {3, 1};
  source->SetSplit(2, split, true);
  source->GetTrendsInfo()->SetText("trends");
  DatasourceAttributes attributes;
  attributes.Set("origin", "interview");
  source->SetAttributes(attributes);
  source->SetExtension(QUOR_DataSource::Extension(QUOR_DataSource::kExtensionRecord, "record"));
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

}  // namespace
