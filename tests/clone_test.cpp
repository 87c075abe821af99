#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ServerDataManager.h"
#include "support/counting_source.h"

namespace {

using Names = std::vector<std::string>;

std::string const kTrial = SDM_EXAMPLES_DATA_DIR "/trial.csv";

TEST(CloneDataSourceTest, ClonesKeepTheirOwnDictionaryOverTheSourcesRows) {
  auto* file = new SystemFileDataSource(kTrial);
  SvrDMCloneDataSource first(file);
  EXPECT_EQ(first.ColumnCount(), file->ColumnCount());
  EXPECT_EQ(first.GetObsAreaSize(), file->GetObsAreaSize());
  first.DeleteVariables(0, 0);
  EXPECT_EQ(first.ColumnCount() + 1, file->ColumnCount());
  first.ShowParents(true);
  SvrDMCloneDataSource second(first);
  EXPECT_EQ(second.ColumnCount(), first.ColumnCount());
  EXPECT_EQ(second.GetParentSource(), nullptr);  // a copy starts hidden
  EXPECT_EQ(second.RowCount(), 4);
  first.ShowParents(false);
}

TEST(CloneDataSourceTest, OnlyTheLastCloneToGoDeletesTheSourceChainHeadFirst) {
  Names destroyed;
  auto* first = new SvrDMCloneDataSource(CountingSource::Chain(&destroyed, {"head", "root"}));
  auto* second = new SvrDMCloneDataSource(*first);
  delete first;
  EXPECT_TRUE(destroyed.empty());
  EXPECT_EQ(second->RowCount(), 0);
  // In an item's chain the clone ends the walk: the item deletes the clone
  // alone, and the clone the chain below it.
  { SvrDMItemPtr item(new SvrDMItem(LocallyUniqueID(0, 1), second, nullptr, 0, "", true)); }
  EXPECT_EQ(destroyed, (Names{"head", "root"}));
}

TEST(CloneDataSourceTest, ShowParentsReportsThePriorStateAndMakeIteratorHidesAgain) {
  auto* file = new SystemFileDataSource(kTrial);
  SvrDMCloneDataSource clone(file);
  EXPECT_FALSE(clone.ShowParents(true));
  EXPECT_EQ(clone.GetParentSource(), file);
  EXPECT_TRUE(clone.ShowParents(true));
  EXPECT_EQ(clone.NParents(), file->NParents());  // showing adds no parent
  EXPECT_TRUE(clone.ShowParents(false));
  EXPECT_FALSE(clone.ShowParents(false));
  EXPECT_EQ(clone.GetParentSource(), nullptr);

  clone.ShowParents(true);
  OBS row;
  std::unique_ptr<ObsIterator> iterator(clone.MakeIterator(&row));
  EXPECT_EQ(clone.GetParentSource(), nullptr);
  Names firstFields;  // read after the link is gone
  while (iterator->Next()) firstFields.push_back(row.fields.at(0));
  EXPECT_EQ(firstFields, (Names{"101", "102", "103", "104"}));

  clone.ShowParents(true);
  EXPECT_THROW(clone.MakeIterator(nullptr), std::invalid_argument);
  EXPECT_EQ(clone.GetParentSource(), nullptr);
}

}  // namespace
