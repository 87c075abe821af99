#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ServerDataManager.h"
#include "support/counting_source.h"

namespace {

class TestMessage : public DataSetMsg {
 public:
  explicit TestMessage(int* destroyed) : destroyed_(destroyed) {}
  ~TestMessage() override { ++*destroyed_; }
  VSerializable* Clone() const override { return new TestMessage(destroyed_); }
  int Process(VStream&) override { return 0; }
  char const* GetClassName() const override { return "TestMessage"; }

 private:
  int* destroyed_;
};

SvrDMItem* MakeItem(LocallyUniqueID id, QUOR_DataSource* source = nullptr,
                    unsigned int caseSequence = 0) {
  return new SvrDMItem(id, source, nullptr, caseSequence, std::string(), true);
}

TEST(SvrDMItemTest, NewItemStartsWithTheDocumentedState) {
  SvrDMItemPtr item(MakeItem(LocallyUniqueID(0, 3), nullptr, 7));
  EXPECT_TRUE(item->windowMinimized);
  EXPECT_FALSE(item->windowFront);
  EXPECT_FALSE(item->windowHidden);
  EXPECT_EQ(item->caseSequence, 7u);
  EXPECT_EQ(item->writersCount, 0);
  EXPECT_EQ(item->readersCount, 0);
  EXPECT_FALSE(item->createNotified);
  EXPECT_FALSE(item->writeLockFailed);
  EXPECT_TRUE(item->announce);
  EXPECT_EQ(item->lockedFile, nullptr);
  EXPECT_EQ(item->lockedFileTime, 0);
  EXPECT_EQ(item->bootstrapSpecs, nullptr);
  EXPECT_TRUE(item->errorMonitor.GetDataSetID().IsNone());
  EXPECT_EQ(item->observerView.RowCountSeen(), -2);
  // The creation stamp is today's date, far past the 1975 fallback.
  EXPECT_GT(item->objCreationTime, 1.6e9);
}

TEST(SvrDMItemTest, DefaultItemHoldsNoIdentifierAndIsSafeToDestroy) {
  SvrDMItemPtr item(new SvrDMItem());
  EXPECT_TRUE(item->dataSetID.IsNone());
  EXPECT_TRUE(item->announce);
  EXPECT_EQ(item->dataSource, nullptr);
  EXPECT_TRUE(item->fileName.empty());
}

TEST(SvrDMItemTest, IdentityComparesBothFieldsGroupFirst) {
  SvrDMItemPtr low(MakeItem(LocallyUniqueID(1, 900)));
  SvrDMItemPtr high(MakeItem(LocallyUniqueID(2, 5)));
  SvrDMItemPtr sameSerial(MakeItem(LocallyUniqueID(2, 900)));
  SvrDMItemPtr twin(MakeItem(LocallyUniqueID(1, 900)));
  EXPECT_FALSE(*low == *sameSerial);
  EXPECT_TRUE(*low == *twin);
  EXPECT_TRUE(*low < *high);
  EXPECT_FALSE(*high < *low);
  EXPECT_TRUE(*high < *sameSerial);
}

TEST(SvrDMItemTest, PasswordReplacesBothFields) {
  SvrDMItemPtr item(MakeItem(LocallyUniqueID(0, 0)));
  item->Password("secret", true);
  EXPECT_EQ(item->password, "secret");
  EXPECT_TRUE(item->passwordMangled);
  item->Password("", false);
  EXPECT_EQ(item->password, "");
  EXPECT_FALSE(item->passwordMangled);
}

TEST(SvrDMItemTest, EndDeletesQueuedMessagesUndeliveredAndTheChainChildFirst) {
  std::vector<std::string> log;
  int destroyed = 0;
  long blocksBefore = VUGlobal::LiveBlocks();
  {
    SvrDMItemPtr item(MakeItem(LocallyUniqueID(0, 1), CountingSource::Chain(&log, {"head", "middle", "root"})));
    item->notifications.push_back(new TestMessage(&destroyed));
    item->notifications.push_back(new TestMessage(&destroyed));
    EXPECT_EQ(VUGlobal::LiveBlocks(), blocksBefore + 2);
  }
  EXPECT_EQ(destroyed, 2);
  EXPECT_EQ(VUGlobal::LiveBlocks(), blocksBefore);
  EXPECT_EQ(log, (std::vector<std::string>{"head", "middle", "root"}));
}

TEST(SvrDMItemTest, BootstrapSpecsAreOwnedAndReplaced) {
  SvrDMItemPtr item(MakeItem(LocallyUniqueID(0, 1)));
  auto* first = new SvrBootstrapSpecs();
  item->SetBootstrapSpecs(first);
  EXPECT_EQ(item->GetBootstrapSpecs(), first);
  item->SetBootstrapSpecs(first);  // the same record again is kept, not freed
  EXPECT_EQ(item->GetBootstrapSpecs(), first);
  item->SetBootstrapSpecs(new SvrBootstrapSpecs());  // frees `first` (asan checks)
  EXPECT_NE(item->GetBootstrapSpecs(), nullptr);
}

TEST(SvrDMItemTest, TimestampUsesTheServerDateScale) {
  double stamp = 0;
  EXPECT_EQ(SvrDMItem::quorTimestampNow(&stamp), 0);
  std::time_t now = std::time(nullptr);
  std::tm local = *std::localtime(&now);
  double expected = 0;
  iDMY2Quor(local.tm_mday, local.tm_mon + 1, local.tm_year + 1900, local.tm_hour, local.tm_min,
            local.tm_sec, &expected);
  EXPECT_NEAR(stamp, expected, 5.0);
}

using SvrDMItemDeathTest = ::testing::Test;

TEST_F(SvrDMItemDeathTest, CopyingAnItemStopsTheProcess) {
  ::testing::FLAGS_gtest_death_test_style = "threadsafe";
  SvrDMItemPtr item(MakeItem(LocallyUniqueID(0, 1)));
  EXPECT_DEATH({ SvrDMItem copy(*item); },
               "svrdmitem.*SvrDMItem::SvrDMItem\\(const SvrDMItem&\\).*Assertion `0' failed");
  // The one road to the copy in practice: a pointer asked for its own copy.
  SvrDMItemPtr other(item);
  EXPECT_DEATH(other.Unshared(), "Assertion `0' failed");
}

}  // namespace
