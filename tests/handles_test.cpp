#include <memory>
#include <stdexcept>

#include <gtest/gtest.h>

#include "ServerDataManager.h"
#include "support/tracked_source.h"

namespace {

// A clone has a dictionary of its own and shows its source only while it
// builds an iterator, or when asked (and then builds none); the last clone
// to go deletes the chain below.
TEST(CloneDataSourceTest, ClonesOwnTheirDictionaryAndShareTheChainTheLastOneDeletes) {
  std::vector<std::string> destroyed;
  auto* file = new SystemFileDataSource(SDM_EXAMPLES_DATA_DIR "/trial.csv");
  file->SetParentSource(TrackedSource::Chain(&destroyed, {"root"}));
  auto* clone = new SvrDMCloneDataSource(file);
  clone->DeleteVariables(0, 0);
  EXPECT_EQ(clone->ColumnCount() + 1, file->ColumnCount());
  EXPECT_EQ(clone->GetParentSource(), nullptr);
  EXPECT_FALSE(clone->ShowParents(true));
  EXPECT_EQ(clone->GetParentSource(), file);
  EXPECT_THROW(clone->MakeIterator(nullptr), std::invalid_argument);
  std::unique_ptr<SvrDMCloneDataSource> copy(new SvrDMCloneDataSource(*clone));
  EXPECT_EQ(copy->ColumnCount(), clone->ColumnCount());
  delete clone;
  EXPECT_TRUE(destroyed.empty());
  OBS row;
  std::unique_ptr<ObsIterator> iterator(copy->MakeIterator(&row));
  EXPECT_EQ(copy->GetParentSource(), nullptr);
  ASSERT_TRUE(iterator->Next());  // the iterator outlives the link it was built through
  EXPECT_EQ(row.fields.at(0), "101");
  iterator = nullptr;
  copy = nullptr;
  EXPECT_EQ(destroyed, std::vector<std::string>{"root"});
}

// A handle reads and writes its item's fields: a window that is shown reads
// so, and one that found no item reads as hidden; the bootstrap record is
// the item's to own, and the same record set again is kept.
TEST(DatasetHandleTest, FieldsGoThroughToTheItemAndAnEmptyHandleReadsHidden) {
  EXPECT_TRUE(SvrDMDataset(std::string("no such handle")).WindowHidden());
  SvrDMItemPtr item(new SvrDMItem(LocallyUniqueID(0, 1), nullptr, nullptr, 0, "", true));
  SvrDMDataset dataset(item);
  EXPECT_FALSE(dataset.WindowHidden());
  dataset.WindowHidden(true);
  EXPECT_TRUE(SvrDMDataset(item).WindowHidden());
  auto* specs = new SvrBootstrapSpecs;
  dataset.SetBootstrapSpecs(specs);
  dataset.SetBootstrapSpecs(specs);
  EXPECT_EQ(item->GetBootstrapSpecs(), specs);
}

}  // namespace
