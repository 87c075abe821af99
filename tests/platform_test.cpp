#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ServerDataManager.h"

namespace {

TEST(LocallyUniqueIDTest, WordFormAndOrder) {
  EXPECT_EQ(LocallyUniqueID().ToWord(), 0xFFFFFFFFu);
  LocallyUniqueID const id(3, 0x1234567);
  EXPECT_EQ(id.ToWord(), 0x12345673u);
  EXPECT_EQ(LocallyUniqueID::FromWord(0x12345673u), id);
  EXPECT_NE(LocallyUniqueID(1, 5), LocallyUniqueID(2, 5));
  EXPECT_TRUE(LocallyUniqueID(1, 9) < LocallyUniqueID(2, 0));  // group first
  EXPECT_FALSE(LocallyUniqueID(2, 0) < LocallyUniqueID(1, 9));
}

TEST(CriticalSectionTest, ThirdNestedLockDoesNotBlockAndHoldsUntilLastEnds) {
  CriticalSection section;
  std::mutex m;
  std::condition_variable cv;
  bool waiting = false;
  std::atomic<bool> otherHasIt{false};
  std::thread other;
  {
    CriticalSection::Lock first(section);
    {
      CriticalSection::Lock second(section);
      CriticalSection::Lock third(section);
      other = std::thread([&] {
        {
          std::lock_guard<std::mutex> g(m);
          waiting = true;
        }
        cv.notify_all();
        CriticalSection::Lock lock(section);
        otherHasIt = true;
      });
      std::unique_lock<std::mutex> g(m);
      cv.wait(g, [&] { return waiting; });
    }
    EXPECT_FALSE(otherHasIt.load());  // two of three ended: still ours
  }
  other.join();
  EXPECT_TRUE(otherHasIt.load());
}

TEST(SfMutexRWTest, UnlockReleasesWhicheverAccessIsHeld) {
  sfMutexRW mutex;
  mutex.readLock();
  mutex.readLock();
  mutex.unlock();
  EXPECT_FALSE(mutex.tryWriteLock());
  mutex.unlock();
  ASSERT_TRUE(mutex.tryWriteLock());
  EXPECT_FALSE(mutex.tryWriteLock());
  mutex.unlock();
  EXPECT_TRUE(mutex.tryWriteLock());
  mutex.unlock();
}

TEST(SfMutexRWTest, ReadersShareWritersExcludeUnderContention) {
  // Readers, blocking writers and trying writers on one mutex. A writer must
  // find nobody inside, a reader no writer; and nobody may sleep forever
  // (the test's time limit catches a lost wake-up).
  sfMutexRW mutex;
  std::atomic<int> readersInside{0};
  std::atomic<int> writersInside{0};
  std::atomic<bool> broken{false};
  long written = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 6; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 20000; ++i) {
        int const kind = (t + i) % 5;
        if (kind < 3) {
          mutex.readLock();
          readersInside.fetch_add(1);
          if (writersInside.load() != 0) broken = true;
          readersInside.fetch_sub(1);
          mutex.unlock();
        } else if (kind == 3 || mutex.tryWriteLock()) {
          if (kind == 3) mutex.writeLock();
          if (writersInside.fetch_add(1) != 0 || readersInside.load() != 0) broken = true;
          ++written;
          writersInside.fetch_sub(1);
          mutex.unlock();
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_FALSE(broken.load());
  EXPECT_GE(written, 6 * 20000 / 5);
  EXPECT_TRUE(mutex.tryWriteLock());
  mutex.unlock();
}

TEST(PlatformTest, CaseBlindNamesAndDates) {
  EXPECT_EQ(QUORMBstricmp_A("Data.CSV", "data.csv"), 0);
  EXPECT_NE(QUORMBstricmp_A("data", "data.csv"), 0);
  double value = -1;
  EXPECT_EQ(iDMY2Quor(1, 1, 1970, 0, 0, 0.0, &value), 0);
  EXPECT_EQ(value, 0.0);
  EXPECT_EQ(iDMY2Quor(29, 2, 2000, 23, 59, 59.5, &value), 0);
  EXPECT_EQ(value, 951868799.5);
  EXPECT_EQ(iDMY2Quor(31, 12, 1969, 0, 0, 0.0, &value), 0);
  EXPECT_EQ(value, -86400.0);
  EXPECT_EQ(iDMY2Quor(29, 2, 1900, 0, 0, 0.0, &value), 1);  // not a leap year
  EXPECT_EQ(iDMY2Quor(1, 13, 2000, 0, 0, 0.0, &value), 1);
  EXPECT_EQ(value, -86400.0);
}

}  // namespace
