#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <utility>

#include "ServerDataManager.h"
#include "support/scratchdir.h"

namespace {

constexpr int64_t kBase = 1600000000;

// One data file at a known time, and a second spelling of it, as a
// case-blind file system gives; every stream opened must be closed again.
class FileLockTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SetModificationTime(data_, kBase);
    std::filesystem::create_hard_link(data_, upper_);
  }
  void TearDown() override { EXPECT_EQ(CountOpenDescriptors(), atStart_); }
  // The item holds `name` against the base `time` (nothing for an empty
  // name), and `open` descriptors more than at the start are open.
  void ExpectHold(SvrDMItemPtr const& item, std::string const& name, int64_t time, int open) {
    EXPECT_EQ(item->lockedFile != nullptr, !name.empty());
    EXPECT_EQ(item->lockedFileName, name);
    EXPECT_EQ(item->lockedFileTime, time);
    EXPECT_EQ(CountOpenDescriptors() - atStart_, open);
  }

  ScratchDir dir_;
  std::string const data_ = dir_.Write("survey.csv", "rows"), upper_ = dir_.PathOf("SURVEY.csv");
  int const atStart_ = CountOpenDescriptors();
};

TEST_F(FileLockTest, AnOlderTimeIsAChangeUntilUnlockAndLockTakeItAsTheBase) {
  SvrDMItemPtr item(new SvrDMItem({0, 7}, nullptr, nullptr, 0, data_, true));
  FILE* const held = item->lockedFile;
  SetModificationTime(data_, kBase - 1);
  item->LockSavFileInUse();  // the same name: neither reopened nor a new base
  EXPECT_EQ(item->lockedFile, held);
  ExpectHold(item, data_, kBase, 1);
  EXPECT_TRUE(item->SavFileExternallyChanged());
  item->UnlockSavFileInUse();
  ExpectHold(item, "", 0, 0);
  EXPECT_FALSE(item->SavFileExternallyChanged());
  item->LockSavFileInUse();
  ExpectHold(item, data_, kBase - 1, 1);
  EXPECT_FALSE(item->SavFileExternallyChanged());

  item->FileName(upper_);  // the same file under another name: reopened, new base
  ExpectHold(item, upper_, kBase - 1, 1);
  std::string const later = dir_.PathOf("later.csv");
  EXPECT_NO_THROW(item->FileName(later));  // not there: the old file goes all the same
  ExpectHold(item, "", 0, 0);
  dir_.Write("later.csv", "rows");
  SetModificationTime(later, kBase + 3);
  item->LockSavFileInUse();  // retried
  ExpectHold(item, later, kBase + 3, 1);
}

TEST_F(FileLockTest, RegistryHoldsAFileOnceAndTheLastCaseBlindMatchAnswers) {
  ServerDataManager registry;
  LocallyUniqueID const first = registry.Add(*new QUOR_DataSource(nullptr), data_, true);
  SvrDMItemPtr second =
      registry.GetDataSet(registry.Add(*new QUOR_DataSource(nullptr), upper_, true));
  EXPECT_EQ(second->sharedFileName, upper_);  // kept aside, not held
  ExpectHold(second, "", 0, 1);
  SetModificationTime(data_, kBase - 1);
  EXPECT_TRUE(registry.SavFileExternallyChanged(upper_));
  SvrDMItemPtr third = registry.GetDataSet(registry.AddEmpty(true));
  third->FileName(upper_);  // holds it afresh: unchanged, and asked last
  EXPECT_FALSE(registry.SavFileExternallyChanged(data_));
  registry.Delete(std::exchange(third, nullptr)->dataSetID);
  registry.Delete(first);
  EXPECT_FALSE(registry.SavFileExternallyChanged(data_));  // nobody holds it now
  ExpectHold(second, "", 0, 0);
}

}  // namespace
