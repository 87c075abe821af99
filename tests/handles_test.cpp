#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ServerDataManager.h"
#include "support/tracked_source.h"

namespace {

TEST(HandlesTest, AHandleShowsItsItemAtOnceAndOneThatFoundNothingIsHidden) {
  EXPECT_TRUE(SvrDMDataset(std::string("no such handle")).WindowHidden());
  ServerDataManager registry;
  LocallyUniqueID const id = registry.Add(*new TrackedSource, "", true);
  SvrDMDataset handle(registry, id);
  EXPECT_FALSE(handle.WindowHidden());
  handle.WindowHidden(true);
  EXPECT_TRUE(handle.WindowHidden());
  auto* specs = new SvrBootstrapSpecs;
  handle.SetBootstrapSpecs(specs);
  handle.SetBootstrapSpecs(specs);  // the same record again is kept, not freed
  EXPECT_EQ(handle.GetBootstrapSpecs()->GetNSamples(), 1000);
  SvrDMWriteableDataSource writer(registry, id, false, nullptr);
  writer.IncrementCaseSequence();
  EXPECT_EQ(handle.GetCaseSequence(), 1u) << "seen before the access ends";
}

TEST(CloneDataSourceTest, ClonesOwnTheirDictionaryShareTheChainAndShowItOnlyWhileReading) {
  std::vector<std::string> destroyed;
  auto* file = new SystemFileDataSource(SDM_EXAMPLES_DATA_DIR "/trial.csv");
  file->SetParentSource(TrackedSource::Chain(&destroyed, {"root"}));
  auto* clone = new SvrDMCloneDataSource(file);
  clone->DeleteVariables(0, 0);
  EXPECT_EQ(clone->ColumnCount() + 1, file->ColumnCount());
  EXPECT_EQ(clone->GetParentSource(), nullptr);
  EXPECT_FALSE(clone->ShowParents(true));
  EXPECT_EQ(clone->GetParentSource(), file);
  EXPECT_EQ(clone->NParents(), file->NParents());  // showing adds no parent
  auto* copy = new SvrDMCloneDataSource(*clone);   // the present dictionary, hidden
  EXPECT_EQ(copy->ColumnCount(), clone->ColumnCount());
  EXPECT_TRUE(clone->ShowParents(false));
  delete clone;
  // The copy reads the rows through an iterator that outlives the link it
  // was built through, and cannot build one while shown.
  OBS row;
  std::unique_ptr<ObsIterator> iterator(copy->MakeIterator(&row));
  EXPECT_EQ(copy->GetParentSource(), nullptr);
  ASSERT_TRUE(iterator->Next());
  EXPECT_EQ(row.fields.at(0), "101");
  copy->ShowParents(true);
  EXPECT_THROW(copy->MakeIterator(nullptr), std::invalid_argument);
  iterator = nullptr;
  EXPECT_TRUE(destroyed.empty());
  // In an item's chain the clone ends the walk: the item deletes the clone
  // alone, and the last clone the chain below it.
  SvrDMItemPtr(new SvrDMItem({0, 1}, copy, nullptr, 0, "", true));
  EXPECT_EQ(destroyed, std::vector<std::string>{"root"});
}

}  // namespace
