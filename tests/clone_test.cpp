#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ServerDataManager.h"
#include "support/counting_source.h"

namespace {

using Names = std::vector<std::string>;

std::string const kTrial = SDM_EXAMPLES_DATA_DIR "/trial.csv";

// Reads every row an iterator gives, as the first field of each.
Names FirstFields(ObsIterator* iterator, OBS& row) {
  Names fields;
  while (iterator->Next()) fields.push_back(row.fields.at(0));
  delete iterator;
  return fields;
}

TEST(CloneDataSourceTest, StartsWithTheSourcesDictionaryAndPassesRowsThrough) {
  auto* file = new SystemFileDataSource(kTrial);
  SvrDMCloneDataSource clone(file);
  EXPECT_EQ(clone.ColumnCount(), file->ColumnCount());
  EXPECT_EQ(clone.GetParentSource(), nullptr);
  EXPECT_EQ(clone.RowCount(), 4);
  EXPECT_EQ(clone.GetObsAreaSize(), file->GetObsAreaSize());
  EXPECT_EQ(clone.NParents(), file->NParents());

  clone.DeleteVariables(0, 0);
  EXPECT_EQ(clone.ColumnCount() + 1, file->ColumnCount());
  EXPECT_EQ(clone.RowCount(), 4);
}

TEST(CloneDataSourceTest, CopyTakesThePresentDictionaryAndTheSameRows) {
  auto* file = new SystemFileDataSource(kTrial);
  SvrDMCloneDataSource first(file);
  first.DeleteVariables(0, 1);
  first.ShowParents(true);
  SvrDMCloneDataSource second(first);
  EXPECT_EQ(second.ColumnCount(), first.ColumnCount());
  EXPECT_EQ(second.GetParentSource(), nullptr);  // a copy starts hidden
  EXPECT_EQ(second.RowCount(), 4);
  first.ShowParents(false);
}

TEST(CloneDataSourceTest, LastCloneDeletesTheSourceChainHeadFirst) {
  Names destroyed;
  auto* first = new SvrDMCloneDataSource(CountingSource::Chain(&destroyed, {"head", "root"}));
  auto* second = new SvrDMCloneDataSource(*first);
  delete first;
  EXPECT_TRUE(destroyed.empty());
  EXPECT_EQ(second->RowCount(), 0);
  delete second;
  EXPECT_EQ(destroyed, (Names{"head", "root"}));
}

TEST(CloneDataSourceTest, ShowParentsReportsTheStateBeforeTheCall) {
  auto* file = new SystemFileDataSource(kTrial);
  SvrDMCloneDataSource clone(file);
  EXPECT_FALSE(clone.ShowParents(true));
  EXPECT_EQ(clone.GetParentSource(), file);
  EXPECT_TRUE(clone.ShowParents(true));
  EXPECT_EQ(clone.NParents(), file->NParents());  // showing adds no parent
  EXPECT_TRUE(clone.ShowParents(false));
  EXPECT_FALSE(clone.ShowParents(false));
  EXPECT_EQ(clone.GetParentSource(), nullptr);
}

TEST(CloneDataSourceTest, IteratorReadsTheSourceRowsAndOutlivesTheLink) {
  auto* file = new SystemFileDataSource(kTrial);
  SvrDMCloneDataSource clone(file);
  clone.ShowParents(true);
  OBS row;
  ObsIterator* iterator = clone.MakeIterator(&row);
  EXPECT_EQ(clone.GetParentSource(), nullptr);  // hidden again, whatever it was
  EXPECT_EQ(FirstFields(iterator, row), (Names{"101", "102", "103", "104"}));
}

TEST(CloneDataSourceTest, FailedIteratorLeavesTheCloneHidden) {
  auto* file = new SystemFileDataSource(kTrial);
  SvrDMCloneDataSource clone(file);
  EXPECT_THROW(clone.MakeIterator(nullptr), std::invalid_argument);
  EXPECT_EQ(clone.GetParentSource(), nullptr);
}

TEST(CloneDataSourceTest, CloneInAnItemsChainEndsTheWalkAndGoesWithTheItem) {
  Names destroyed;
  auto* clone = new SvrDMCloneDataSource(CountingSource::Chain(&destroyed, {"under"}));
  {
    SvrDMItemPtr item(new SvrDMItem(LocallyUniqueID(0, 1), clone, nullptr, 0, "", true));
    EXPECT_EQ(item->dataSource->GetParentSource(), nullptr);
  }
  EXPECT_EQ(destroyed, Names{"under"});
}

}  // namespace
