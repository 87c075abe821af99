// The item: its end, and the notify pass at the end of a write access.
#include <ctime>
#include <stdexcept>
#include <thread>
#include <tuple>

#include <gtest/gtest.h>

#include "ServerDataManager.h"
#include "support/access_probes.h"

namespace {

using Log = std::vector<std::string>;

class NotifyTest : public ::testing::Test {
 protected:
  // One watched pass brings the snapshot in line with the source, so that
  // later passes queue only what a test adds.
  NotifyTest() { item_->Register(a_), Write(item_, {}), Unregister(), log_.clear(); }
  void Unregister() { item_->Unregister(a_), item_->Unregister(b_); }
  // One write access that queues a message per label and leaves out `skip`.
  void Write(SvrDMItemPtr& item, Log const& labels, SvrDMDataSetObserver* skip = nullptr) {
    SvrDMWriteableDataSource writer(item, false, skip);
    for (auto const& label : labels) writer.AddNotification(new ProbeMessage(label, &freed_));
  }

  int freed_ = 0;
  ServerDataManager registry_;
  LocallyUniqueID id_ = registry_.Add(*new TrackedSource, "", false);
  SvrDMItemPtr item_ = registry_.GetDataSet(id_);
  Log log_;
  Listener a_{"A", &log_}, b_{"B", &log_};
};

// Each case: the registrations in order, the one left out, what is queued,
// and what is heard; the queue's messages are deleted after the pass.
TEST_F(NotifyTest, PassTellsEachRegistrationButTheSkippedOneThenDeletesTheQueue) {
  std::tuple<std::vector<Listener*>, Listener*, Log, Log> const cases[] = {
      {{&a_}, nullptr, {"m1", "m2"}, {"A: m1 m2"}},
      {{&a_, &b_}, &a_, {"m"}, {"B: m"}},
      {{&a_, &b_, &a_}, nullptr, {"m"}, {"A: m", "B: m", "A: m"}},
      {{}, nullptr, {"m"}, {}},  // one Unregister removed both entries of A
  };
  for (auto const& [registered, skip, queued, heard] : cases) {
    log_.clear();
    for (Listener* observer : registered) item_->Register(*observer);
    Write(item_, queued, skip);
    EXPECT_EQ(log_, heard);
    EXPECT_EQ(std::exchange(freed_, 0), int(queued.size()));
    Unregister();
  }
}

// The lock is held while observers run, and given back, with both counters
// settled, also when one throws; what it failed to deliver stays queued.
TEST_F(NotifyTest, AccessEndsCleanlyWhenAnObserverThrowsAndItsExceptionPasses) {
  registry_.Delete(id_);  // from here on this test and the writer alone hold the item
  item_->Register(a_);
  item_->Register(b_);
  bool lockWasFree = true;
  a_.then = [&] {
    EXPECT_EQ(item_->writersCount * 10 + item_->readersCount, 10);
    std::thread([&] { lockWasFree = TryWrite(item_) == 0; }).join();
    throw std::runtime_error("observer");
  };
  EXPECT_THROW(Write(item_, {"m"}), std::runtime_error);
  EXPECT_FALSE(lockWasFree) << "the lock was given back before the observers ran";
  EXPECT_EQ(log_, (Log{"A: m"}));  // B never reached
  EXPECT_EQ(item_->IsShared(), 0) << "the writer's reference must be gone";
  try {  // ending while another exception unwinds: that one goes on
    SvrDMWriteableDataSource writer(item_, false, nullptr);
    writer.AddNotification(new ProbeMessage("n", &freed_));
    throw std::logic_error("procedure");
  } catch (std::logic_error const&) {
  }
  EXPECT_EQ(item_->writersCount + item_->readersCount, 0);
  a_.then = nullptr;
  log_.clear();
  EXPECT_EQ(TryWrite(item_), 0);
  EXPECT_EQ(log_, (Log{"A: m n", "B: m n"}));
  EXPECT_EQ(freed_, 2);
}

// The comparison with the snapshot and the delivery hold the observers'
// lock: a thread that registers during either waits.
TEST_F(NotifyTest, ObserversWaitWhileThePassComparesAndDelivers) {
  struct Source : TrackedSource {
    long long RowCount() const override { return hold(), 0; }
    std::function<void()> hold;
  };
  std::vector<std::future<void>> joining;  // from the comparison, then from the delivery
  auto join = [&](std::size_t step) {
    if (joining.size() != step) return;
    joining.push_back(std::async(std::launch::async, [&] { item_->Register(b_); }));
    EXPECT_TRUE(Waits(joining.back())) << "registered during step " << step;
  };
  auto* source = new Source;
  source->hold = [&] { join(0); };
  a_.then = [&] { join(1); };
  item_->Register(a_);
  SvrDMWriteableDataSource(item_, false, nullptr).SetDataSet(source);
  EXPECT_EQ(joining.size(), 2u) << "the pass did not compare and deliver";
}

TEST_F(NotifyTest, EmptyDatasetIsAnnouncedInTheFirstPassWithASourceAndAMessage) {
  registry_.Register(a_);
  SvrDMItemPtr item = registry_.GetDataSet(registry_.AddEmpty(false));
  SvrDMItemPtr silent = registry_.GetDataSet(registry_.AddEmpty(true));
  Write(item, {}), Write(silent, {});
  // The snapshot is worth updating only when someone will hear: here the
  // registry's observers, of a notice due; nobody, of the silent one.
  EXPECT_NE(item->observerView.RowCountSeen(), -2);
  EXPECT_EQ(silent->observerView.RowCountSeen(), -2);
  item->Register(a_);
  Write(item, {"m1"});  // a message but no source: the notice waits
  // A source that reads like the empty snapshot: nothing queued, no notice.
  SvrDMWriteableDataSource(item, false, nullptr).SetDataSet(new TrackedSource);
  Write(item, {"m2"});  // the registry hears before the dataset's observers
  Write(item, {"m3"});  // and only once
  EXPECT_EQ(log_, (Log{"A: m1", "A created 16 ", "A: m2", "A: m3"}));
}

TEST(SvrDMItemTest, EndDeletesQueuedMessagesUndeliveredAndTheChainHeadFirstOnce) {
  Log log;
  int freed = 0;
  long const blocks = VUGlobal::LiveBlocks();
  {
    SvrDMItemPtr item(
        new SvrDMItem({0, 1}, TrackedSource::Chain(&log, {"h", "r"}), nullptr, 7, "", true));
    std::time_t now = std::time(nullptr);
    std::tm local = *std::localtime(&now);  // stamped in local time, seconds from 1970
    EXPECT_NEAR(item->objCreationTime, double(timegm(&local)), 5.0);
    item->notifications.push_back(new ProbeMessage("queued", &freed));
    item->notifications.push_back(nullptr);
    item->DeleteDataSource();
    EXPECT_EQ(item->dataSource, nullptr);
    EXPECT_EQ(log, (Log{"h", "r"}));
  }
  EXPECT_EQ(freed * 10 + log.size(), 12u);  // and nothing twice
  EXPECT_EQ(VUGlobal::LiveBlocks(), blocks);
  EXPECT_TRUE(SvrDMItemPtr(new SvrDMItem())->dataSetID.IsNone());  // and a blank one ends safely
}

}  // namespace
