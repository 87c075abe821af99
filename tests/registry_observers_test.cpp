#include <atomic>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ServerDataManager.h"
#include "support/access_probes.h"

namespace {

using Log = std::vector<std::string>;

class RegistryObserversTest : public ::testing::Test {
 protected:
  LocallyUniqueID AddSource(std::string const& fileName) {
    return registry_.Add(*new ProbeSource(&destroyed_), fileName, false);
  }

  std::atomic<int> destroyed_{0};
  ServerDataManager registry_;
  Log log_;
  Listener a_{"A", &log_};
  Listener b_{"B", &log_};
};

TEST_F(RegistryObserversTest, RegisterTwiceDeliversOnceAndReRegisterMovesToTheEnd) {
  registry_.Register(a_);
  registry_.Register(a_);
  AddSource("one");
  registry_.Register(b_);
  registry_.Register(a_);
  AddSource("two");
  EXPECT_EQ(log_, (Log{"A created 0 one", "B created 16 two", "A created 16 two"}));
}

TEST_F(RegistryObserversTest, ObserverMayRemoveItselfInsideDataSetCreated) {
  registry_.Register(a_);
  registry_.Register(b_);
  a_.onCreated = [this] { registry_.Unregister(a_); };
  AddSource("f");
  AddSource("g");
  EXPECT_EQ(log_, (Log{"A created 0 f", "B created 0 f", "B created 16 g"}));
}

TEST_F(RegistryObserversTest, CreationNoticeCountsAsSentEvenWhenAnObserverThrows) {
  registry_.Register(a_);
  registry_.Register(b_);
  a_.onCreated = [] { throw std::runtime_error("observer"); };
  EXPECT_THROW(AddSource("f"), std::runtime_error);
  a_.onCreated = nullptr;
  SvrDMItemPtr item = registry_.GetDataSet(LocallyUniqueID(0, 0));  // in the table already
  registry_.NotifyCreate(*item);
  EXPECT_EQ(log_, (Log{"A created 0 f"}));
}

TEST_F(RegistryObserversTest, FilterHookReplacesIncomingSourcesAndRegisterFilterGivesTheOldOne) {
  // Hands back its replacement for every source and remembers what it got.
  struct Hook : QUOR_DataSourceFilterHook {
    QUOR_DataSource* Filter(QUOR_DataSource* source) override {
      seen.push_back(source);
      return replacement;
    }
    QUOR_DataSource* replacement = nullptr;
    std::vector<QUOR_DataSource*> seen;
  } hook;
  std::atomic<int> replacementDestroyed{0};
  hook.replacement = new ProbeSource(&replacementDestroyed);
  EXPECT_EQ(registry_.RegisterFilter(&hook), nullptr);
  auto* original = new ProbeSource(&destroyed_);
  LocallyUniqueID id = registry_.Add(*original, "f", false);
  registry_.AddEmpty(false);  // nothing to filter: the hook is not called
  EXPECT_EQ(hook.seen, std::vector<QUOR_DataSource*>{original});
  EXPECT_EQ(SvrDMInputDataSource(registry_, id, false).operator->(), hook.replacement);

  registry_.Delete(id);
  EXPECT_EQ(replacementDestroyed, 1);
  EXPECT_EQ(destroyed_, 0);  // the source handed in is the hook's concern
  delete original;
  EXPECT_EQ(registry_.RegisterFilter(nullptr), &hook);
  EXPECT_EQ(registry_.RegisterFilter(nullptr), nullptr);
}

}  // namespace
