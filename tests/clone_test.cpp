#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ServerDataManager.h"
#include "support/tracked_source.h"

namespace {

using Names = std::vector<std::string>;

TEST(CloneDataSourceTest, OnlyTheLastCloneToGoDeletesTheSourceChainHeadFirst) {
  Names destroyed;
  auto* first = new SvrDMCloneDataSource(TrackedSource::Chain(&destroyed, {"head", "root"}));
  auto* second = new SvrDMCloneDataSource(*first);
  delete first;
  EXPECT_TRUE(destroyed.empty());
  // In an item's chain the clone ends the walk: the item deletes the clone
  // alone, and the clone the chain below it.
  SvrDMItemPtr(new SvrDMItem(LocallyUniqueID(0, 1), second, nullptr, 0, "", true));
  EXPECT_EQ(destroyed, (Names{"head", "root"}));
}

TEST(CloneDataSourceTest, ClonesOwnTheirDictionaryAndShowTheSourceOnlyWhileReadingOrAsked) {
  auto* file = new SystemFileDataSource(SDM_EXAMPLES_DATA_DIR "/trial.csv");
  SvrDMCloneDataSource clone(file);
  clone.DeleteVariables(0, 0);
  EXPECT_EQ(clone.ColumnCount() + 1, file->ColumnCount());
  EXPECT_EQ(clone.GetParentSource(), nullptr);
  EXPECT_FALSE(clone.ShowParents(true));
  EXPECT_EQ(clone.GetParentSource(), file);
  EXPECT_TRUE(clone.ShowParents(true));
  EXPECT_EQ(clone.NParents(), file->NParents());  // showing adds no parent
  SvrDMCloneDataSource copy(clone);               // the present dictionary, and hidden
  EXPECT_EQ(copy.ColumnCount(), clone.ColumnCount());
  EXPECT_EQ(copy.GetParentSource(), nullptr);
  EXPECT_TRUE(clone.ShowParents(false));
  EXPECT_FALSE(clone.ShowParents(false));

  // The hidden copy reads the same rows, through an iterator that outlives
  // the link it was built through.
  OBS row;
  std::unique_ptr<ObsIterator> iterator(copy.MakeIterator(&row));
  EXPECT_EQ(copy.GetParentSource(), nullptr);
  ASSERT_TRUE(iterator->Next());
  EXPECT_EQ(row.fields.at(0), "101");
  copy.ShowParents(true);
  EXPECT_THROW(copy.MakeIterator(nullptr), std::invalid_argument);
  EXPECT_EQ(copy.GetParentSource(), nullptr);
}

}  // namespace
