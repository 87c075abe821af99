#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "ServerDataManager.h"
#include "support/scratchdir.h"

namespace {

constexpr int64_t kBase = 1600000000;

// Each test gets its own directory with one data file at a known time and a
// registry table of its own, and checks on the way out that every stream it
// opened was closed again.
class FileLockTest : public ::testing::Test {
 protected:
  void SetUp() override {
    atStart_ = CountOpenDescriptors();
    data_ = dir_.Write("survey.sav", "rows");
    SetModificationTime(data_, kBase);
  }
  void TearDown() override {
    registry_.Clear();
    EXPECT_EQ(CountOpenDescriptors(), atStart_);
  }

  static SvrDMItemPtr MakeItem(std::string const& name, QUOR_DataSource* source = nullptr) {
    return SvrDMItemPtr(new SvrDMItem(LocallyUniqueID(0, 7), source, nullptr, 0, name, true));
  }
  // The item holds `name` against the base `time`, or nothing for an empty
  // name, and the test has `open` more descriptors than at its start.
  void ExpectHold(SvrDMItemPtr const& item, std::string const& name, int64_t time, int open) {
    EXPECT_EQ(item->lockedFile != nullptr, !name.empty());
    EXPECT_EQ(item->lockedFileName, name);
    EXPECT_EQ(item->lockedFileTime, time);
    EXPECT_EQ(CountOpenDescriptors() - atStart_, open);
  }
  LocallyUniqueID AddFile(std::string const& name) {
    return registry_.Add(*new QUOR_DataSource(nullptr), name, true);
  }
  SvrDMItemPtr Item(LocallyUniqueID id) { return registry_.GetDataSet(id); }

  ScratchDir dir_;
  std::string data_;
  ServerDataManager registry_;

 private:
  int atStart_ = 0;
};

TEST_F(FileLockTest, HoldLastsForTheItemsLifeAndARepeatedLockKeepsStreamAndBase) {
  {
    SvrDMItemPtr item = MakeItem(data_);
    FILE* const held = item->lockedFile;
    ExpectHold(item, data_, kBase, 1);
    SetModificationTime(data_, kBase + 5);
    item->LockSavFileInUse();
    EXPECT_EQ(item->lockedFile, held);
    ExpectHold(item, data_, kBase, 1);
    EXPECT_TRUE(item->SavFileExternallyChanged());
  }
  ExpectHold(MakeItem(""), "", 0, 0);
}

TEST_F(FileLockTest, NoNameHoldsNothingAndUnlockingNothingChangesNothing) {
  SvrDMItemPtr item = MakeItem("");
  item->LockSavFileInUse();
  item->UnlockSavFileInUse();
  ExpectHold(item, "", 0, 0);
  EXPECT_FALSE(item->SavFileExternallyChanged());
}

TEST_F(FileLockTest, AnyTimeDifferenceIsAChangeUntilUnlockAndLockTakeTheNewBase) {
  SvrDMItemPtr item = MakeItem(data_);
  SetModificationTime(data_, kBase + 1);
  EXPECT_TRUE(item->SavFileExternallyChanged());
  SetModificationTime(data_, kBase);
  EXPECT_FALSE(item->SavFileExternallyChanged());
  SetModificationTime(data_, kBase - 1);
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
  // A new file under the same name, with another time: the held stream
  // stays on the file that was opened, which did not change.
  std::string const replacement = dir_.Write("replacement.sav", "other rows");
  SetModificationTime(replacement, kBase + 60);
  ASSERT_EQ(std::rename(replacement.c_str(), data_.c_str()), 0);
  EXPECT_FALSE(item->SavFileExternallyChanged());
}

TEST_F(FileLockTest, UnopenableFileLetsTheOldOneGoIsNotHeldAndIsTriedAgain) {
  std::string const later = dir_.PathOf("later.sav");
  SvrDMItemPtr item = MakeItem(data_);
  EXPECT_NO_THROW(item->FileName(later));
  EXPECT_EQ(item->fileName, later);
  ExpectHold(item, "", 0, 0);
  EXPECT_FALSE(item->SavFileExternallyChanged());

  dir_.Write("later.sav", "rows");
  SetModificationTime(later, kBase + 3);
  item->LockSavFileInUse();
  ExpectHold(item, later, kBase + 3, 1);
}

TEST_F(FileLockTest, FileNameMovesTheHoldEvenForACaseChangeAndAnEmptyNameEndsIt) {
  // Two spellings of one file, as on a case-blind file system.
  std::string const upper = dir_.Link("survey.sav", "SURVEY.sav");
  SvrDMItemPtr item = MakeItem(data_);
  SetModificationTime(data_, kBase + 9);
  item->FileName(upper);  // closed and opened afresh: the base is the present time
  ExpectHold(item, upper, kBase + 9, 1);
  EXPECT_FALSE(item->SavFileExternallyChanged());

  std::string const other = dir_.Write("other.sav", "rows");
  SetModificationTime(other, kBase + 100);
  item->FileName(other);
  ExpectHold(item, other, kBase + 100, 1);
  SetModificationTime(data_, kBase - 1);  // the file let go may change freely
  EXPECT_FALSE(item->SavFileExternallyChanged());

  item->FileName("");
  EXPECT_TRUE(item->fileName.empty());
  ExpectHold(item, "", 0, 0);
}

TEST_F(FileLockTest, OnlyAFileSourceAtTheHeadOverridesTheStoredMangledFlag) {
  auto* head = new SystemFileDataSource();
  head->SetPasswordMangled(true);
  SvrDMItemPtr item = MakeItem("", head);
  item->Password("secret", false);
  EXPECT_TRUE(item->PasswordMangled());
  head->SetPasswordMangled(false);
  item->passwordMangled = true;
  EXPECT_FALSE(item->PasswordMangled());

  auto* deeper = new SystemFileDataSource();
  deeper->SetPasswordMangled(true);
  SvrDMItemPtr chained = MakeItem("", new QUOR_DataSource(deeper));
  chained->Password("secret", false);
  EXPECT_FALSE(chained->PasswordMangled());
  SvrDMItemPtr bare = MakeItem("");
  bare->Password("secret", true);
  EXPECT_TRUE(bare->PasswordMangled());
}

TEST_F(FileLockTest, RegistryHoldsAFileOnceAndMatchesItsNameWithoutCase) {
  std::string const upper = dir_.Link("survey.sav", "SURVEY.sav");
  LocallyUniqueID const first = AddFile(data_);
  SvrDMItemPtr second = Item(AddFile(upper));
  EXPECT_TRUE(second->fileName.empty());
  EXPECT_EQ(second->sharedFileName, upper);
  ExpectHold(second, "", 0, 1);

  EXPECT_FALSE(registry_.SavFileExternallyChanged(upper));
  SetModificationTime(data_, kBase - 1);
  EXPECT_TRUE(registry_.SavFileExternallyChanged(upper));
  EXPECT_FALSE(registry_.SavFileExternallyChanged(dir_.PathOf("unknown.sav")));

  // With the holder gone nobody holds the file, and nobody is asked.
  registry_.Delete(first);
  ExpectHold(second, "", 0, 0);
  EXPECT_FALSE(registry_.SavFileExternallyChanged(data_));
}

TEST_F(FileLockTest, RegistryTakesTheLastMatchAndSkipsDatasetsWithoutAName) {
  // The nameless entry comes first: were it asked, a later answer would hide it.
  SvrDMItemPtr nameless = Item(AddFile(dir_.Write("nameless.sav", "rows")));
  SvrDMItemPtr first = Item(AddFile(data_));
  SvrDMItemPtr second = Item(AddFile(dir_.Write("other.sav", "rows")));
  // The second moves onto the first one's file after it changed, so the two
  // hold one file against different base times.
  SetModificationTime(data_, kBase + 1);
  second->FileName(data_);
  ASSERT_TRUE(first->SavFileExternallyChanged());
  EXPECT_FALSE(registry_.SavFileExternallyChanged(data_));
  SetModificationTime(data_, kBase);
  ASSERT_TRUE(second->SavFileExternallyChanged());
  EXPECT_TRUE(registry_.SavFileExternallyChanged(data_));

  // The name is taken away without letting the file go: the stream still
  // reports a change, but an entry without a name is never asked.
  SetModificationTime(nameless->lockedFileName, kBase - 1);
  nameless->fileName.clear();
  ASSERT_TRUE(nameless->SavFileExternallyChanged());
  EXPECT_FALSE(registry_.SavFileExternallyChanged(std::string()));
}

TEST_F(FileLockTest, RegistryPasswordReachesTheDatasetAndIgnoresUnknownIdentifiers) {
  LocallyUniqueID const id = registry_.Add(*new QUOR_DataSource(nullptr), "", "old", true, true);
  registry_.Password(id, "new", false);
  EXPECT_NO_THROW(registry_.Password(LocallyUniqueID(0, 999), "other", true));
  EXPECT_EQ(Item(id)->password, "new");
  EXPECT_FALSE(Item(id)->passwordMangled);
}

}  // namespace
