#include <atomic>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ServerDataManager.h"
#include "support/access_probes.h"

namespace {

// Writes "<name> created <id> <file>" and "<name> deleted <id>" to a shared
// log; an optional hook runs inside DataSetCreated.
class RecordingObserver : public ServerDataManagerObserver {
 public:
  RecordingObserver(std::string name, std::vector<std::string>* log)
      : name_(std::move(name)), log_(log) {}

  void DataSetCreated(LocallyUniqueID const& id, std::string const& fileName) override {
    log_->push_back(name_ + " created " + std::to_string(id.ToWord()) + " " + fileName);
    if (onCreated) onCreated();
  }
  void DataSetDeleted(LocallyUniqueID const& id) override {
    log_->push_back(name_ + " deleted " + std::to_string(id.ToWord()));
    if (onDeleted) onDeleted();
  }

  std::function<void()> onCreated;
  std::function<void()> onDeleted;

 private:
  std::string name_;
  std::vector<std::string>* log_;
};

// Returns a fixed replacement (or its argument when there is none) and
// remembers what it was given.
class ReplacingHook : public QUOR_DataSourceFilterHook {
 public:
  explicit ReplacingHook(QUOR_DataSource* replacement) : replacement_(replacement) {}
  QUOR_DataSource* Filter(QUOR_DataSource* source) override {
    seen.push_back(source);
    return replacement_ != nullptr ? replacement_ : source;
  }
  std::vector<QUOR_DataSource*> seen;

 private:
  QUOR_DataSource* replacement_;
};

class RegistryObserversTest : public ::testing::Test {
 protected:
  LocallyUniqueID AddSource(std::string const& fileName = std::string(), bool silent = false) {
    return registry_.Add(*new ProbeSource(&destroyed_), fileName, silent);
  }

  ServerDataManager registry_;
  std::vector<std::string> log_;
  RecordingObserver a_{"A", &log_};
  RecordingObserver b_{"B", &log_};
  std::atomic<int> destroyed_{0};
};

TEST_F(RegistryObserversTest, RegisterTwiceDeliversOnceAndReRegisterMovesToTheEnd) {
  registry_.Register(a_);
  registry_.Register(a_);
  AddSource("one");
  EXPECT_EQ(log_, (std::vector<std::string>{"A created 0 one"}));

  log_.clear();
  registry_.Register(b_);
  registry_.Register(a_);
  AddSource("two");
  EXPECT_EQ(log_, (std::vector<std::string>{"B created 16 two", "A created 16 two"}));
}

TEST_F(RegistryObserversTest, UnregisterRemovesOnlyWhatIsRegistered) {
  registry_.Register(a_);
  registry_.Unregister(b_);  // never registered: no change
  AddSource("x");
  registry_.Unregister(a_);
  registry_.Unregister(a_);
  AddSource("y");
  EXPECT_EQ(log_, (std::vector<std::string>{"A created 0 x"}));
}

TEST_F(RegistryObserversTest, ObserverMayRemoveItselfInsideDataSetCreated) {
  registry_.Register(a_);
  registry_.Register(b_);
  a_.onCreated = [this] { registry_.Unregister(a_); };
  AddSource("f");
  AddSource("g");
  EXPECT_EQ(log_, (std::vector<std::string>{"A created 0 f", "B created 0 f", "B created 16 g"}));
}

TEST_F(RegistryObserversTest, CreationNoticeCarriesTheItemsFileName) {
  registry_.Register(a_);
  AddSource("data.sav");
  AddSource("DATA.SAV");  // already open under another case: the item keeps no name
  EXPECT_EQ(log_, (std::vector<std::string>{"A created 0 data.sav", "A created 16 "}));
}

TEST_F(RegistryObserversTest, SilentDatasetsAreNeverAnnounced) {
  registry_.Register(a_);
  LocallyUniqueID id = AddSource("quiet", /*silent=*/true);
  registry_.Delete(id);
  EXPECT_TRUE(log_.empty());
}

TEST_F(RegistryObserversTest, EmptyDatasetGetsADeletionNoticeWithoutACreationNotice) {
  registry_.Register(a_);
  LocallyUniqueID id = registry_.AddEmpty(false);
  EXPECT_TRUE(log_.empty());
  registry_.Delete(id);
  EXPECT_EQ(log_, (std::vector<std::string>{"A deleted 0"}));
}

TEST_F(RegistryObserversTest, ClearAnnouncesDeletionsLastAddedFirst) {
  registry_.Register(a_);
  registry_.Clear();
  EXPECT_TRUE(log_.empty());
  AddSource("p");
  AddSource("q");
  AddSource("r");
  log_.clear();
  registry_.Clear();
  EXPECT_EQ(log_, (std::vector<std::string>{"A deleted 32", "A deleted 16", "A deleted 0"}));
  EXPECT_EQ(destroyed_, 3);
}

TEST_F(RegistryObserversTest, AddWithIdentifierAnnouncesTheOldDeletionFirst) {
  registry_.Register(a_);
  LocallyUniqueID id = AddSource("old");
  log_.clear();
  registry_.Add(*new ProbeSource(&destroyed_), "new", false, id, 3);
  EXPECT_EQ(log_, (std::vector<std::string>{"A deleted 0", "A created 0 new"}));
  EXPECT_EQ(registry_.GetDataSet(id)->fileName, "new");
}

TEST_F(RegistryObserversTest, NotifyCreateSendsOnceAndOnlyWithADataSource) {
  registry_.Register(a_);
  LocallyUniqueID id = registry_.AddEmpty(false);
  SvrDMItemPtr item = registry_.GetDataSet(id);

  registry_.NotifyCreate(*item);
  EXPECT_TRUE(log_.empty());
  EXPECT_FALSE(item->createNotified);

  item->dataSource = new ProbeSource(&destroyed_);  // the item deletes it at its end
  registry_.NotifyCreate(*item);
  registry_.NotifyCreate(*item);
  EXPECT_EQ(log_, (std::vector<std::string>{"A created 0 "}));
  EXPECT_TRUE(item->createNotified);
}

TEST_F(RegistryObserversTest, ThrowingCreationObserverStopsDeliveryButTheNoticeCountsAsSent) {
  registry_.Register(a_);
  registry_.Register(b_);
  a_.onCreated = [] { throw std::runtime_error("observer failed"); };
  EXPECT_THROW(AddSource("f"), std::runtime_error);
  EXPECT_EQ(log_, (std::vector<std::string>{"A created 0 f"}));

  // The dataset is in the table already, and its notice is not sent again.
  SvrDMItemPtr item = registry_.GetDataSet(LocallyUniqueID(0, 0));
  EXPECT_TRUE(item->createNotified);
  a_.onCreated = nullptr;
  registry_.NotifyCreate(*item);
  EXPECT_EQ(log_.size(), 1u);
}

TEST_F(RegistryObserversTest, ThrowingDeletionObserverLeavesTheEntryInTheTable) {
  registry_.Register(a_);
  LocallyUniqueID id = AddSource("f");
  a_.onDeleted = [] { throw std::runtime_error("observer failed"); };
  EXPECT_THROW(registry_.Delete(id), std::runtime_error);
  EXPECT_NO_THROW(registry_.GetDataSet(id));
  a_.onDeleted = nullptr;
  registry_.Delete(id);
  EXPECT_THROW(registry_.GetDataSet(id), ErrorMsg);
}

TEST_F(RegistryObserversTest, RegisterFilterReturnsThePreviousHook) {
  ReplacingHook hook(nullptr);
  EXPECT_EQ(registry_.RegisterFilter(nullptr), nullptr);
  EXPECT_EQ(registry_.RegisterFilter(&hook), nullptr);
  EXPECT_EQ(registry_.RegisterFilter(nullptr), &hook);
  EXPECT_EQ(registry_.RegisterFilter(nullptr), nullptr);
}

TEST_F(RegistryObserversTest, HookThatReturnsItsArgumentChangesNothing) {
  ReplacingHook hook(nullptr);
  registry_.RegisterFilter(&hook);
  auto* source = new ProbeSource(&destroyed_);
  LocallyUniqueID id = registry_.Add(*source, "f", false);
  ASSERT_EQ(hook.seen.size(), 1u);
  EXPECT_EQ(hook.seen[0], source);
  EXPECT_EQ(registry_.GetDataSet(id)->dataSource, source);

  registry_.AddEmpty(false);  // nothing to filter: the hook is not called
  EXPECT_EQ(hook.seen.size(), 1u);
  registry_.RegisterFilter(nullptr);
}

TEST_F(RegistryObserversTest, HookReplacementIsWhatReadersSeeAndWhatTheItemDeletes) {
  std::atomic<int> replacementDestroyed{0};
  auto* replacement = new ProbeSource(&replacementDestroyed);
  ReplacingHook hook(replacement);
  registry_.RegisterFilter(&hook);
  auto* original = new ProbeSource(&destroyed_);
  LocallyUniqueID id = registry_.Add(*original, "f", false);
  {
    SvrDMInputDataSource reader(registry_, id, false);
    EXPECT_EQ(reader.operator->(), replacement);
  }
  registry_.Delete(id);
  EXPECT_EQ(replacementDestroyed, 1);
  EXPECT_EQ(destroyed_, 0);  // the source passed in is the hook's concern
  delete original;
  registry_.RegisterFilter(nullptr);
}

TEST_F(RegistryObserversTest, HookReturningNullGivesADatasetAnnouncedLater) {
  // The hook takes the source away (and deletes it, as is its concern).
  struct DroppingHook : QUOR_DataSourceFilterHook {
    QUOR_DataSource* Filter(QUOR_DataSource* source) override {
      delete source;
      return nullptr;
    }
  } hook;
  registry_.RegisterFilter(&hook);
  registry_.Register(a_);
  LocallyUniqueID id = AddSource("f");
  EXPECT_TRUE(log_.empty());
  EXPECT_FALSE(registry_.GetDataSet(id)->createNotified);
  EXPECT_EQ(destroyed_, 1);
  registry_.RegisterFilter(nullptr);
}

}  // namespace
