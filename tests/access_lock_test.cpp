// The access lock across threads: what a failed try leaves behind. (That
// readers share, and that writers are alone inside, the soak checks under
// the thread sanitizer.)
#include <future>
#include <thread>

#include <gtest/gtest.h>

#include "ServerDataManager.h"
#include "support/access_probes.h"

namespace {

// Two readers, then a writer, hold the lock on threads of their own while
// this one tries twice: both tries fail, and the second shows that the
// first one's end gave nothing back.
TEST(AccessLockTest, FailedTriesLeaveTheHoldersLockAndBothCountersAsTheyWere) {
  ServerDataManager registry;
  SvrDMItemPtr item = registry.GetDataSet(registry.Add(*new TrackedSource, "", false));
  EXPECT_EQ(TryWrite(item), 0);
  EXPECT_FALSE(item->writeLockFailed) << "a try that succeeded marked a failure";
  for (std::vector<bool> const& writes : {std::vector<bool>{false, false}, {true}}) {
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    std::vector<std::thread> holders;
    for (bool write : writes) {
      std::promise<void> holding;
      std::future<void> holds = holding.get_future();
      holders.emplace_back([&, write, holding = std::move(holding)]() mutable {
        std::unique_ptr<SvrDMInputDataSource> access(
            write ? new SvrDMWriteableDataSource(item, false, nullptr)
                  : new SvrDMInputDataSource(item, false));
        holding.set_value();
        released.wait();
      });
      holds.wait();  // readers hold at once
    }
    EXPECT_EQ(TryWrite(item) + TryWrite(item), 110);
    EXPECT_TRUE(item->writeLockFailed);
    EXPECT_EQ(item->writersCount * 10 + item->readersCount, writes[0] ? 10 : 2);
    release.set_value();
    for (std::thread& holder : holders) holder.join();
    EXPECT_EQ(TryWrite(item), 0);
    EXPECT_EQ(item->writersCount + item->readersCount, 0);
  }
}

}  // namespace
