// The access lock across threads. Threads are ordered with gates; where a
// thread can only be seen waiting inside the lock, the test waits for the
// count that the waiter publishes before it asks. Many holders and tries at
// once are the soak's, under the thread sanitizer.
#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ServerDataManager.h"
#include "support/access_probes.h"

namespace {

// Counts arrivals; WaitFor(n) returns once n have come.
class Gate {
 public:
  void Arrive() {
    std::lock_guard<std::mutex> lock(mutex_);
    ++arrived_;
    changed_.notify_all();
  }
  void WaitFor(int expected = 1) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return arrived_ >= expected; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int arrived_ = 0;
};

class AccessLockTest : public ::testing::Test {
 protected:
  // Starts a thread that holds read or write access until `end` has an
  // arrival, and returns once it holds.
  void Hold(bool write, Gate& end) {
    holders_.emplace_back([this, write, &end] {
      std::unique_ptr<SvrDMInputDataSource> access(
          write ? new SvrDMWriteableDataSource(registry_, id_, false, nullptr)
                : new SvrDMInputDataSource(registry_, id_, false));
      holding_.Arrive();
      end.WaitFor();
    });
    holding_.WaitFor(++held_);
  }
  void JoinHolders() {
    for (std::thread& holder : holders_) holder.join();
    holders_.clear();
  }
  void ExpectCounts(int writers, int readers) {
    EXPECT_EQ(item_->writersCount, writers);
    EXPECT_EQ(item_->readersCount, readers);
  }

  std::vector<std::string> destroyed_;
  ServerDataManager registry_;
  LocallyUniqueID id_ = registry_.Add(*TrackedSource::Chain(&destroyed_, {"s"}), "", false);
  SvrDMItemPtr item_ = registry_.GetDataSet(id_);
  Gate holding_;
  int held_ = 0;
  std::vector<std::thread> holders_;
};

TEST_F(AccessLockTest, ReadersShareTheLockWhileABlockingWriterWaitsThenGetsIt) {
  Gate readersMayEnd;
  Hold(/*write=*/false, readersMayEnd);
  Hold(/*write=*/false, readersMayEnd);  // returns only if both hold at once
  ExpectCounts(0, 2);

  std::atomic<bool> readersReleased{false};
  std::thread writer([&] {
    SvrDMWriteableDataSource access(registry_, id_, false, nullptr);
    EXPECT_TRUE(readersReleased) << "the writer got in beside the readers";
  });
  // The writer counts itself before it asks for the lock.
  while (item_->writersCount != 1) std::this_thread::yield();
  ExpectCounts(1, 2);

  readersReleased = true;
  readersMayEnd.Arrive();
  writer.join();
  JoinHolders();
  ExpectCounts(0, 0);
}

TEST_F(AccessLockTest, FailedTryLeavesTheHoldersLockAndBothCountersAsTheyWere) {
  EXPECT_EQ(TryWrite(item_), 0);
  EXPECT_FALSE(item_->writeLockFailed) << "a try that succeeded marked a failure";
  for (bool writeHolder : {false, true}) {
    SCOPED_TRACE(writeHolder ? "against a writer" : "against a reader");
    Gate holderMayEnd;
    Hold(writeHolder, holderMayEnd);
    // The second try shows that the first one's end left the lock alone.
    for (int attempt = 0; attempt < 2; ++attempt) {
      EXPECT_EQ(TryWrite(item_), 55);
      ExpectCounts(writeHolder ? 1 : 0, writeHolder ? 0 : 1);
    }
    EXPECT_TRUE(item_->writeLockFailed);
    holderMayEnd.Arrive();
    JoinHolders();
    EXPECT_EQ(TryWrite(item_), 0);
    ExpectCounts(0, 0);
  }
}

TEST_F(AccessLockTest, DeleteFromAnotherThreadLeavesALiveReadAccessValid) {
  Gate reading, deleted;
  std::thread reader([&] {
    SvrDMInputDataSource access(registry_, id_, false);
    QUOR_DataSource* source = access.operator->();
    reading.Arrive();
    deleted.WaitFor();
    EXPECT_EQ(access.operator->(), source);
    EXPECT_EQ(access.ReadersCount(), 1);
  });  // the last reference: the item ends with the access, in this thread
  reading.WaitFor();
  item_ = nullptr;
  registry_.Delete(id_);
  EXPECT_THROW(registry_.GetDataSet(id_), ErrorMsg);
  EXPECT_TRUE(destroyed_.empty());
  deleted.Arrive();
  reader.join();
  EXPECT_EQ(destroyed_.size(), 1u);
}

}  // namespace
