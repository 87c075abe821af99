#include <gtest/gtest.h>

#include <filesystem>
#include <tuple>
#include <utility>

#include "ServerDataManager.h"
#include "support/queues.h"
#include "support/scratchdir.h"
#include "support/tracked_source.h"

namespace {

namespace fs = std::filesystem;
constexpr int64_t kBase = 1600000000;

// The item's data file and its chain of sources. One data file at a known
// time, and a second spelling of it, as a case-blind file system gives;
// every stream opened must be closed again.
class FileLockTest : public ::testing::Test {
 protected:
  void SetUp() override { SetModificationTime(data_, kBase), fs::create_hard_link(data_, upper_); }
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
  SetModificationTime(data_, kBase - 1);
  item->LockSavFileInUse();  // the same name: neither reopened nor a new base
  EXPECT_EQ(Held(item), data_ + " 0 1");
  EXPECT_TRUE(item->SavFileExternallyChanged());
  item->UnlockSavFileInUse();
  EXPECT_EQ(Held(item), "none -" + std::to_string(kBase) + " 0");
  EXPECT_FALSE(item->SavFileExternallyChanged());
  item->LockSavFileInUse();
  EXPECT_EQ(Held(item), data_ + " -1 1");
  EXPECT_FALSE(item->SavFileExternallyChanged());
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

// Whether the item starts with the chain A -> B -> C (head first) or with no
// source; the new head: 0 none, 'A'..'C' a member of the old chain, 'N' a new
// source over A, 'X' the head of a new chain X -> Y; what the call deletes;
// and what is deleted once the item is gone too. Every replacement of a
// source queues ResetUndo, before anything a pass adds, and with a source
// the file is held afresh, its present time the base.
TEST_F(FileLockTest, SetDataSetDeletesExactlyTheSourcesLeftOverHeadFirst) {
  using Names = std::vector<std::string>;
  std::tuple<bool, char, Names, Names> const cases[] = {
      {false, 0, {}, {}},
      {false, 'X', {}, {"X", "Y"}},
      {true, 'A', {}, {"A", "B", "C"}},
      {true, 'B', {"A"}, {"A", "B", "C"}},
      {true, 'C', {"A", "B"}, {"A", "B", "C"}},
      {true, 'N', {}, {"N", "A", "B", "C"}},
      {true, 'X', {"A", "B", "C"}, {"A", "B", "C", "X", "Y"}},
      {true, 0, {"A", "B", "C"}, {"A", "B", "C"}},
  };
  for (auto const& [withChain, next, deletedBySet, deletedInAll] : cases) {
    SCOPED_TRACE(std::string(withChain ? "A -> " : "none -> ") + next);
    SetModificationTime(data_, kBase);
    Names log;
    QUOR_DataSource* head = withChain ? TrackedSource::Chain(&log, {"A", "B", "C"}) : nullptr;
    SvrDMItemPtr item(new SvrDMItem({0, 1}, head, nullptr, 0, head ? data_ : "", true));
    item->fileName = data_;  // an empty dataset holds no file until it has a source
    for (char at = 'A'; at < next && next <= 'C'; ++at) head = head->GetParentSource();
    if (next == 'N') (head = TrackedSource::Chain(&log, {"N"}))->SetParentSource(item->dataSource);
    if (next == 'X') head = TrackedSource::Chain(&log, {"X", "Y"});
    if (next == 0) head = nullptr;
    SetModificationTime(data_, kBase + 1);
    item->SetDataSet(head);
    EXPECT_EQ(log, deletedBySet);
    EXPECT_EQ(DescribeQueue(item->notifications), withChain ? Names{"ResetUndoMsg"} : Names{});
    EXPECT_EQ(Held(item), head ? data_ + " 1 1" : "none -" + std::to_string(kBase) + " 0");
    item = nullptr;
    EXPECT_EQ(log, deletedInAll);
  }
}

}  // namespace
