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
  // Starts a thread that holds read or write access until `end` is set, and
  // returns once it holds.
  void Hold(bool write, std::shared_future<void> end) {
    std::promise<void> holding;
    std::future<void> holds = holding.get_future();
    holders_.emplace_back([this, write, end, holding = std::move(holding)]() mutable {
      std::unique_ptr<SvrDMInputDataSource> access(
          write ? new SvrDMWriteableDataSource(registry_, id_, false, nullptr)
                : new SvrDMInputDataSource(registry_, id_, false));
      holding.set_value();
      end.wait();
    });
    holds.wait();
  }
  void ExpectCounts(int writers, int readers) {
    for (auto& holder : holders_) holder.join();
    holders_.clear();
    EXPECT_EQ(item_->writersCount, writers);
    EXPECT_EQ(item_->readersCount, readers);
  }

  ServerDataManager registry_;
  LocallyUniqueID id_ = registry_.Add(*new TrackedSource, "", false);
  SvrDMItemPtr item_ = registry_.GetDataSet(id_);
  std::vector<std::thread> holders_;
};

TEST_F(AccessLockTest, ReadersShareTheLockWhileABlockingWriterWaitsThenGetsIt) {
  std::promise<void> readersMayEnd;
  std::shared_future<void> end = readersMayEnd.get_future().share();
  Hold(false, end);
  Hold(false, end);  // returns only if both hold at once
  std::atomic<bool> readersReleased{false};
  std::thread writer([&] {
    SvrDMWriteableDataSource access(registry_, id_, false, nullptr);
    EXPECT_TRUE(readersReleased) << "the writer got in beside the readers";
  });
  while (item_->writersCount != 1) std::this_thread::yield();  // counted before it asks
  EXPECT_EQ(item_->readersCount, 2);
  readersReleased = true;
  readersMayEnd.set_value();
  writer.join();
  ExpectCounts(0, 0);
}

TEST_F(AccessLockTest, FailedTryLeavesTheHoldersLockAndBothCountersAsTheyWere) {
  EXPECT_EQ(TryWrite(item_), 0);
  EXPECT_FALSE(item_->writeLockFailed) << "a try that succeeded marked a failure";
  for (bool writeHolder : {false, true}) {
    SCOPED_TRACE(writeHolder ? "against a writer" : "against a reader");
    std::promise<void> holderMayEnd;
    Hold(writeHolder, holderMayEnd.get_future().share());
    // The second try shows that the first one's end left the lock alone.
    EXPECT_EQ(TryWrite(item_) + TryWrite(item_), 110);
    EXPECT_EQ(item_->writersCount, writeHolder ? 1 : 0);
    EXPECT_EQ(item_->readersCount, writeHolder ? 0 : 1);
    EXPECT_TRUE(item_->writeLockFailed);
    holderMayEnd.set_value();
    ExpectCounts(0, 0);
    EXPECT_EQ(TryWrite(item_), 0);
  }
}

// Holders come and go while tries fail; whoever holds checks what it may
// rely on. Among writers alone a writer sees no reader counted, so a failed
// try never passes for a reader even for a moment; with readers about, a
// reader is counted off just after its release, so only the readers check.
// `written` changes under write access alone: a second writer inside is a
// race for the thread sanitizer.
TEST_F(AccessLockTest, HoldersSeeOnlyHoldersCountedWhileTriesFail) {
  std::atomic<int> inside{0}, breaches{0};
  bool writersAlone = true;
  int written = 0;
  auto write = [&](bool tryOnly) {
    try {
      SvrDMWriteableDataSource access(registry_, id_, tryOnly, nullptr);
      breaches += ++inside != 1 || access.WritersCount() < 1;
      breaches += writersAlone && access.ReadersCount() != 0;
      ++written, --inside;
    } catch (int code) {
      breaches += code != 55 || !tryOnly;
    }
  };
  auto read = [&] {
    SvrDMInputDataSource access(registry_, id_, false);
    breaches += inside != 0 || access.ReadersCount() < 1;
  };
  for (int readers : {0, 2}) {
    writersAlone = readers == 0;
    holders_.emplace_back([&] {
      for (int i = 0; i < 20000; ++i) write(false);
    });
    holders_.emplace_back([&] {
      for (int i = 0; i < 20000; ++i) write(true);
    });
    for (int r = 0; r < readers; ++r) {
      holders_.emplace_back([&] {
        for (int i = 0; i < 20000; ++i) read();
      });
    }
    if (readers == 0)
      holders_.emplace_back([&] {
        for (int i = 0; i < 20000; ++i) write(true);
      });
    ExpectCounts(0, 0);
  }
  EXPECT_EQ(breaches, 0);
  EXPECT_GE(written, 40000);
}

}  // namespace
