#include <ctime>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ServerDataManager.h"
#include "support/access_probes.h"
#include "support/tracked_source.h"

namespace {

SvrDMItem* MakeItem(LocallyUniqueID id, QUOR_DataSource* source = nullptr) {
  return new SvrDMItem(id, source, nullptr, 7, std::string(), true);
}

TEST(SvrDMItemTest, NewItemIsStampedNowAndABlankOneIsSafeToEnd) {
  SvrDMItemPtr item(MakeItem(LocallyUniqueID(0, 3)));
  std::time_t now = std::time(nullptr);
  std::tm local = *std::localtime(&now);
  EXPECT_NEAR(item->objCreationTime, double(timegm(&local)), 5.0);  // local time, seconds from 1970
  EXPECT_TRUE(SvrDMItemPtr(new SvrDMItem())->dataSetID.IsNone());
}

TEST(SvrDMItemTest, QueuedMessagesGoWithTheItemAndItsChainGoesHeadFirstOnlyOnce) {
  std::vector<std::string> log;
  int destroyed = 0;
  long const blocksBefore = VUGlobal::LiveBlocks();
  {
    SvrDMItemPtr item(
        MakeItem(LocallyUniqueID(0, 1), TrackedSource::Chain(&log, {"head", "middle", "root"})));
    item->notifications.push_back(new ProbeMessage("queued", &destroyed));
    item->notifications.push_back(nullptr);
    item->SetBootstrapSpecs(new SvrBootstrapSpecs());
    item->SetBootstrapSpecs(new SvrBootstrapSpecs());  // the first is freed (asan checks)
    item->DeleteDataSource();
    EXPECT_EQ(log, (std::vector<std::string>{"head", "middle", "root"}));
    EXPECT_EQ(item->dataSource, nullptr);
  }  // and nothing is deleted twice
  EXPECT_EQ(destroyed, 1);
  EXPECT_EQ(VUGlobal::LiveBlocks(), blocksBefore);
  EXPECT_EQ(log.size(), 3u);
}

TEST(SvrDMItemDeathTest, CopyingAnItemStopsTheProcess) {
  ::testing::FLAGS_gtest_death_test_style = "threadsafe";
  SvrDMItemPtr item(MakeItem(LocallyUniqueID(0, 1)));
  SvrDMItemPtr other(item);
  EXPECT_DEATH(other.Unshared(),
               "svrdmitem.*SvrDMItem::SvrDMItem\\(const SvrDMItem&\\).*Assertion `0' failed");
}

}  // namespace
