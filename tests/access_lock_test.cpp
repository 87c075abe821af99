// The access lock across threads. Where a thread can only be seen waiting
// inside the lock, the test waits for the count the waiter publishes first.
#include <future>
#include <thread>

#include <gtest/gtest.h>

#include "ServerDataManager.h"
#include "support/access_probes.h"

namespace {

class AccessLockTest : public ::testing::Test {
 protected:
  // Starts a thread that takes read or write access (try or not) and holds
  // it until Release; the future is ready once it holds.
  std::future<void> Hold(bool write, bool tryOnly = false) {
    std::promise<void> holding;
    std::future<void> holds = holding.get_future();
    threads_.emplace_back([=, end = end_, holding = std::move(holding)]() mutable {
      std::unique_ptr<SvrDMInputDataSource> access(
          write ? new SvrDMWriteableDataSource(item_, tryOnly, nullptr)
                : new SvrDMInputDataSource(item_, false));
      holding.set_value();
      end.wait();
    });
    return holds;
  }
  // Lets the holders go and gives writers * 10 + readers counted after.
  int Release() {
    release_.set_value();
    for (std::thread& thread : threads_) thread.join();
    threads_.clear();
    release_ = {};
    end_ = release_.get_future().share();
    return Counted();
  }
  int Counted() { return item_->writersCount * 10 + item_->readersCount; }

  ServerDataManager registry_;
  SvrDMItemPtr item_ = registry_.GetDataSet(registry_.Add(*new TrackedSource, "", false));
  std::vector<std::thread> threads_;
  std::promise<void> release_;
  std::shared_future<void> end_ = release_.get_future().share();
};

// A failed try leaves the holders' lock and both counters as they were; the
// second try shows that the first one's end gave nothing back.
TEST_F(AccessLockTest, ReadersShareWhileABlockingWriterWaitsAndFailedTriesLeaveNoTrace) {
  EXPECT_EQ(TryWrite(item_), 0);
  EXPECT_FALSE(item_->writeLockFailed) << "a try that succeeded marked a failure";
  Hold(false).wait();
  Hold(false).wait();  // both hold at once
  EXPECT_EQ(TryWrite(item_) + TryWrite(item_), 110);
  EXPECT_TRUE(item_->writeLockFailed);
  std::future<void> writer = Hold(true);
  while (Counted() != 12) std::this_thread::yield();  // the writer is counted before it asks
  EXPECT_EQ(TryWrite(item_), 55);
  EXPECT_EQ(writer.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout)
      << "the writer got in beside the readers";
  EXPECT_EQ(Release(), 0);
  Hold(true, true).wait();
  EXPECT_EQ(TryWrite(item_) + TryWrite(item_), 110);
  EXPECT_EQ(Counted(), 10);
  EXPECT_EQ(Release(), 0);
  EXPECT_EQ(TryWrite(item_), 0);
}

}  // namespace
