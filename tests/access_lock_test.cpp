// The access lock across threads: what a failed try leaves behind. (That
// readers share, and that writers are alone inside, the soak checks under
// the thread sanitizer, with its end checking both counters back at 0.)
#include <future>
#include <thread>

#include <gtest/gtest.h>

#include "ServerDataManager.h"
#include "support/access_probes.h"

namespace {

// A writer holds the lock on a thread of its own while this one tries
// twice: both tries fail, and the second shows that the first one's end
// gave nothing back.
TEST(AccessLockTest, FailedTriesLeaveTheHoldersLockAndBothCountersAsTheyWere) {
  ServerDataManager registry;
  SvrDMItemPtr item = registry.GetDataSet(registry.Add(*new TrackedSource, "", false));
  EXPECT_EQ(TryWrite(item), 0);
  EXPECT_FALSE(item->writeLockFailed) << "a try that succeeded marked a failure";
  std::promise<void> holding, release;
  std::thread holder([&] {
    SvrDMWriteableDataSource access(item, false, nullptr);
    holding.set_value();
    release.get_future().wait();
  });
  holding.get_future().wait();
  EXPECT_EQ(TryWrite(item) + TryWrite(item), 110);
  EXPECT_TRUE(item->writeLockFailed);
  EXPECT_EQ(item->writersCount * 10 + item->readersCount, 10);
  release.set_value();
  holder.join();
  EXPECT_EQ(TryWrite(item), 0);
  EXPECT_EQ(item->writersCount + item->readersCount, 0);
}

}  // namespace
