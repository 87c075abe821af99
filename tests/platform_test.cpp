// The platform stand-ins. The read-write mutex under contention is exercised
// through the access lock's tests.
#include <atomic>
#include <chrono>
#include <thread>

#include <gtest/gtest.h>

#include "ServerDataManager.h"

namespace {

TEST(LocallyUniqueIDTest, WordFormAndOrderGroupFirst) {
  EXPECT_EQ(LocallyUniqueID().ToWord(), 0xFFFFFFFFu);
  LocallyUniqueID const id(3, 0x1234567);
  EXPECT_EQ(id.ToWord(), 0x12345673u);
  EXPECT_EQ(LocallyUniqueID::FromWord(0x12345673u), id);
  EXPECT_NE(LocallyUniqueID(1, 5), LocallyUniqueID(2, 5));
  EXPECT_TRUE(LocallyUniqueID(1, 9) < LocallyUniqueID(2, 0));
  EXPECT_FALSE(LocallyUniqueID(2, 0) < LocallyUniqueID(1, 9));
}

TEST(CriticalSectionTest, NestedLocksHoldUntilTheOutermostEnds) {
  CriticalSection section;
  std::atomic<bool> otherHasIt{false};
  std::thread other;
  {
    CriticalSection::Lock first(section);
    {
      CriticalSection::Lock second(section);
      CriticalSection::Lock third(section);
      other = std::thread([&] {
        CriticalSection::Lock lock(section);
        otherHasIt = true;
      });
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(otherHasIt) << "two of three ended: still ours";
  }
  other.join();
  EXPECT_TRUE(otherHasIt);
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

TEST(PlatformTest, CaseBlindNamesAndDatesWithTheirRefusals) {
  EXPECT_EQ(QUORMBstricmp_A("Data.CSV", "data.csv"), 0);
  EXPECT_NE(QUORMBstricmp_A("data", "data.csv"), 0);
  double value = -1;
  EXPECT_EQ(iDMY2Quor(29, 2, 2000, 23, 59, 59.5, &value), 0);
  EXPECT_EQ(value, 951868799.5);
  EXPECT_EQ(iDMY2Quor(31, 12, 1969, 0, 0, 0.0, &value), 0);
  EXPECT_EQ(value, -86400.0);
  EXPECT_EQ(iDMY2Quor(29, 2, 1900, 0, 0, 0.0, &value), 1);  // not a leap year
  EXPECT_EQ(iDMY2Quor(1, 13, 2000, 0, 0, 0.0, &value), 1);
  EXPECT_EQ(value, -86400.0);  // kept when refused
}

}  // namespace
