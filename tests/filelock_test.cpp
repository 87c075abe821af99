#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "ServerDataManager.h"
#include "support/scratchdir.h"

namespace {

constexpr int64_t kBaseTime = 1600000000;

// Each test gets its own directory with one data file at a known time, and
// checks on the way out that every stream it opened was closed again.
class FileLockTest : public ::testing::Test {
 protected:
  void SetUp() override {
    descriptorsAtStart_ = CountOpenDescriptors();
    dataFile_ = dir_.Write("survey.sav", "rows");
    SetModificationTime(dataFile_, kBaseTime);
  }

  void TearDown() override { EXPECT_EQ(CountOpenDescriptors(), descriptorsAtStart_); }

  // An item as the registry builds it, with a plain source and `name`.
  static SvrDMItemPtr MakeItem(std::string const& name, QUOR_DataSource* source = nullptr) {
    return SvrDMItemPtr(new SvrDMItem(LocallyUniqueID(0, 7), source, nullptr, 0, name, true));
  }

  // Descriptors opened since the test began.
  int ExtraDescriptors() const { return CountOpenDescriptors() - descriptorsAtStart_; }

  ScratchDir dir_;
  std::string dataFile_;

 private:
  int descriptorsAtStart_ = 0;
};

TEST_F(FileLockTest, ConstructorHoldsTheFileAndDestructorLetsItGo) {
  {
    SvrDMItemPtr item = MakeItem(dataFile_);
    ASSERT_NE(item->lockedFile, nullptr);
    EXPECT_EQ(item->lockedFileName, dataFile_);
    EXPECT_EQ(item->lockedFileTime, kBaseTime);
    EXPECT_EQ(ExtraDescriptors(), 1);
    EXPECT_FALSE(item->SavFileExternallyChanged());
  }
  EXPECT_EQ(ExtraDescriptors(), 0);
}

TEST_F(FileLockTest, NoNameHoldsNothingAndUnlockWithNothingHeldChangesNothing) {
  SvrDMItemPtr item = MakeItem(std::string());
  item->LockSavFileInUse();
  EXPECT_EQ(item->lockedFile, nullptr);
  EXPECT_TRUE(item->lockedFileName.empty());
  EXPECT_EQ(item->lockedFileTime, 0);
  EXPECT_EQ(ExtraDescriptors(), 0);

  item->UnlockSavFileInUse();
  EXPECT_EQ(item->lockedFile, nullptr);
  EXPECT_TRUE(item->fileName.empty());
  EXPECT_FALSE(item->SavFileExternallyChanged());
}

TEST_F(FileLockTest, RepeatedLockKeepsTheStreamAndTheBaseTime) {
  SvrDMItemPtr item = MakeItem(dataFile_);
  FILE* held = item->lockedFile;
  ASSERT_NE(held, nullptr);

  SetModificationTime(dataFile_, kBaseTime + 5);
  item->LockSavFileInUse();
  EXPECT_EQ(item->lockedFile, held);
  EXPECT_EQ(ExtraDescriptors(), 1);
  // The base was not refreshed, so the change made in between still shows.
  EXPECT_EQ(item->lockedFileTime, kBaseTime);
  EXPECT_TRUE(item->SavFileExternallyChanged());
}

TEST_F(FileLockTest, AnyDifferenceOfModificationTimeCountsAsChange) {
  SvrDMItemPtr item = MakeItem(dataFile_);
  SetModificationTime(dataFile_, kBaseTime - 1);
  EXPECT_TRUE(item->SavFileExternallyChanged());
  SetModificationTime(dataFile_, kBaseTime + 1);
  EXPECT_TRUE(item->SavFileExternallyChanged());
  SetModificationTime(dataFile_, kBaseTime);
  EXPECT_FALSE(item->SavFileExternallyChanged());
}

TEST_F(FileLockTest, UnlockThenLockTakesTheNewTimeAsBase) {
  SvrDMItemPtr item = MakeItem(dataFile_);
  SetModificationTime(dataFile_, kBaseTime - 1);
  ASSERT_TRUE(item->SavFileExternallyChanged());

  item->UnlockSavFileInUse();
  EXPECT_EQ(item->lockedFile, nullptr);
  EXPECT_TRUE(item->lockedFileName.empty());
  EXPECT_EQ(item->lockedFileTime, 0);
  EXPECT_EQ(ExtraDescriptors(), 0);
  EXPECT_FALSE(item->SavFileExternallyChanged());

  item->LockSavFileInUse();
  EXPECT_EQ(item->lockedFileTime, kBaseTime - 1);
  EXPECT_FALSE(item->SavFileExternallyChanged());
  EXPECT_EQ(ExtraDescriptors(), 1);
}

TEST_F(FileLockTest, TheStreamIsAskedNotTheName) {
  SvrDMItemPtr item = MakeItem(dataFile_);
  // A new file under the same name, with another time: the held stream
  // stays on the file that was opened, which did not change.
  std::string replacement = dir_.Write("replacement.sav", "other rows");
  SetModificationTime(replacement, kBaseTime + 60);
  ASSERT_EQ(std::rename(replacement.c_str(), dataFile_.c_str()), 0);
  EXPECT_EQ(ModificationTime(dataFile_), kBaseTime + 60);
  EXPECT_FALSE(item->SavFileExternallyChanged());
}

TEST_F(FileLockTest, FileThatCannotBeOpenedIsNotHeldAndIsTriedAgain) {
  std::string missing = dir_.PathOf("later.sav");
  SvrDMItemPtr item = MakeItem(missing);
  EXPECT_EQ(item->fileName, missing);
  EXPECT_EQ(item->lockedFile, nullptr);
  EXPECT_TRUE(item->lockedFileName.empty());
  EXPECT_FALSE(item->SavFileExternallyChanged());
  EXPECT_EQ(ExtraDescriptors(), 0);

  dir_.Write("later.sav", "rows");
  SetModificationTime(missing, kBaseTime + 3);
  item->LockSavFileInUse();
  ASSERT_NE(item->lockedFile, nullptr);
  EXPECT_EQ(item->lockedFileName, missing);
  EXPECT_EQ(item->lockedFileTime, kBaseTime + 3);
  EXPECT_EQ(ExtraDescriptors(), 1);
}

TEST_F(FileLockTest, MovingToAnUnopenableNameLetsTheOldFileGo) {
  SvrDMItemPtr item = MakeItem(dataFile_);
  ASSERT_EQ(ExtraDescriptors(), 1);
  item->FileName(dir_.PathOf("missing.sav"));
  EXPECT_EQ(item->fileName, dir_.PathOf("missing.sav"));
  EXPECT_EQ(item->lockedFile, nullptr);
  EXPECT_TRUE(item->lockedFileName.empty());
  EXPECT_EQ(item->lockedFileTime, 0);
  EXPECT_EQ(ExtraDescriptors(), 0);
}

TEST_F(FileLockTest, FileNameMovesTheHoldAndAnEmptyNameEndsIt) {
  std::string other = dir_.Write("other.sav", "rows");
  SetModificationTime(other, kBaseTime + 100);
  SvrDMItemPtr item = MakeItem(dataFile_);

  item->FileName(other);
  EXPECT_EQ(item->lockedFileName, other);
  EXPECT_EQ(item->lockedFileTime, kBaseTime + 100);
  EXPECT_EQ(ExtraDescriptors(), 1);

  // Only the held file counts: the one let go may change freely.
  SetModificationTime(dataFile_, kBaseTime - 1);
  EXPECT_FALSE(item->SavFileExternallyChanged());

  item->FileName(std::string());
  EXPECT_TRUE(item->fileName.empty());
  EXPECT_EQ(item->lockedFile, nullptr);
  EXPECT_TRUE(item->lockedFileName.empty());
  EXPECT_EQ(ExtraDescriptors(), 0);
  SetModificationTime(other, kBaseTime);
  EXPECT_FALSE(item->SavFileExternallyChanged());
}

TEST_F(FileLockTest, NameChangedOnlyInCaseIsReopened) {
  // On a case-blind file system both spellings reach one file; a second
  // link gives the same here.
  std::string upper = dir_.Link("survey.sav", "SURVEY.sav");
  SvrDMItemPtr item = MakeItem(dataFile_);
  SetModificationTime(dataFile_, kBaseTime + 9);
  ASSERT_TRUE(item->SavFileExternallyChanged());

  item->FileName(upper);
  // Closed and opened afresh, so the base is the file's present time.
  EXPECT_EQ(item->lockedFileName, upper);
  EXPECT_EQ(item->lockedFileTime, kBaseTime + 9);
  EXPECT_FALSE(item->SavFileExternallyChanged());
  EXPECT_EQ(ExtraDescriptors(), 1);
}

TEST_F(FileLockTest, PasswordReplacesStringAndFlag) {
  SvrDMItemPtr item = MakeItem(std::string());
  item->Password("first", true);
  item->Password("second", false);
  EXPECT_EQ(item->password, "second");
  EXPECT_FALSE(item->passwordMangled);
  EXPECT_FALSE(item->PasswordMangled());
}

TEST_F(FileLockTest, FileSourceAtTheHeadDecidesWhetherThePasswordIsMangled) {
  auto* fileSource = new SystemFileDataSource();
  fileSource->SetPasswordMangled(true);
  SvrDMItemPtr item = MakeItem(std::string(), fileSource);
  item->Password("secret", false);
  EXPECT_TRUE(item->PasswordMangled());
  fileSource->SetPasswordMangled(false);
  item->passwordMangled = true;
  EXPECT_FALSE(item->PasswordMangled());
}

TEST_F(FileLockTest, OtherSourcesAndNoSourceGiveTheStoredFlag) {
  SvrDMItemPtr bare = MakeItem(std::string());
  bare->Password("secret", true);
  EXPECT_TRUE(bare->PasswordMangled());

  // A file source behind another source is not asked.
  auto* fileSource = new SystemFileDataSource();
  fileSource->SetPasswordMangled(true);
  SvrDMItemPtr chained = MakeItem(std::string(), new QUOR_DataSource(fileSource));
  chained->Password("secret", false);
  EXPECT_FALSE(chained->PasswordMangled());
  chained->Password("secret", true);
  EXPECT_TRUE(chained->PasswordMangled());
}

// The registry's side: its own table, so no test sees another's datasets.
class RegistryFileLockTest : public FileLockTest {
 protected:
  // The datasets go before the descriptor count is taken.
  void TearDown() override {
    registry_.Clear();
    FileLockTest::TearDown();
  }

  LocallyUniqueID AddFile(std::string const& name) {
    return registry_.Add(*new QUOR_DataSource(nullptr), name, true);
  }
  SvrDMItemPtr Item(LocallyUniqueID id) { return registry_.GetDataSet(id); }

  ServerDataManager registry_;
};

TEST_F(RegistryFileLockTest, OneFileIsHeldByOneDataset) {
  LocallyUniqueID first = AddFile(dataFile_);
  LocallyUniqueID second = AddFile(dataFile_);
  EXPECT_EQ(ExtraDescriptors(), 1);

  SvrDMItemPtr later = Item(second);
  EXPECT_TRUE(later->fileName.empty());
  EXPECT_EQ(later->sharedFileName, dataFile_);
  EXPECT_EQ(later->lockedFile, nullptr);
  EXPECT_NE(Item(first)->lockedFile, nullptr);

  SetModificationTime(dataFile_, kBaseTime - 1);
  EXPECT_TRUE(registry_.SavFileExternallyChanged(dataFile_));

  // With the holder gone nobody holds the file, and nobody is asked.
  registry_.Delete(first);
  EXPECT_EQ(ExtraDescriptors(), 0);
  EXPECT_FALSE(registry_.SavFileExternallyChanged(dataFile_));
}

TEST_F(RegistryFileLockTest, NameThatDiffersOnlyInCaseIsOneNameForTheRegistry) {
  std::string upper = dir_.Link("survey.sav", "SURVEY.sav");
  LocallyUniqueID first = AddFile(dataFile_);
  LocallyUniqueID second = AddFile(upper);
  EXPECT_EQ(Item(first)->fileName, dataFile_);
  EXPECT_TRUE(Item(second)->fileName.empty());
  EXPECT_EQ(Item(second)->sharedFileName, upper);
  EXPECT_EQ(ExtraDescriptors(), 1);

  EXPECT_FALSE(registry_.SavFileExternallyChanged(upper));
  SetModificationTime(dataFile_, kBaseTime + 1);
  EXPECT_TRUE(registry_.SavFileExternallyChanged(upper));
  EXPECT_FALSE(registry_.SavFileExternallyChanged(dir_.PathOf("unknown.sav")));
}

TEST_F(RegistryFileLockTest, LastMatchingDatasetAnswers) {
  std::string other = dir_.Write("other.sav", "rows");
  LocallyUniqueID first = AddFile(dataFile_);
  LocallyUniqueID second = AddFile(other);
  // The second dataset moves onto the first one's file after it changed,
  // so the two hold one file against different base times.
  SetModificationTime(dataFile_, kBaseTime + 1);
  Item(second)->FileName(dataFile_);
  ASSERT_TRUE(Item(first)->SavFileExternallyChanged());
  ASSERT_FALSE(Item(second)->SavFileExternallyChanged());
  EXPECT_FALSE(registry_.SavFileExternallyChanged(dataFile_));

  SetModificationTime(dataFile_, kBaseTime);
  ASSERT_FALSE(Item(first)->SavFileExternallyChanged());
  ASSERT_TRUE(Item(second)->SavFileExternallyChanged());
  EXPECT_TRUE(registry_.SavFileExternallyChanged(dataFile_));
}

TEST_F(RegistryFileLockTest, DatasetsWithoutAFileNameAreSkipped) {
  // The nameless entry comes first, so that were it asked, the holder's
  // answer after it would stand.
  registry_.AddEmpty(true);
  LocallyUniqueID holder = AddFile(dataFile_);
  SetModificationTime(dataFile_, kBaseTime - 1);
  // The name is taken away without letting the file go: the stream still
  // reports the change, but an entry without a name is never asked.
  Item(holder)->fileName.clear();
  ASSERT_TRUE(Item(holder)->SavFileExternallyChanged());
  EXPECT_FALSE(registry_.SavFileExternallyChanged(std::string()));
}

TEST_F(RegistryFileLockTest, PasswordReachesTheDatasetAndUnknownIdentifierIsIgnored) {
  LocallyUniqueID id = registry_.Add(*new QUOR_DataSource(nullptr), std::string(), "old", true, true);
  registry_.Password(id, "new", false);
  EXPECT_EQ(Item(id)->password, "new");
  EXPECT_FALSE(Item(id)->passwordMangled);

  EXPECT_NO_THROW(registry_.Password(LocallyUniqueID(0, 999), "other", true));
  EXPECT_NO_THROW(registry_.Password(LocallyUniqueID(), "other", true));
  EXPECT_EQ(Item(id)->password, "new");
  EXPECT_FALSE(Item(id)->passwordMangled);
}

}  // namespace
