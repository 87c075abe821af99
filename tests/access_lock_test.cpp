// The access lock across threads. Threads are ordered with latches; where a
// thread can only be seen waiting inside the lock, the test waits for the
// count that the waiter publishes before it asks.
#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ServerDataManager.h"
#include "support/access_probes.h"

namespace {

// Counts arrivals and lets a waiter pass once `expected` have arrived.
class ArrivalCounter {
 public:
  void Arrive() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      ++arrived_;
    }
    changed_.notify_all();
  }
  void WaitFor(int expected) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return arrived_ >= expected; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int arrived_ = 0;
};

template <class Predicate>
void SpinUntil(Predicate predicate) {
  while (!predicate()) std::this_thread::yield();
}

// One try for write access from the calling thread: 55 on failure, 0 when
// the lock was had (and is given back at once).
int TryWrite(ServerDataManager& registry, LocallyUniqueID id) {
  try {
    SvrDMWriteableDataSource writer(registry, id, true, nullptr);
  } catch (int code) {
    return code;
  }
  return 0;
}

class AccessLockTest : public ::testing::Test {
 protected:
  AccessLockTest() {
    id_ = registry_.Add(*new ProbeSource(&destroyed_), "lock.sav", false);
    item_ = registry_.GetDataSet(id_);
  }

  // Runs TryWrite on a thread of its own, so the caller's locks count as
  // another thread's.
  int TryWriteElsewhere() {
    int result = -1;
    std::thread other([&] { result = TryWrite(registry_, id_); });
    other.join();
    return result;
  }

  ServerDataManager registry_;
  std::atomic<int> destroyed_{0};
  LocallyUniqueID id_;
  SvrDMItemPtr item_;
};

TEST_F(AccessLockTest, TryOnAFreeItemSucceedsAndAFailedTrysReleaseLeavesTheReaderHolding) {
  EXPECT_TRUE(item_->AcquireWriteLock(true));
  EXPECT_FALSE(item_->writeLockFailed);
  item_->ReleaseLock();

  ASSERT_TRUE(item_->AcquireReadLock(false));
  std::thread failing([&] {
    EXPECT_FALSE(item_->AcquireWriteLock(true));
    EXPECT_TRUE(item_->writeLockFailed);
    item_->ReleaseLock();  // belongs to the failed try
  });
  failing.join();
  EXPECT_EQ(TryWriteElsewhere(), 55) << "the failed try's release freed the reader's lock";
  item_->ReleaseLock();
  std::thread blocking([&] {
    EXPECT_TRUE(item_->AcquireWriteLock(false));
    item_->ReleaseLock();
  });
  blocking.join();
}

TEST_F(AccessLockTest, ReadersShareTheLockWhileABlockingWriterWaitsThenGetsIt) {
  ArrivalCounter readersHold;
  TestLatch readersMayEnd;
  std::vector<std::thread> readers;
  for (int i = 0; i < 2; ++i) {
    readers.emplace_back([&] {
      SvrDMInputDataSource reader(registry_, id_, false);
      readersHold.Arrive();
      readersMayEnd.Wait();
    });
  }
  readersHold.WaitFor(2);
  SvrDMDataset handle(item_);
  EXPECT_EQ(handle.ReadersCount(), 2);

  std::atomic<bool> writerHolds{false};
  std::thread writer([&] {
    SvrDMWriteableDataSource access(registry_, id_, false, nullptr);
    writerHolds = true;
  });
  // The writer counts itself before it asks for the lock.
  SpinUntil([&] { return handle.WritersCount() == 1; });
  EXPECT_FALSE(writerHolds);
  EXPECT_EQ(handle.ReadersCount(), 2);

  readersMayEnd.Open();
  for (std::thread& reader : readers) reader.join();
  writer.join();
  EXPECT_TRUE(writerHolds);
  EXPECT_EQ(handle.WritersCount(), 0);
  EXPECT_EQ(handle.ReadersCount(), 0);
}

TEST_F(AccessLockTest, FailedTryAgainstReadersLeavesTheLockAndCountersAsTheyWere) {
  ArrivalCounter readersHold;
  TestLatch firstMayEnd;
  TestLatch secondMayEnd;
  std::thread first([&] {
    SvrDMInputDataSource reader(registry_, id_, false);
    readersHold.Arrive();
    firstMayEnd.Wait();
  });
  std::thread second([&] {
    SvrDMInputDataSource reader(registry_, id_, false);
    readersHold.Arrive();
    secondMayEnd.Wait();
  });
  readersHold.WaitFor(2);

  EXPECT_EQ(TryWriteElsewhere(), 55);
  EXPECT_EQ(item_->readersCount, 2);
  EXPECT_EQ(item_->writersCount, 0);

  // Had the failed try released a reader's hold, one reader ending would
  // leave the lock free while the other still reads.
  firstMayEnd.Open();
  first.join();
  EXPECT_EQ(TryWriteElsewhere(), 55);
  EXPECT_EQ(item_->readersCount, 1);

  secondMayEnd.Open();
  second.join();
  EXPECT_EQ(TryWriteElsewhere(), 0);
  EXPECT_EQ(item_->readersCount, 0);
  EXPECT_EQ(item_->writersCount, 0);
}

TEST_F(AccessLockTest, FailedTryAgainstAWriterLeavesItHoldingAndItsObserversHearIt) {
  struct Observer : SvrDMDataSetObserver {
    void DataSetChanged(SvrDMWriteableDataSource const* source) override {
      heard += static_cast<int>(source->GetNotifications().size());
    }
    int heard = 0;
  } observer;
  SettleSnapshot(item_);
  item_->Register(observer);

  TestLatch holding;
  TestLatch mayEnd;
  std::thread holder([&] {
    SvrDMWriteableDataSource writer(registry_, id_, false, nullptr);
    writer.AddNotification(new ProbeMessage("change", nullptr));
    holding.Open();
    mayEnd.Wait();
  });
  holding.Wait();

  EXPECT_EQ(TryWriteElsewhere(), 55);
  EXPECT_EQ(item_->writersCount, 1);
  EXPECT_EQ(item_->readersCount, 0);
  EXPECT_EQ(TryWriteElsewhere(), 55) << "the failed try's release freed the holder's lock";

  mayEnd.Open();
  holder.join();
  EXPECT_EQ(observer.heard, 1);
  EXPECT_EQ(TryWriteElsewhere(), 0);
  EXPECT_EQ(item_->writersCount, 0);
  EXPECT_EQ(item_->readersCount, 0);
  item_->Unregister(observer);
}

// Two threads fail a try while the holder releases and a new holder takes
// the lock, all before the two failed tries' releases come. Neither release
// may free the new holder's lock.
TEST_F(AccessLockTest, TwoFailedTriesReleasedAfterTheHolderChangedLeaveTheNewHolder) {
  TestLatch firstHolds, secondHolds, secondMayRelease;
  ArrivalCounter triesFailed, failedReleased;

  std::thread firstHolder([&] {
    EXPECT_TRUE(item_->AcquireWriteLock(false));
    firstHolds.Open();
    triesFailed.WaitFor(2);
    item_->ReleaseLock();
  });
  std::thread secondHolder([&] {
    triesFailed.WaitFor(2);
    EXPECT_TRUE(item_->AcquireWriteLock(false));  // waits for the first holder's release
    secondHolds.Open();
    secondMayRelease.Wait();
    item_->ReleaseLock();
  });
  std::vector<std::thread> failing;
  for (int i = 0; i < 2; ++i) {
    failing.emplace_back([&] {
      firstHolds.Wait();
      EXPECT_FALSE(item_->AcquireWriteLock(true));
      triesFailed.Arrive();
      secondHolds.Wait();
      item_->ReleaseLock();
      failedReleased.Arrive();
    });
  }

  failedReleased.WaitFor(2);
  EXPECT_EQ(TryWriteElsewhere(), 55) << "a failed try's release freed the second holder's lock";
  secondMayRelease.Open();
  firstHolder.join();
  secondHolder.join();
  for (std::thread& thread : failing) thread.join();
  EXPECT_EQ(TryWriteElsewhere(), 0);
}

// Write accesses of one blocking holder and two try-writers in a race: only
// one may be inside at any time, and the counters end where they began.
TEST_F(AccessLockTest, RacingTryWritersNeverShareTheLockWithTheHolder) {
  std::atomic<int> inside{0};
  std::atomic<int> overlaps{0};
  std::atomic<int> wrongCodes{0};
  std::atomic<bool> stop{false};
  auto enter = [&] {
    if (inside.fetch_add(1) != 0) ++overlaps;
    std::this_thread::yield();
    inside.fetch_sub(1);
  };

  std::vector<std::thread> tries;
  for (int i = 0; i < 2; ++i) {
    tries.emplace_back([&] {
      while (!stop) {
        try {
          SvrDMWriteableDataSource writer(item_, true, nullptr);
          enter();
        } catch (int code) {
          if (code != 55) ++wrongCodes;
        }
      }
    });
  }
  std::thread holder([&] {
    for (int i = 0; i < 200; ++i) {
      SvrDMWriteableDataSource writer(item_, false, nullptr);
      enter();
    }
    stop = true;
  });
  holder.join();
  for (std::thread& thread : tries) thread.join();

  EXPECT_EQ(overlaps, 0);
  EXPECT_EQ(wrongCodes, 0);
  EXPECT_EQ(item_->writersCount, 0);
  EXPECT_EQ(item_->readersCount, 0);
  EXPECT_EQ(TryWriteElsewhere(), 0);
}

TEST_F(AccessLockTest, DeleteFromAnotherThreadLeavesALiveReadAccessValid) {
  auto reader = std::make_unique<SvrDMInputDataSource>(registry_, id_, false);
  QUOR_DataSource* source = reader->operator->();
  item_ = nullptr;  // from here the table and the reader hold the item

  std::thread deleter([&] { registry_.Delete(id_); });
  deleter.join();
  EXPECT_THROW(registry_.GetDataSet(id_), ErrorMsg);
  EXPECT_EQ(destroyed_, 0);
  EXPECT_EQ(reader->operator->(), source);
  EXPECT_EQ(reader->GetDataSetID(), id_);
  EXPECT_EQ(reader->ReadersCount(), 1);

  reader.reset();  // the last reference: the item ends in the access's end
  EXPECT_EQ(destroyed_, 1);
}

TEST_F(AccessLockTest, DeleteRacingTheEndOfReadAccessesDestroysTheItemOnce) {
  ArrivalCounter readersHold;
  TestLatch go;
  std::vector<std::thread> readers;
  for (int i = 0; i < 2; ++i) {
    readers.emplace_back([&] {
      SvrDMInputDataSource reader(registry_, id_, false);
      readersHold.Arrive();
      go.Wait();
    });
  }
  readersHold.WaitFor(2);
  item_ = nullptr;
  std::thread deleter([&] {
    go.Wait();
    registry_.Delete(id_);
  });
  go.Open();
  deleter.join();
  for (std::thread& reader : readers) reader.join();
  EXPECT_EQ(destroyed_, 1);
}

}  // namespace
