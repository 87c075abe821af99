#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "ServerDataManager.h"
#include "support/access_probes.h"
#include "support/tracked_source.h"

namespace {

using Lines = std::vector<std::string>;

class RegistryTest : public ::testing::Test {
 protected:
  void SetUp() override { registry.Register(a); }
  void TearDown() override {
    registry.Unregister(a);
    registry.Unregister(b);
  }
  LocallyUniqueID Add(std::string const& file = "", bool silent = false,
                      std::string const& name = "s") {
    return registry.Add(*TrackedSource::Chain(&destroyed, {name}), file, silent);
  }
  std::string FileOf(LocallyUniqueID id) { return registry.GetDataSet(id)->fileName; }

  Lines destroyed, log;
  Listener a{"A", &log}, b{"B", &log};
  ServerDataManager registry;
};

TEST_F(RegistryTest, IdentifiersCountBySixteenAndAreNeverReused) {
  EXPECT_EQ(Add().ToWord(), 0u);
  EXPECT_EQ(registry.Add(*new TrackedSource, "", "pw", true, false).ToWord(), 16u);
  EXPECT_EQ(registry.GetDataSet(LocallyUniqueID(0, 1))->password, "pw");
  EXPECT_TRUE(registry.GetDataSet(LocallyUniqueID(0, 1))->passwordMangled);
  registry.Password(LocallyUniqueID(0, 1), "new", false);
  registry.Password(LocallyUniqueID(0, 9), "unknown", false);  // no error
  EXPECT_EQ(registry.GetDataSet(LocallyUniqueID(0, 1))->password, "new");
  EXPECT_EQ(registry.AddEmpty(false).ToWord(), 32u);
  registry.Delete(LocallyUniqueID(0, 2));
  EXPECT_EQ(Add().ToWord(), 48u);
  // Adding under a chosen identifier neither reads nor moves the counter.
  registry.Add(*new TrackedSource, "", false, LocallyUniqueID(0, 100), 7);
  EXPECT_EQ(registry.GetDataSet(LocallyUniqueID(0, 100))->caseSequence, 7u);
  EXPECT_EQ(Add().ToWord(), 64u);
}

TEST_F(RegistryTest, AddWithUsedIdentifierDeletesTheOldDatasetFirst) {
  LocallyUniqueID id = Add("old.csv", false, "old");
  registry.Add(*TrackedSource::Chain(&destroyed, {"new"}), "new.csv", false, id, 3);
  EXPECT_EQ(destroyed, Lines{"old"});
  EXPECT_EQ(FileOf(id), "new.csv");
  EXPECT_EQ(log, (Lines{"A created 0 old.csv", "A deleted 0", "A created 0 new.csv"}));
}

TEST_F(RegistryTest, SecondDatasetOfAnOpenFileKeepsTheNameAside) {
  LocallyUniqueID first = Add("Data/Survey.CSV");
  LocallyUniqueID second = Add("data/survey.csv");
  Add("");
  LocallyUniqueID unnamed = Add("");
  EXPECT_EQ(FileOf(first), "Data/Survey.CSV");
  EXPECT_EQ(FileOf(second), "");
  EXPECT_EQ(registry.GetDataSet(second)->sharedFileName, "data/survey.csv");
  EXPECT_EQ(registry.GetDataSet(unnamed)->sharedFileName, "");  // empty names never share
  EXPECT_EQ(log[1], "A created 16 ");
}

TEST_F(RegistryTest, NoticesFollowAnnounceAndSourceAndClearGoesLastFirst) {
  registry.AddEmpty(false);  // no source: no creation notice, but a deletion notice
  Add("", true);             // silent: nothing ever
  Add("a");
  registry.Delete(LocallyUniqueID(0, 9));  // unknown: nothing
  registry.Clear();
  registry.Clear();  // empty: nothing
  EXPECT_EQ(log, (Lines{"A created 32 a", "A deleted 32", "A deleted 0"}));
  EXPECT_EQ(destroyed.size(), 2u);
}

TEST_F(RegistryTest, DeletionNoticeMayDeleteAnotherDataset) {
  // The table shifts under the removal that sent the notice, which must
  // still take out its own entry.
  LocallyUniqueID trigger, dependent;
  a.onDeleted = [&] {
    if (log.back() == "A deleted " + std::to_string(trigger.ToWord())) registry.Delete(dependent);
  };
  dependent = Add("", false, "x");
  trigger = Add("", false, "y");
  LocallyUniqueID z = Add("", false, "z");
  registry.Delete(trigger);
  EXPECT_EQ(destroyed, (Lines{"x", "y"}));
  EXPECT_EQ(registry.GetDataSet(z)->dataSetID, z);
  dependent = z;
  trigger = Add("", false, "w");
  registry.Clear();
  EXPECT_EQ(destroyed, (Lines{"x", "y", "z", "w"}));
}

TEST_F(RegistryTest, LookupsAndHandlesOutliveTheirEntry) {
  LocallyUniqueID first = Add("kept.csv", false, "first");
  LocallyUniqueID second = registry.AddEmpty(true);
  registry.GetDataSet(second)->handle = "Sales";
  EXPECT_EQ(registry.GetDataSet(std::string("sALES"))->dataSetID, second);
  EXPECT_EQ(registry.GetDataSet(std::string(""))->dataSetID, first);
  EXPECT_FALSE(registry.GetDataSet(std::string("missing")).IsValid());
  std::vector<SvrDMDataset> all = registry.GetAllDatasets();
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(all[0].GetDataSetID(), first);
  EXPECT_EQ(all[1].GetDataSetID(), second);

  registry.Delete(first);
  registry.Clear();
  EXPECT_EQ(all[0].GetFileName(), "kept.csv");
  EXPECT_TRUE(destroyed.empty());
  try {
    registry.GetDataSet(LocallyUniqueID(1, 0));  // same serial, other group
    FAIL();
  } catch (ErrorMsg const& error) {
    EXPECT_EQ(error.GetCode(), 2001u);
    EXPECT_EQ(error.GetText(), "");
  }
  std::thread([&] { Add(); }).join();  // the throw released the lock
  all.clear();
  EXPECT_EQ(destroyed, Lines{"first"});
}

TEST_F(RegistryTest, ObserversStandOnceInOrderOfTheirLastRegistration) {
  registry.Register(a);
  Add("one");
  registry.Register(b);
  registry.Register(a);
  Listener never("C", &log);
  registry.Unregister(never);  // not registered: no error
  Add("two");
  EXPECT_EQ(log, (Lines{"A created 0 one", "B created 16 two", "A created 16 two"}));
}

TEST_F(RegistryTest, ObserverMayLeaveInsideItsNoticeAndAThrowingOneStillCountsAsSent) {
  registry.Register(b);
  a.onCreated = [this] { registry.Unregister(a); };
  Add("f");
  Add("g");
  registry.Register(a);
  registry.Register(b);
  a.onCreated = [] { throw std::runtime_error("observer"); };
  EXPECT_THROW(Add("h"), std::runtime_error);
  a.onCreated = nullptr;
  registry.NotifyCreate(*registry.GetDataSet(LocallyUniqueID(0, 2)));  // in the table already
  EXPECT_EQ(log, (Lines{"A created 0 f", "B created 0 f", "B created 16 g", "A created 32 h"}));
}

TEST_F(RegistryTest, FilterHookReplacesIncomingSourcesAndRegisterFilterGivesTheOldOne) {
  struct Hook : QUOR_DataSourceFilterHook {
    QUOR_DataSource* Filter(QUOR_DataSource* source) override {
      seen.push_back(source);
      return replacement;
    }
    QUOR_DataSource* replacement = nullptr;
    std::vector<QUOR_DataSource*> seen;
  } hook;
  hook.replacement = TrackedSource::Chain(&destroyed, {"replacement"});
  EXPECT_EQ(registry.RegisterFilter(&hook), nullptr);
  auto* original = new TrackedSource;
  LocallyUniqueID id = registry.Add(*original, "f", false);
  registry.AddEmpty(false);  // nothing to filter: the hook is not called
  EXPECT_EQ(hook.seen, std::vector<QUOR_DataSource*>{original});
  EXPECT_EQ(SvrDMInputDataSource(registry, id, false).operator->(), hook.replacement);
  registry.Delete(id);
  EXPECT_EQ(destroyed, Lines{"replacement"});  // the source handed in is the hook's concern
  delete original;
  EXPECT_EQ(registry.RegisterFilter(nullptr), &hook);
  EXPECT_EQ(registry.RegisterFilter(nullptr), nullptr);
}

// Each operation runs on a thread of its own while this thread holds the
// registry lock inside a deletion notice; none may finish before the notice
// has returned.
TEST_F(RegistryTest, EveryOperationWaitsWhileAnotherThreadHoldsTheRegistry) {
  LocallyUniqueID const ids[] = {Add(), Add(), Add(), Add()};
  SvrDMItemPtr due(new SvrDMItem({0, 999}, new TrackedSource, &registry, 0, "", true));
  Bystanders::Operations const operations = {
      {"Add", [&] { registry.Add(*new TrackedSource, "", true); }},
      {"Add with password", [&] { registry.Add(*new TrackedSource, "", "pw", false, true); }},
      {"Add under an identifier",
       [&] { registry.Add(*new TrackedSource, "", true, LocallyUniqueID(0, 500), 0); }},
      {"AddEmpty", [&] { registry.AddEmpty(true); }},
      {"Delete", [&] { registry.Delete(ids[1]); }},
      {"Clear", [&] { registry.Clear(); }},
      {"GetDataSet", [&] { registry.GetDataSet(ids[2]); }},
      {"GetDataSet by handle", [&] { registry.GetDataSet(std::string("h")); }},
      {"GetAllDatasets", [&] { registry.GetAllDatasets(); }},
      {"Register", [&] { registry.Register(b); }},
      {"Unregister", [&] { registry.Unregister(b); }},
      {"Password", [&] { registry.Password(ids[3], "pw", false); }},
      {"SavFileExternallyChanged", [&] { registry.SavFileExternallyChanged("f"); }},
      {"NotifyCreate", [&] { registry.NotifyCreate(*due); }},
  };
  std::unique_ptr<Bystanders> bystanders;
  Lines early;
  bool held = false;  // the other threads' notices come after this one's
  a.onDeleted = [&] {
    if (std::exchange(held, true)) return;
    bystanders = std::make_unique<Bystanders>(operations);
    early = bystanders->FinishedAfterAPause();
  };
  registry.Delete(ids[0]);
  bystanders = nullptr;
  EXPECT_EQ(early, Lines{}) << "finished while the registry was held";
}

TEST(RegistryEndTest, EndReleasesItemsFirstAddedFirstWithoutNotices) {
  Lines destroyed, log;
  Listener quiet("Q", &log);
  {
    ServerDataManager local;
    local.Add(*TrackedSource::Chain(&destroyed, {"one"}), "", false);
    local.Add(*TrackedSource::Chain(&destroyed, {"two"}), "", false);
    local.Register(quiet);
  }
  EXPECT_TRUE(log.empty());
  EXPECT_EQ(destroyed, (Lines{"one", "two"}));
}

// A server's static object that uses the process registry only from its
// destructor. It is built before anything has asked for the registry, so the
// registry must outlive an object that it did not see built.
struct LateUser {
  ~LateUser() {
    if (!armed) return;
    ServerDataManager& registry = ServerDataManager::GetInstance();
    registry.Delete(registry.AddEmpty(true));
    std::fputs("late user done\n", stderr);
  }
  bool armed = false;
} gLateUser;

// A server's static object that uses the process registry from its
// constructor: adds a dataset, watches one write access and leaves the
// dataset open. This file's static initialisers run before the library's
// (its objects come first in the link), so the registry, and every constant
// the notify pass reads, must be there when first asked for, and stay the
// same registry when later files start.
struct EarlyUser : SvrDMDataSetObserver {
  EarlyUser() {
    auto* source = new DataFreeDataSource;
    source->MakeVariable(QUOR_Variable(LocallyUniqueID(0, 1), "a"), nullptr);
    id = ServerDataManager::GetInstance().Add(*source, "", true);
    SvrDMDataset(id).Register(*this);
    { SvrDMWriteableDataSource first(id, false, nullptr); }
    SvrDMDataset(id).Unregister(*this);
  }
  void DataSetChanged(SvrDMWriteableDataSource const* access) override {
    auto const* insert = dynamic_cast<InsertVarsMsg const*>(access->GetNotifications().at(0));
    insertedAtTheEnd = insert != nullptr && insert->GetBeforeID().IsNone();
  }
  LocallyUniqueID id;
  bool insertedAtTheEnd = false;
} gEarlyUser;

TEST(RegistryInstanceTest, UsableFromAStaticObjectBuiltBeforeTheLibrarysAndKeptFromThen) {
  EXPECT_TRUE(gEarlyUser.insertedAtTheEnd);
  EXPECT_EQ(SvrDMDataset(gEarlyUser.id).GetDataSetID(), gEarlyUser.id);
}

TEST(RegistryInstanceTest, UsableFromTheDestructorOfAStaticObjectBuiltBeforeIt) {
  EXPECT_EXIT(
      {
        gLateUser.armed = true;
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "late user done");
}

}  // namespace
