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
  struct Case {
    long day, month, year, hour, minute;
    double second;
    int result;
    double value;
  };
  double value = -1;
  for (Case const& c :
       {Case{1, 1, 1970, 0, 0, 0.0, 0, 0.0}, Case{29, 2, 2000, 23, 59, 59.5, 0, 951868799.5},
        Case{31, 12, 1969, 0, 0, 0.0, 0, -86400.0},
        Case{29, 2, 1900, 0, 0, 0.0, 1, -86400.0},  // not a leap year
        Case{1, 13, 2000, 0, 0, 0.0, 1, -86400.0}}) {
    EXPECT_EQ(iDMY2Quor(c.day, c.month, c.year, c.hour, c.minute, c.second, &value), c.result);
    EXPECT_EQ(value, c.value) << c.day << "." << c.month << "." << c.year;  // kept when refused
  }
}

}  // namespace
