#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>

#include "ServerDataManager.h"
#include "support/scratchdir.h"

namespace {

constexpr int64_t kBase = 1600000000;

// Each test gets its own directory with one data file at a known time, and
// checks on the way out that every stream it opened was closed again.
class FileLockTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SetModificationTime(data_, kBase);
    // A second spelling of the same file, as a case-blind file system gives.
    std::filesystem::create_hard_link(data_, upper_);
  }
  void TearDown() override { EXPECT_EQ(CountOpenDescriptors(), atStart_); }

  static SvrDMItemPtr MakeItem(std::string const& name) {
    return SvrDMItemPtr(new SvrDMItem(LocallyUniqueID(0, 7), nullptr, nullptr, 0, name, true));
  }
  // The item holds `name` against the base `time`, or nothing for an empty
  // name, and the test has `open` more descriptors than at its start.
  void ExpectHold(SvrDMItemPtr const& item, std::string const& name, int64_t time, int open) {
    EXPECT_EQ(item->lockedFile != nullptr, !name.empty());
    EXPECT_EQ(item->lockedFileName, name);
    EXPECT_EQ(item->lockedFileTime, time);
    EXPECT_EQ(CountOpenDescriptors() - atStart_, open);
  }

  ScratchDir dir_;
  std::string const data_ = dir_.Write("survey.csv", "rows");
  std::string const upper_ = dir_.PathOf("SURVEY.csv");
  int const atStart_ = CountOpenDescriptors();
};

TEST_F(FileLockTest, AnOlderTimeIsAChangeUntilUnlockAndLockTakeItAsTheBase) {
  SvrDMItemPtr item = MakeItem(data_);
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
}

TEST_F(FileLockTest, TheStreamIsAskedNotTheName) {
  SvrDMItemPtr item = MakeItem(data_);
  // A newer file moved in under the held name is not the file held.
  std::string const newer = dir_.Write("newer.csv", "other rows");
  SetModificationTime(newer, kBase + 60);
  ASSERT_EQ(std::rename(newer.c_str(), data_.c_str()), 0);
  EXPECT_FALSE(item->SavFileExternallyChanged());
}

TEST_F(FileLockTest, FileNameReopensForACaseChangeAndRetriesAnUnopenableFileLater) {
  SvrDMItemPtr item = MakeItem(data_);
  SetModificationTime(data_, kBase + 9);
  item->FileName(upper_);  // the same file under another name: reopened, new base
  ExpectHold(item, upper_, kBase + 9, 1);

  std::string const later = dir_.PathOf("later.csv");
  EXPECT_NO_THROW(item->FileName(later));  // the old file goes all the same
  ExpectHold(item, "", 0, 0);
  EXPECT_FALSE(item->SavFileExternallyChanged());
  dir_.Write("later.csv", "rows");
  SetModificationTime(later, kBase + 3);
  item->LockSavFileInUse();
  ExpectHold(item, later, kBase + 3, 1);
  item->FileName("");
  ExpectHold(item, "", 0, 0);
}

TEST_F(FileLockTest, RegistryHoldsAFileOnceAndMatchesItsNameWithoutCase) {
  ServerDataManager registry;
  LocallyUniqueID const first = registry.Add(*new QUOR_DataSource(nullptr), data_, true);
  SvrDMItemPtr second =
      registry.GetDataSet(registry.Add(*new QUOR_DataSource(nullptr), upper_, true));
  EXPECT_EQ(second->sharedFileName, upper_);
  ExpectHold(second, "", 0, 1);
  SetModificationTime(data_, kBase - 1);
  EXPECT_TRUE(registry.SavFileExternallyChanged(upper_));
  // With the holder gone nobody holds the file, and nobody is asked.
  registry.Delete(first);
  ExpectHold(second, "", 0, 0);
  EXPECT_FALSE(registry.SavFileExternallyChanged(data_));
}

}  // namespace
