// The notify pass at the end of a write access.
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ServerDataManager.h"
#include "support/access_probes.h"

namespace {

using Log = std::vector<std::string>;

class NotifyTest : public ::testing::Test {
 protected:
  NotifyTest() { SettleSnapshot(item_); }

  SvrDMItemPtr Item(LocallyUniqueID id) { return registry_.GetDataSet(id); }
  // One write access that queues a message per label and leaves out `skip`.
  void Write(SvrDMItemPtr& item, std::vector<std::string> const& labels,
             SvrDMDataSetObserver* skip = nullptr) {
    SvrDMWriteableDataSource writer(item, false, skip);
    for (std::string const& label : labels) {
      writer.AddNotification(new ProbeMessage(label, &messagesDestroyed_));
    }
  }

  int messagesDestroyed_ = 0;
  ServerDataManager registry_;
  LocallyUniqueID id_ = registry_.Add(*new TrackedSource, "", false);
  SvrDMItemPtr item_ = Item(id_);
  Log log_;
  Listener a_{"A", &log_};
  Listener b_{"B", &log_};
};

TEST_F(NotifyTest, PassTellsEachRegistrationButTheSkippedOneThenDeletesTheQueue) {
  struct Case {
    char const* what;
    std::vector<Listener*> registered;
    Listener* skip;
    std::vector<std::string> queued;
    Log heard;
  };
  std::vector<Case> const cases = {
      {"nothing queued", {&a_}, nullptr, {}, {}},
      {"in order of arrival", {&a_}, nullptr, {"m1", "m2"}, {"A: m1 m2"}},
      {"skipped", {&a_, &b_}, &a_, {"m"}, {"B: m"}},
      {"registered twice", {&a_, &b_, &a_}, nullptr, {"m"}, {"A: m", "B: m", "A: m"}},
      // Follows the double registration: one Unregister removed both entries.
      {"nobody registered", {}, nullptr, {"m"}, {}},
  };
  for (Case const& c : cases) {
    SCOPED_TRACE(c.what);
    log_.clear();
    messagesDestroyed_ = 0;
    for (Listener* observer : c.registered) item_->Register(*observer);
    Write(item_, c.queued, c.skip);
    EXPECT_EQ(log_, c.heard);
    EXPECT_TRUE(item_->notifications.empty());
    EXPECT_EQ(messagesDestroyed_, static_cast<int>(c.queued.size()));
    item_->Unregister(a_);
    item_->Unregister(b_);
  }
}

// Waiting writers are counted too; that step is seen across threads in the
// access lock's tests.
TEST_F(NotifyTest, WriteAccessCountsOneWriterAndNoReaderAndHoldsTheLockUntilObserversRan) {
  bool lockWasFree = true;
  a_.onChanged = [&](SvrDMWriteableDataSource const* source) {
    EXPECT_EQ(source->WritersCount(), 1);
    EXPECT_EQ(source->ReadersCount(), 0);
    std::thread([&] { lockWasFree = TryWrite(item_) == 0; }).join();
  };
  item_->Register(a_);
  {
    SvrDMWriteableDataSource writer(item_, false, nullptr);
    EXPECT_EQ(writer.WritersCount(), 1);
    EXPECT_EQ(writer.ReadersCount(), 0);
    writer.AddNotification(new ProbeMessage("m", &messagesDestroyed_));
  }
  EXPECT_FALSE(lockWasFree) << "the lock was given back before the observers ran";
  EXPECT_EQ(item_->writersCount, 0);
  EXPECT_EQ(item_->readersCount, 0);
}

TEST_F(NotifyTest, SnapshotIsUpdatedOnlyWhenSomeoneWillHear) {
  SvrDMItemPtr announced = Item(registry_.Add(*new TrackedSource, "", false));
  SvrDMItemPtr silent = Item(registry_.AddEmpty(true));
  SvrDMItemPtr creationDue = Item(registry_.AddEmpty(false));
  for (SvrDMItemPtr item : {announced, silent, creationDue}) Write(item, {});
  int64_t const neverUpdated = -2;
  EXPECT_EQ(announced->observerView.RowCountSeen(), neverUpdated);
  EXPECT_EQ(silent->observerView.RowCountSeen(), neverUpdated);
  EXPECT_NE(creationDue->observerView.RowCountSeen(), neverUpdated);
  announced->Register(a_);  // a dataset observer makes it worth it
  Write(announced, {});
  EXPECT_NE(announced->observerView.RowCountSeen(), neverUpdated);
}

// Observers come and go under the lock that the comparison with the
// snapshot and the delivery hold: a thread that registers or unregisters
// meanwhile waits.
TEST_F(NotifyTest, ObserversWaitWhileThePassComparesAndDelivers) {
  struct Source : TrackedSource {
    long long RowCount() const override { return onRowCount(), 0; }
    std::function<void()> onRowCount;
  };
  Listener absent("C", &log_);
  std::vector<std::unique_ptr<Bystanders>> held;
  Log early;
  auto hold = [&](std::size_t already) {
    if (held.size() != already) return;
    held.push_back(std::make_unique<Bystanders>(
        Bystanders::Operations{{"Register", [&] { item_->Register(b_); }},
                               {"Unregister", [&] { item_->Unregister(absent); }}}));
    for (std::string const& name : held.back()->FinishedAfterAPause()) early.push_back(name);
  };
  auto* source = new Source;
  source->onRowCount = [&] { hold(0); };
  a_.onChanged = [&](SvrDMWriteableDataSource const*) { hold(1); };
  item_->Register(a_);
  {
    SvrDMWriteableDataSource writer(item_, false, nullptr);
    writer.SetDataSet(source);
  }
  EXPECT_EQ(held.size(), 2u) << "the pass did not compare and deliver";
  held.clear();
  EXPECT_EQ(early, Log{}) << "finished during the pass";
}

TEST_F(NotifyTest, ThrowingObserverStillSettlesCountersAndReleasesAndItsExceptionPasses) {
  registry_.Delete(id_);  // from here on this test and the writer alone hold the item
  item_->Register(a_);
  item_->Register(b_);
  a_.onChanged = [](SvrDMWriteableDataSource const*) { throw std::runtime_error("observer"); };
  EXPECT_THROW(Write(item_, {"m"}), std::runtime_error);
  EXPECT_EQ(log_, (Log{"A: m"}));  // B never reached
  EXPECT_EQ(item_->writersCount, 0);
  EXPECT_EQ(item_->readersCount, 0);
  EXPECT_EQ(item_->IsShared(), 0) << "the writer's reference must be gone";

  // Ending while another exception unwinds: that one goes on.
  try {
    SvrDMWriteableDataSource writer(item_, false, nullptr);
    writer.AddNotification(new ProbeMessage("n", &messagesDestroyed_));
    throw std::logic_error("procedure");
  } catch (std::logic_error const&) {
  }
  EXPECT_EQ(item_->writersCount, 0);
  EXPECT_EQ(item_->readersCount, 0);

  // The lock is free, and what was not delivered went nowhere.
  a_.onChanged = nullptr;
  log_.clear();
  EXPECT_EQ(TryWrite(item_), 0);
  EXPECT_EQ(log_, (Log{"A: m n", "B: m n"}));
  EXPECT_EQ(messagesDestroyed_, 2);
}

TEST_F(NotifyTest, EmptyDatasetIsAnnouncedInTheFirstPassWithASourceAndAMessage) {
  registry_.Register(a_);
  SvrDMItemPtr item = Item(registry_.AddEmpty(false));
  SettleSnapshot(item);
  item->Register(a_);
  Write(item, {"m1"});  // a message but no source: the notice waits
  {                     // a source that reads like the empty snapshot: nothing queued, no notice
    SvrDMWriteableDataSource writer(item, false, nullptr);
    writer.SetDataSet(new TrackedSource);
  }
  EXPECT_EQ(log_, (Log{"A: m1"}));
  Write(item, {"m2"});  // the registry hears before the dataset's observers
  Write(item, {"m3"});  // and only once
  EXPECT_EQ(log_, (Log{"A: m1", "A created 16 ", "A: m2", "A: m3"}));
}

}  // namespace
