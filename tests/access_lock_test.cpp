// The access lock across threads. Where a thread can only be seen waiting
// inside the lock, the test waits for the count the waiter publishes first.
#include <atomic>
#include <future>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ServerDataManager.h"
#include "support/access_probes.h"

namespace {

class AccessLockTest : public ::testing::Test {
 protected:
  // Starts a thread that holds read or write access until `end` is ready,
  // and returns once it holds.
  void Hold(bool write, std::shared_future<void> end) {
    std::promise<void> holding;
    std::future<void> holds = holding.get_future();
    threads_.emplace_back([this, write, end, holding = std::move(holding)]() mutable {
      std::unique_ptr<SvrDMInputDataSource> access(
          write ? new SvrDMWriteableDataSource(item_, false, nullptr)
                : new SvrDMInputDataSource(item_, false));
      holding.set_value();
      end.wait();
    });
    holds.wait();
  }
  // Joins every thread and gives writers * 10 + readers counted.
  int Join() {
    for (std::thread& thread : threads_) thread.join();
    threads_.clear();
    return item_->writersCount * 10 + item_->readersCount;
  }

  ServerDataManager registry_;
  SvrDMItemPtr item_ = registry_.GetDataSet(registry_.Add(*new TrackedSource, "", false));
  std::vector<std::thread> threads_;
};

TEST_F(AccessLockTest, ReadersShareTheLockWhileABlockingWriterWaitsThenGetsIt) {
  std::promise<void> release;
  std::shared_future<void> end = release.get_future().share();
  Hold(false, end);
  Hold(false, end);  // returns only if both hold at once
  std::atomic<bool> released{false};
  threads_.emplace_back([&] {
    SvrDMWriteableDataSource access(item_, false, nullptr);
    EXPECT_TRUE(released) << "the writer got in beside the readers";
  });
  while (item_->writersCount != 1) std::this_thread::yield();  // counted before it asks
  EXPECT_EQ(item_->readersCount, 2);
  released = true;
  release.set_value();
  EXPECT_EQ(Join(), 0);
}

TEST_F(AccessLockTest, FailedTryLeavesTheHoldersLockAndBothCountersAsTheyWere) {
  EXPECT_EQ(TryWrite(item_), 0);
  EXPECT_FALSE(item_->writeLockFailed) << "a try that succeeded marked a failure";
  for (bool write : {false, true}) {
    std::promise<void> release;
    Hold(write, release.get_future().share());
    // The second try shows that the first one's end left the lock alone.
    EXPECT_EQ(TryWrite(item_) + TryWrite(item_), 110);
    EXPECT_EQ(item_->writersCount * 10 + item_->readersCount, write ? 10 : 1);
    EXPECT_TRUE(item_->writeLockFailed);
    release.set_value();
    EXPECT_EQ(Join(), 0);
    EXPECT_EQ(TryWrite(item_), 0);
  }
}

// Writers come and go while tries fail, and check what they may rely on: a
// writer is alone inside and counted, and sees no reader counted, so a
// failed try never passes for a reader even for a moment. `written` changes
// under write access alone: a second writer inside is a race for the thread
// sanitizer.
TEST_F(AccessLockTest, WritersSeeOnlyThemselvesCountedWhileTriesFail) {
  std::atomic<int> inside{0}, breaches{0};
  int written = 0;
  for (bool tryOnly : {false, true, true}) {
    threads_.emplace_back([&, tryOnly] {
      for (int i = 0; i < 20000; ++i) {
        try {
          SvrDMWriteableDataSource access(item_, tryOnly, nullptr);
          breaches += ++inside != 1 || access.WritersCount() < 1 || access.ReadersCount() != 0;
          ++written, --inside;
        } catch (int code) {
          breaches += code != 55 || !tryOnly;
        }
      }
    });
  }
  EXPECT_EQ(Join(), 0);
  EXPECT_EQ(breaches, 0);
  EXPECT_GE(written, 20000);
}

}  // namespace
