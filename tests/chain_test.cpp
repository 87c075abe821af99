#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ServerDataManager.h"
#include "support/counting_source.h"
#include "support/scratchdir.h"
#include "support/watcher_model.h"

namespace {

using Names = std::vector<std::string>;

// An item over the chain A -> B -> C (head first), holding a real file, so
// every case can check deletions, the queue and the file hold together.
class DataSetChainTest : public ::testing::Test {
 protected:
  void SetUp() override {
    descriptorsBefore = CountOpenDescriptors();
    file = scratch.Write("data.csv", "x\n1\n");
    a = CountingSource::Chain(&destroyed, {"A", "B", "C"});
    b = a->GetParentSource();
    c = b->GetParentSource();
    item = new SvrDMItem(LocallyUniqueID(0, 1), a, nullptr, 0, file, true);
  }
  void TearDown() override {
    item = nullptr;
    EXPECT_EQ(CountOpenDescriptors(), descriptorsBefore);
  }

  Names Queue() const { return DescribeQueue(item->notifications); }

  ScratchDir scratch;
  std::string file;
  int descriptorsBefore = 0;
  Names destroyed;
  QUOR_DataSource* a = nullptr;
  QUOR_DataSource* b = nullptr;
  QUOR_DataSource* c = nullptr;
  SvrDMItemPtr item;
};

TEST_F(DataSetChainTest, FallingBackToAnAncestorDeletesWhatLiesBelowIt) {
  item->SetDataSet(b);
  EXPECT_EQ(destroyed, Names{"A"});
  EXPECT_EQ(item->dataSource, b);
  EXPECT_EQ(Queue(), Names{"ResetUndo"});
  EXPECT_NE(item->lockedFile, nullptr);

  item->SetDataSet(c);
  EXPECT_EQ(destroyed, (Names{"A", "B"}));
  item = nullptr;
  EXPECT_EQ(destroyed, (Names{"A", "B", "C"}));
}

TEST_F(DataSetChainTest, FallingBackTwoLevelsDeletesHeadFirst) {
  item->SetDataSet(c);
  EXPECT_EQ(destroyed, (Names{"A", "B"}));
}

TEST_F(DataSetChainTest, NewHeadOverTheOldKeepsTheWholeChain) {
  auto* n = new CountingSource(&destroyed, "N");
  n->SetParentSource(a);
  item->SetDataSet(n);
  EXPECT_TRUE(destroyed.empty());
  EXPECT_EQ(Queue(), Names{"ResetUndo"});
  item = nullptr;
  EXPECT_EQ(destroyed, (Names{"N", "A", "B", "C"}));
}

TEST_F(DataSetChainTest, SameHeadDeletesNothingButReopensTheFile) {
  FILE* before = item->lockedFile;
  ASSERT_NE(before, nullptr);
  SetModificationTime(file, 1000000);
  ASSERT_TRUE(item->SavFileExternallyChanged());
  item->SetDataSet(a);
  EXPECT_TRUE(destroyed.empty());
  EXPECT_EQ(Queue(), Names{"ResetUndo"});
  // Opened afresh, so the new time is the base.
  EXPECT_NE(item->lockedFile, nullptr);
  EXPECT_FALSE(item->SavFileExternallyChanged());
}

TEST_F(DataSetChainTest, UnrelatedHeadDeletesTheWholeOldChain) {
  Names otherLog;
  QUOR_DataSource* other = CountingSource::Chain(&otherLog, {"X", "Y"});
  item->SetDataSet(other);
  EXPECT_EQ(destroyed, (Names{"A", "B", "C"}));
  EXPECT_EQ(Queue(), Names{"ResetUndo"});
  item = nullptr;
  EXPECT_EQ(otherLog, (Names{"X", "Y"}));
}

TEST_F(DataSetChainTest, NullHeadDeletesEverythingAndLetsTheFileGo) {
  item->SetDataSet(nullptr);
  EXPECT_EQ(destroyed, (Names{"A", "B", "C"}));
  EXPECT_EQ(item->dataSource, nullptr);
  EXPECT_EQ(item->lockedFile, nullptr);
  EXPECT_EQ(Queue(), Names{"ResetUndo"});
  item->SetDataSet(nullptr);  // nothing more to do
  EXPECT_EQ(Queue(), Names{"ResetUndo"});
  EXPECT_EQ(destroyed.size(), 3u);
}

TEST_F(DataSetChainTest, FirstSourceOfAnEmptyDatasetQueuesNothingAndHoldsTheFile) {
  SvrDMItemPtr empty(new SvrDMItem(LocallyUniqueID(0, 2), nullptr, nullptr, 0, std::string(), true));
  empty->SetDataSet(nullptr);
  EXPECT_TRUE(empty->notifications.empty());
  // The registry gives an empty dataset no file; one set later is held once
  // a source arrives.
  empty->fileName = scratch.Write("later.csv", "y\n2\n");
  empty->SetDataSet(new CountingSource(&destroyed, "S"));
  EXPECT_TRUE(empty->notifications.empty());
  EXPECT_NE(empty->lockedFile, nullptr);
}

TEST_F(DataSetChainTest, ResetUndoReachesWatchersAheadOfTheDifferences) {
  item->observerView.Update();
  item->ClearNotifications();
  auto* replacement = new SystemFileDataSource();
  replacement->InsertVariable(0, QUOR_Variable(LocallyUniqueID(0, 1), "A"));
  item->SetDataSet(replacement);
  item->observerView.Update();
  EXPECT_EQ(Queue(), (Names{"ResetUndo", "Insert [A] before none"}));
}

// Records what the watchers of a dataset are shown at each pass.
class QueueObserver : public SvrDMDataSetObserver {
 public:
  void DataSetChanged(SvrDMWriteableDataSource const* source) override {
    passes.push_back(DescribeQueue(source->GetNotifications()));
  }
  std::vector<Names> passes;
};

TEST_F(DataSetChainTest, WriteAccessReplacesTheSourceAndWatchersHearResetUndoFirst) {
  ServerDataManager registry;
  Names log;
  LocallyUniqueID id = registry.Add(*CountingSource::Chain(&log, {"head", "root"}), "", true);
  QueueObserver observer;
  SvrDMDataset(registry, id).Register(observer);
  {
    SvrDMWriteableDataSource access(registry, id, false, nullptr);
    auto* replacement = new SystemFileDataSource();
    replacement->InsertVariable(0, QUOR_Variable(LocallyUniqueID(0, 1), "A"));
    access.SetDataSet(replacement);
    EXPECT_EQ(access.GetDataSource(), replacement);
    EXPECT_EQ(&*access, replacement);
    EXPECT_EQ(log, (Names{"head", "root"}));
  }
  ASSERT_FALSE(observer.passes.empty());
  EXPECT_EQ(observer.passes.back().at(0), "ResetUndo");
  EXPECT_EQ(observer.passes.back().at(1), "Insert [A] before none");
  SvrDMDataset(registry, id).Unregister(observer);
}

}  // namespace
