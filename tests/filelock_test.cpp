#include <gtest/gtest.h>

#include <filesystem>
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
  // The file held, its base time, and the descriptors open beyond the start.
  std::string Held(SvrDMItemPtr const& item) {
    return (item->lockedFile ? item->lockedFileName : "none") + " " +
           std::to_string(item->lockedFileTime - kBase) + " " +
           std::to_string(CountOpenDescriptors() - atStart_);
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
  EXPECT_EQ(Held(item), data_ + " 0 1");
  EXPECT_TRUE(item->SavFileExternallyChanged());
  item->UnlockSavFileInUse();
  EXPECT_EQ(Held(item), "none -" + std::to_string(kBase) + " 0");
  EXPECT_FALSE(item->SavFileExternallyChanged());
  item->LockSavFileInUse();
  EXPECT_EQ(Held(item), data_ + " -1 1");
  EXPECT_FALSE(item->SavFileExternallyChanged());
  item->FileName(upper_);  // the same file under another name: reopened
  EXPECT_EQ(Held(item), upper_ + " -1 1");
  item->FileName(dir_.PathOf("missing.csv"));  // cannot be held: the old file goes all the same
  EXPECT_EQ(Held(item), "none -" + std::to_string(kBase) + " 0");
}

TEST_F(FileLockTest, RegistryHoldsAFileOnceAndTheLastCaseBlindMatchAnswers) {
  ServerDataManager registry;
  LocallyUniqueID const first = registry.Add(*new QUOR_DataSource(nullptr), data_, true);
  SvrDMItemPtr second =
      registry.GetDataSet(registry.Add(*new QUOR_DataSource(nullptr), upper_, true));
  EXPECT_EQ(second->sharedFileName, upper_);  // kept aside, not held
  EXPECT_EQ(Held(second), "none -" + std::to_string(kBase) + " 1");
  SetModificationTime(data_, kBase - 1);
  EXPECT_TRUE(registry.SavFileExternallyChanged(upper_));
  SvrDMItemPtr third = registry.GetDataSet(registry.AddEmpty(true));
  third->FileName(upper_);  // holds it afresh: unchanged, and asked last
  EXPECT_FALSE(registry.SavFileExternallyChanged(data_));
  registry.Delete(std::exchange(third, nullptr)->dataSetID);
  registry.Delete(first);
  EXPECT_FALSE(registry.SavFileExternallyChanged(data_));  // nobody holds it now
  EXPECT_EQ(Held(second), "none -" + std::to_string(kBase) + " 0");
}

}  // namespace
