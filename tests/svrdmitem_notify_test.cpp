#include <atomic>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ServerDataManager.h"
#include "support/access_probes.h"

namespace {

// Records, for each DataSetChanged, its name and the labels of the queue as
// seen through the write access it was given.
class RecordingDataSetObserver : public SvrDMDataSetObserver {
 public:
  RecordingDataSetObserver(std::string name, std::vector<std::string>* log)
      : name_(std::move(name)), log_(log) {}

  void DataSetChanged(SvrDMWriteableDataSource const* source) override {
    lastSource = source;
    std::string entry = name_ + ":";
    for (DataSetMsg* message : source->GetNotifications()) entry += " " + MessageLabel(message);
    log_->push_back(entry);
    if (onChanged) onChanged(source);
  }

  SvrDMWriteableDataSource const* lastSource = nullptr;
  std::function<void(SvrDMWriteableDataSource const*)> onChanged;

 private:
  std::string name_;
  std::vector<std::string>* log_;
};

class CreationLog : public ServerDataManagerObserver {
 public:
  explicit CreationLog(std::vector<std::string>* log) : log_(log) {}
  void DataSetCreated(LocallyUniqueID const& id, std::string const&) override {
    log_->push_back("created " + std::to_string(id.ToWord()));
  }
  void DataSetDeleted(LocallyUniqueID const&) override {}

 private:
  std::vector<std::string>* log_;
};

class NotifyTest : public ::testing::Test {
 protected:
  NotifyTest() {
    id_ = registry_.Add(*new ProbeSource(&sourcesDestroyed_), "notify.sav", false);
    item_ = registry_.GetDataSet(id_);
    SettleSnapshot(item_);
  }

  ProbeMessage* Message(std::string label) {
    return new ProbeMessage(std::move(label), &messagesDestroyed_);
  }

  ServerDataManager registry_;
  LocallyUniqueID id_;
  SvrDMItemPtr item_;
  std::atomic<int> sourcesDestroyed_{0};
  int messagesDestroyed_ = 0;
  std::vector<std::string> log_;
  RecordingDataSetObserver a_{"A", &log_};
  RecordingDataSetObserver b_{"B", &log_};
};

TEST_F(NotifyTest, WriteAccessThatQueuedNothingTellsNobody) {
  item_->Register(a_);
  { SvrDMWriteableDataSource writer(item_, false, nullptr); }
  EXPECT_TRUE(log_.empty());
}

TEST_F(NotifyTest, ObserversReadTheQueueInOrderThroughTheWriterAndItIsEmptiedAfter) {
  item_->Register(a_);
  SvrDMWriteableDataSource const* writerAddress = nullptr;
  {
    SvrDMWriteableDataSource writer(item_, false, nullptr);
    writerAddress = &writer;
    writer.AddNotification(Message("m1"));
    writer.AddNotification(Message("m2"));
    EXPECT_EQ(&writer.GetNotifications(), &item_->notifications);
  }
  EXPECT_EQ(log_, (std::vector<std::string>{"A: m1 m2"}));
  EXPECT_EQ(a_.lastSource, writerAddress);
  EXPECT_TRUE(item_->notifications.empty());
  EXPECT_EQ(messagesDestroyed_, 2);
}

TEST_F(NotifyTest, SkippedObserverHearsNothingFromThatWriterOnly) {
  item_->Register(a_);
  item_->Register(b_);
  {
    SvrDMWriteableDataSource writer(item_, false, &a_);
    writer.AddNotification(Message("m1"));
  }
  EXPECT_EQ(log_, (std::vector<std::string>{"B: m1"}));
  log_.clear();
  {
    SvrDMWriteableDataSource writer(item_, false, &b_);
    writer.AddNotification(Message("m2"));
  }
  EXPECT_EQ(log_, (std::vector<std::string>{"A: m2"}));
  log_.clear();
  {
    SvrDMWriteableDataSource writer(item_, false, nullptr);
    writer.AddNotification(Message("m3"));
  }
  EXPECT_EQ(log_, (std::vector<std::string>{"A: m3", "B: m3"}));
}

TEST_F(NotifyTest, ObserverRegisteredTwiceHearsTwiceAndOneUnregisterRemovesBoth) {
  SvrDMDataset handle(item_);
  handle.Register(a_);
  handle.Register(b_);
  handle.Register(a_);
  {
    SvrDMWriteableDataSource writer(item_, false, nullptr);
    writer.AddNotification(Message("m"));
  }
  EXPECT_EQ(log_, (std::vector<std::string>{"A: m", "B: m", "A: m"}));
  log_.clear();
  handle.Unregister(a_);
  handle.Unregister(a_);  // no longer registered: no error
  {
    SvrDMWriteableDataSource writer(item_, false, nullptr);
    writer.AddNotification(Message("n"));
  }
  EXPECT_EQ(log_, (std::vector<std::string>{"B: n"}));
}

TEST_F(NotifyTest, ExplicitNotifyDeliversSoFarAndTheEndOnlyWhatCameSince) {
  item_->Register(a_);
  {
    SvrDMWriteableDataSource writer(item_, false, nullptr);
    writer.AddNotification(Message("m1"));
    writer.Notify();
    EXPECT_EQ(log_, (std::vector<std::string>{"A: m1"}));
    EXPECT_TRUE(writer.GetNotifications().empty());
  }
  EXPECT_EQ(log_.size(), 1u);
  {
    SvrDMWriteableDataSource writer(item_, false, nullptr);
    writer.AddNotification(Message("m2"));
    writer.Notify();
    writer.AddNotification(Message("m3"));
  }
  EXPECT_EQ(log_, (std::vector<std::string>{"A: m1", "A: m2", "A: m3"}));
}

TEST_F(NotifyTest, ClearedQueueIsDeletedUnseen) {
  item_->Register(a_);
  {
    SvrDMWriteableDataSource writer(item_, false, nullptr);
    writer.AddNotification(Message("m1"));
    writer.AddNotification(nullptr);  // null entries are passed over
    writer.AddNotification(Message("m2"));
    writer.ClearNotifications();
    EXPECT_EQ(messagesDestroyed_, 2);
    EXPECT_TRUE(writer.GetNotifications().empty());
    writer.ClearNotifications();  // an empty queue: nothing to do
  }
  EXPECT_TRUE(log_.empty());
}

TEST_F(NotifyTest, NullEntryReachesObserversAndIsPassedOverWhenEmptied) {
  item_->Register(a_);
  {
    SvrDMWriteableDataSource writer(item_, false, nullptr);
    writer.AddNotification(nullptr);
    writer.AddNotification(Message("m"));
  }
  EXPECT_EQ(log_, (std::vector<std::string>{"A: null m"}));
  EXPECT_EQ(messagesDestroyed_, 1);
}

TEST_F(NotifyTest, WithNoObserversTheQueueIsDeletedUndelivered) {
  {
    SvrDMWriteableDataSource writer(item_, false, &a_);
    writer.AddNotification(Message("m"));
  }
  EXPECT_TRUE(item_->notifications.empty());
  EXPECT_EQ(messagesDestroyed_, 1);
}

TEST_F(NotifyTest, ObserverRunsUnderTheWriteLockWithTheWriterCounted) {
  int triesRefused = 0;
  a_.onChanged = [&](SvrDMWriteableDataSource const* source) {
    EXPECT_EQ(source->WritersCount(), 1);
    EXPECT_EQ(source->ReadersCount(), 0);
    // The lock is still the writer's: another thread's try fails.
    std::thread other([&] {
      try {
        SvrDMWriteableDataSource intruder(registry_, id_, true, nullptr);
      } catch (int code) {
        if (code == 55) ++triesRefused;
      }
    });
    other.join();
  };
  item_->Register(a_);
  {
    SvrDMWriteableDataSource writer(item_, false, nullptr);
    writer.AddNotification(Message("m"));
  }
  EXPECT_EQ(triesRefused, 1);
  EXPECT_EQ(item_->writersCount, 0);
  EXPECT_EQ(item_->readersCount, 0);
}

TEST_F(NotifyTest, ThrowingObserverLeavesTheQueueAndTheEndStillReleases) {
  registry_.Delete(id_);  // from here on this test and the writer alone hold the item
  item_->Register(a_);
  item_->Register(b_);
  a_.onChanged = [](SvrDMWriteableDataSource const*) {
    throw std::runtime_error("observer failed");
  };
  EXPECT_THROW(
      {
        SvrDMWriteableDataSource writer(item_, false, nullptr);
        writer.AddNotification(Message("m"));
      },
      std::runtime_error);
  EXPECT_EQ(log_, (std::vector<std::string>{"A: m"}));  // B never reached
  EXPECT_EQ(item_->notifications.size(), 1u);
  EXPECT_EQ(messagesDestroyed_, 0);
  EXPECT_EQ(item_->writersCount, 0);
  EXPECT_EQ(item_->readersCount, 0);
  EXPECT_EQ(item_->IsShared(), 0) << "the writer's reference must be gone";

  // The lock is free again, and the next pass delivers what stayed.
  a_.onChanged = nullptr;
  log_.clear();
  { SvrDMWriteableDataSource writer(item_, true, nullptr); }
  EXPECT_EQ(log_, (std::vector<std::string>{"A: m", "B: m"}));
  EXPECT_EQ(messagesDestroyed_, 1);
}

TEST_F(NotifyTest, WriterEndingDuringAnotherExceptionLetsThatOneGoOn) {
  item_->Register(a_);
  a_.onChanged = [](SvrDMWriteableDataSource const*) {
    throw std::runtime_error("observer failed");
  };
  try {
    SvrDMWriteableDataSource writer(item_, false, nullptr);
    writer.AddNotification(Message("m"));
    throw std::logic_error("procedure failed");
  } catch (std::logic_error const&) {
  }
  EXPECT_EQ(item_->notifications.size(), 1u);
  EXPECT_EQ(item_->writersCount, 0);
  EXPECT_EQ(item_->readersCount, 0);
  a_.onChanged = nullptr;
  { SvrDMWriteableDataSource writer(item_, true, nullptr); }
  EXPECT_EQ(messagesDestroyed_, 1);
}

TEST_F(NotifyTest, EmptyDatasetIsAnnouncedInTheFirstPassWithASourceAndAMessage) {
  std::vector<std::string> events;
  CreationLog creations(&events);
  registry_.Register(creations);
  LocallyUniqueID id = registry_.AddEmpty(false);
  SvrDMItemPtr item = registry_.GetDataSet(id);
  SettleSnapshot(item);
  EXPECT_FALSE(item->createNotified);
  RecordingDataSetObserver watcher("W", &events);
  item->Register(watcher);

  {  // a message but no source: the notice waits
    SvrDMWriteableDataSource writer(item, false, nullptr);
    writer.AddNotification(Message("m1"));
  }
  EXPECT_EQ(events, (std::vector<std::string>{"W: m1"}));
  EXPECT_FALSE(item->createNotified);

  {  // a source that reads like the empty snapshot: nothing queued, no notice
    SvrDMWriteableDataSource writer(item, false, nullptr);
    item->dataSource = new ProbeSource(&sourcesDestroyed_);
  }
  EXPECT_EQ(events.size(), 1u);
  EXPECT_FALSE(item->createNotified);

  {  // the source gains a variable: the snapshot update queues it, and the
     // registry hears of the dataset before its own observers hear of that
    SvrDMWriteableDataSource writer(item, false, nullptr);
    unsigned int position = 0;
    writer->MakeVariable(QUOR_Variable(LocallyUniqueID(0, 1), "age"), &position);
  }
  ASSERT_EQ(events.size(), 3u);
  EXPECT_EQ(events[1], "created 16");
  EXPECT_EQ(events[2].rfind("W: ", 0), 0u);
  EXPECT_TRUE(item->createNotified);

  {  // once only
    SvrDMWriteableDataSource writer(item, false, nullptr);
    writer.AddNotification(Message("m3"));
  }
  EXPECT_EQ(events.back(), "W: m3");
  EXPECT_EQ(events.size(), 4u);
  item->Unregister(watcher);
  registry_.Unregister(creations);
}

TEST_F(NotifyTest, SilentDatasetIsNeverAnnouncedByAPass) {
  std::vector<std::string> events;
  CreationLog creations(&events);
  registry_.Register(creations);
  LocallyUniqueID id = registry_.AddEmpty(true);
  SvrDMItemPtr item = registry_.GetDataSet(id);
  {
    SvrDMWriteableDataSource writer(item, false, nullptr);
    item->dataSource = new ProbeSource(&sourcesDestroyed_);
    writer.AddNotification(Message("m"));
  }
  EXPECT_TRUE(events.empty());
  EXPECT_FALSE(item->createNotified);
  registry_.Unregister(creations);
}

TEST(NotifyPassTest, SnapshotIsUpdatedOnlyWhenSomeoneWillHear) {
  ServerDataManager registry;
  std::atomic<int> destroyed{0};
  auto endWriteAccess = [](SvrDMItemPtr& item) {
    SvrDMWriteableDataSource writer(item, false, nullptr);
  };
  int64_t const neverUpdated = -2;

  // Announced at its add already, and nobody watches: the snapshot is left alone.
  SvrDMItemPtr announced =
      registry.GetDataSet(registry.Add(*new ProbeSource(&destroyed), "", false));
  endWriteAccess(announced);
  EXPECT_EQ(announced->observerView.RowCountSeen(), neverUpdated);

  // A silent empty dataset owes nobody anything either.
  SvrDMItemPtr silent = registry.GetDataSet(registry.AddEmpty(true));
  endWriteAccess(silent);
  EXPECT_EQ(silent->observerView.RowCountSeen(), neverUpdated);

  // An announced empty dataset still owes its creation notice.
  SvrDMItemPtr empty = registry.GetDataSet(registry.AddEmpty(false));
  endWriteAccess(empty);
  EXPECT_NE(empty->observerView.RowCountSeen(), neverUpdated);

  // A dataset observer makes the pass worth it.
  std::vector<std::string> log;
  RecordingDataSetObserver watcher("W", &log);
  announced->Register(watcher);
  endWriteAccess(announced);
  EXPECT_NE(announced->observerView.RowCountSeen(), neverUpdated);
  EXPECT_FALSE(log.empty());
  announced->Unregister(watcher);
}

TEST_F(NotifyTest, OriginatorIsStoredAndCaseSequenceAdvancesAtOnce) {
  SvrDMDataset handle(item_);
  SvrDMWriteableDataSource writer(item_, false, nullptr);
  writer.Originator(42u);
  EXPECT_EQ(item_->originator, 42u);
  unsigned int before = handle.GetCaseSequence();
  writer.IncrementCaseSequence();
  EXPECT_EQ(handle.GetCaseSequence(), before + 1);
  writer.UndoIncrementCaseSequence();
  EXPECT_EQ(handle.GetCaseSequence(), before + 2);
}

}  // namespace
