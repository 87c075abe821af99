#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ServerDataManager.h"

namespace {

TEST(LocallyUniqueIDTest, DefaultIsAllOnesAndWordFormIsByShifts) {
  LocallyUniqueID none;
  EXPECT_EQ(none.ToWord(), 0xFFFFFFFFu);
  EXPECT_TRUE(none.IsNone());
  EXPECT_EQ(none.group, 15u);

  LocallyUniqueID id(3, 0x1234567);
  EXPECT_EQ(id.ToWord(), 0x12345673u);
  LocallyUniqueID back = LocallyUniqueID::FromWord(0x12345673u);
  EXPECT_EQ(back.group, 3u);
  EXPECT_EQ(back.serial, 0x1234567u);
  EXPECT_EQ(back, id);
  // Values wider than the fields keep their low bits only.
  EXPECT_EQ(LocallyUniqueID(0x13, 0x10000002).ToWord(), 0x23u);
}

TEST(LocallyUniqueIDTest, EqualityNeedsBothFieldsAndOrderIsGroupFirst) {
  LocallyUniqueID a(1, 5), b(2, 5), c(1, 9), d(2, 0);
  EXPECT_NE(a, b);
  EXPECT_TRUE(a < b);
  EXPECT_TRUE(a < c);
  EXPECT_TRUE(c < d);  // lower group wins even with a higher serial
  EXPECT_FALSE(d < c);
  EXPECT_FALSE(a < a);
}

TEST(CriticalSectionTest, ThirdNestedLockDoesNotBlockAndHoldsUntilLastEnds) {
  CriticalSection section;
  std::mutex m;
  std::condition_variable cv;
  int stage = 0;
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
          stage = 1;
        }
        cv.notify_all();
        CriticalSection::Lock waiting(section);
        otherHasIt = true;
      });
      std::unique_lock<std::mutex> g(m);
      cv.wait(g, [&] { return stage == 1; });
    }
    // Two of the three locks have ended: the section is still ours.
    EXPECT_FALSE(otherHasIt.load());
  }
  other.join();
  EXPECT_TRUE(otherHasIt.load());
}

TEST(CriticalSectionTest, ExceptionThroughLockReleasesSection) {
  CriticalSection section;
  try {
    CriticalSection::Lock lock(section);
    throw 7;
  } catch (int) {
  }
  bool taken = false;
  std::thread([&] {
    CriticalSection::Lock lock(section);
    taken = true;
  }).join();
  EXPECT_TRUE(taken);
}

TEST(SfMutexRWTest, UnlockReleasesWhicheverAccessIsHeld) {
  sfMutexRW mutex;
  mutex.readLock();
  mutex.readLock();
  EXPECT_FALSE(mutex.tryWriteLock());
  mutex.unlock();
  EXPECT_FALSE(mutex.tryWriteLock());
  mutex.unlock();
  ASSERT_TRUE(mutex.tryWriteLock());
  EXPECT_FALSE(mutex.tryWriteLock());
  mutex.unlock();
  mutex.writeLock();
  mutex.unlock();
  EXPECT_TRUE(mutex.tryWriteLock());
  mutex.unlock();
}

TEST(SfMutexRWTest, BlockedWriterGetsLockWhenLastReaderLeaves) {
  sfMutexRW mutex;
  mutex.readLock();
  std::atomic<bool> writing{false};
  std::thread writer([&] {
    mutex.writeLock();
    writing = true;
    mutex.unlock();
  });
  // The writer cannot get in while the read access lasts; whatever the
  // scheduling, it must not have got it before this unlock.
  EXPECT_FALSE(writing.load());
  mutex.unlock();
  writer.join();
  EXPECT_TRUE(writing.load());
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

TEST(PlatformTest, CaseBlindComparison) {
  EXPECT_EQ(QUORMBstricmp_A("Data.SAV", "data.sav"), 0);
  EXPECT_EQ(QUORMBstricmp_A("", ""), 0);
  EXPECT_NE(QUORMBstricmp_A("data", "data.sav"), 0);
  EXPECT_NE(QUORMBstricmp_A("a", "b"), 0);
}

TEST(PlatformTest, NumericDatesCountSecondsFrom1970) {
  double value = -1;
  EXPECT_EQ(iDMY2Quor(1, 1, 1970, 0, 0, 0.0, &value), 0);
  EXPECT_EQ(value, 0.0);
  EXPECT_EQ(iDMY2Quor(1, 2, 1975, 12, 0, 0.0, &value), 0);
  EXPECT_EQ(value, 160488000.0);
  EXPECT_EQ(iDMY2Quor(29, 2, 2000, 23, 59, 59.5, &value), 0);
  EXPECT_EQ(value, 951868799.5);
  EXPECT_EQ(iDMY2Quor(31, 12, 1969, 0, 0, 0.0, &value), 0);
  EXPECT_EQ(value, -86400.0);

  value = 42;
  EXPECT_EQ(iDMY2Quor(29, 2, 1900, 0, 0, 0.0, &value), 1);
  EXPECT_EQ(iDMY2Quor(1, 13, 2000, 0, 0, 0.0, &value), 1);
  EXPECT_EQ(iDMY2Quor(1, 1, 2000, 24, 0, 0.0, &value), 1);
  EXPECT_EQ(value, 42);
}

TEST(PlatformTest, ExtNameStrOpensExistingFilesOnly) {
  ExtNameStr name;
  name.SetGeneric("/nonexistent/dir/file.csv");
  EXPECT_EQ(name.fsopen("r", 32), nullptr);
  name.SetGeneric(SDM_EXAMPLES_DATA_DIR "/survey.csv");
  FILE* stream = name.fsopen("r", 32);
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(std::fgetc(stream), 'i');
  std::fclose(stream);
}

}  // namespace
