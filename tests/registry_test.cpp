#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ServerDataManager.h"
#include "support/counting_source.h"

namespace {

using Lines = std::vector<std::string>;

// Records every notice as one line, in the order heard.
class RecordingObserver : public ServerDataManagerObserver {
 public:
  void DataSetCreated(LocallyUniqueID const& id, std::string const& fileName) override {
    events.push_back("created " + std::to_string(id.ToWord()) + " " + fileName);
  }
  void DataSetDeleted(LocallyUniqueID const& id) override {
    events.push_back("deleted " + std::to_string(id.ToWord()));
  }
  Lines events;
};

class RegistryTest : public ::testing::Test {
 protected:
  void SetUp() override { registry.Register(observer); }
  LocallyUniqueID Add(std::string const& file = "", bool silent = false,
                      std::string const& name = "s") {
    return registry.Add(*new CountingSource(&destroyed, name), file, silent);
  }

  Lines destroyed;
  RecordingObserver observer;
  ServerDataManager registry;
};

TEST_F(RegistryTest, IdentifiersCountBySixteenAndAreNeverReused) {
  EXPECT_EQ(Add().ToWord(), 0u);
  EXPECT_EQ(registry.Add(*new CountingSource(&destroyed, "p"), "", "pw", true, false).ToWord(),
            16u);
  EXPECT_EQ(registry.GetDataSet(LocallyUniqueID(0, 1))->password, "pw");
  EXPECT_EQ(registry.AddEmpty(false).ToWord(), 32u);
  registry.Delete(LocallyUniqueID(0, 2));
  EXPECT_EQ(Add().ToWord(), 48u);
  // Adding under a chosen identifier neither reads nor moves the counter.
  registry.Add(*new CountingSource(&destroyed, "x"), "", false, LocallyUniqueID(0, 100), 7);
  EXPECT_EQ(registry.GetDataSet(LocallyUniqueID(0, 100))->caseSequence, 7u);
  EXPECT_EQ(Add().ToWord(), 64u);
}

TEST_F(RegistryTest, AddWithUsedIdentifierDeletesTheOldDatasetFirst) {
  LocallyUniqueID id = Add("old.csv", false, "old");
  registry.Add(*new CountingSource(&destroyed, "new"), "new.csv", false, id, 3);
  EXPECT_EQ(destroyed, Lines{"old"});
  EXPECT_EQ(registry.GetDataSet(id)->fileName, "new.csv");
  EXPECT_EQ(observer.events, (Lines{"created 0 old.csv", "deleted 0", "created 0 new.csv"}));
}

TEST_F(RegistryTest, SecondDatasetOfAnOpenFileKeepsTheNameAside) {
  LocallyUniqueID first = Add("Data/Survey.CSV");
  LocallyUniqueID second = Add("data/survey.csv");
  Add("");
  LocallyUniqueID unnamed = Add("");
  EXPECT_EQ(registry.GetDataSet(first)->fileName, "Data/Survey.CSV");
  EXPECT_EQ(registry.GetDataSet(second)->fileName, "");
  EXPECT_EQ(registry.GetDataSet(second)->sharedFileName, "data/survey.csv");
  EXPECT_EQ(registry.GetDataSet(unnamed)->sharedFileName, "");  // empty names never share
  EXPECT_EQ(observer.events[1], "created 16 ");
}

TEST_F(RegistryTest, NoticesFollowAnnounceAndSourceAndClearGoesLastFirst) {
  registry.AddEmpty(false);  // no source: no creation notice, but a deletion notice
  Add("", true);             // silent: nothing ever
  Add("a");
  registry.Clear();
  registry.Clear();  // empty: nothing
  EXPECT_EQ(observer.events, (Lines{"created 32 a", "deleted 32", "deleted 0"}));
  EXPECT_EQ(destroyed.size(), 2u);
}

TEST_F(RegistryTest, DeletionNoticeMayDeleteAnotherDataset) {
  // Deletes `dependent` when it hears of `trigger`: the table shifts under
  // the removal that sent the notice, which must still take out its own entry.
  struct Cascade : RecordingObserver {
    void DataSetDeleted(LocallyUniqueID const& id) override {
      if (id == trigger) registry->Delete(dependent);
    }
    ServerDataManager* registry = nullptr;
    LocallyUniqueID trigger, dependent;
  } cascade;
  cascade.registry = &registry;
  registry.Register(cascade);
  cascade.dependent = Add("", false, "x");
  cascade.trigger = Add("", false, "y");
  LocallyUniqueID z = Add("", false, "z");
  registry.Delete(cascade.trigger);
  EXPECT_EQ(destroyed, (Lines{"x", "y"}));
  EXPECT_EQ(registry.GetDataSet(z)->dataSetID, z);
  cascade.dependent = z;
  cascade.trigger = Add("", false, "w");
  registry.Clear();
  EXPECT_EQ(destroyed, (Lines{"x", "y", "z", "w"}));
  registry.Unregister(cascade);
}

TEST_F(RegistryTest, LookupsAndAnItemThatOutlivesItsEntry) {
  LocallyUniqueID first = Add("kept.csv");
  LocallyUniqueID second = Add();
  registry.GetDataSet(second)->handle = "Sales";
  EXPECT_EQ(registry.GetDataSet(std::string("sALES"))->dataSetID, second);
  EXPECT_EQ(registry.GetDataSet(std::string(""))->dataSetID, first);
  EXPECT_FALSE(registry.GetDataSet(std::string("missing")).IsValid());

  SvrDMItemPtr held = registry.GetDataSet(first);
  registry.Delete(first);
  registry.Delete(first);  // unknown now: no error, no second notice
  EXPECT_TRUE(destroyed.empty());
  try {
    registry.GetDataSet(LocallyUniqueID(1, 0));  // same serial, other group
    FAIL();
  } catch (ErrorMsg const& error) {
    EXPECT_EQ(error.GetCode(), 2001u);
    EXPECT_EQ(error.GetText(), "");
  }
  std::thread([&] { Add(); }).join();  // the throw released the lock
  held = nullptr;
  EXPECT_EQ(destroyed, Lines{"s"});
}

// A server's static object that uses the process registry only from its
// destructor. It is built before anything has asked for the registry, so the
// registry must outlive an object that it did not see built.
struct LateUser {
  LateUser() : armed(false) {}
  ~LateUser() {
    if (!armed) return;
    ServerDataManager& registry = ServerDataManager::GetInstance();
    registry.Delete(registry.AddEmpty(true));
    std::fputs("late user done\n", stderr);
  }
  bool armed;
} gLateUser;

// A server's static object that uses the process registry from its
// constructor: adds a dataset, watches it and ends a write access. This
// file's static initialisers run before the library's (its objects come
// first in the link), so the registry, and every constant the notify pass
// reads, must be there when first asked for.
struct EarlyUser : SvrDMDataSetObserver {
  EarlyUser() {
    auto* source = new DataFreeDataSource;
    source->MakeVariable(QUOR_Variable(LocallyUniqueID(0, 1), "a"), nullptr);
    LocallyUniqueID id = ServerDataManager::GetInstance().Add(*source, "", true);
    SvrDMDataset(id).Register(*this);
    { SvrDMWriteableDataSource first(id, false, nullptr); }
    SvrDMDataset(id).Unregister(*this);
    ServerDataManager::GetInstance().Delete(id);
  }
  void DataSetChanged(SvrDMWriteableDataSource const* access) override {
    auto const* insert = dynamic_cast<InsertVarsMsg const*>(access->GetNotifications().at(0));
    insertedAtTheEnd = insert != nullptr && insert->GetBeforeID().IsNone();
  }
  bool insertedAtTheEnd = false;
} gEarlyUser;

TEST(RegistryInstanceTest, UsableFromAStaticObjectBuiltBeforeTheLibrarys) {
  EXPECT_TRUE(gEarlyUser.insertedAtTheEnd);
}

TEST(RegistryInstanceTest, UsableFromTheDestructorOfAStaticObjectBuiltBeforeIt) {
  EXPECT_EXIT(
      {
        gLateUser.armed = true;
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "late user done");
}

TEST(RegistryEndTest, EndReleasesItemsWithoutNotices) {
  Lines log;
  RecordingObserver quiet;
  {
    ServerDataManager local;
    local.Add(*new CountingSource(&log, "one"), "", false);
    local.Add(*new CountingSource(&log, "two"), "", false);
    local.Register(quiet);
  }
  EXPECT_TRUE(quiet.events.empty());
  EXPECT_EQ(log, (Lines{"one", "two"}));
}

}  // namespace
