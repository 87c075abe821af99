#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ServerDataManager.h"
#include "support/counting_source.h"

namespace {

// Records every notice as one line, in the order heard.
class RecordingObserver : public ServerDataManagerObserver {
 public:
  void DataSetCreated(LocallyUniqueID const& id, std::string const& fileName) override {
    events.push_back("created " + std::to_string(id.ToWord()) + " " + fileName);
  }
  void DataSetDeleted(LocallyUniqueID const& id) override {
    events.push_back("deleted " + std::to_string(id.ToWord()));
  }
  std::vector<std::string> events;
};

class RegistryTest : public ::testing::Test {
 protected:
  void SetUp() override { registry.Register(observer); }

  QUOR_DataSource& Source(std::string const& name = "source") {
    return *new CountingSource(&destroyed, name);
  }
  LocallyUniqueID Add(std::string const& file = std::string(), bool silent = false) {
    return registry.Add(Source(), file, silent);
  }

  std::vector<std::string> destroyed;
  RecordingObserver observer;
  ServerDataManager registry;
};

TEST_F(RegistryTest, GeneratedIdentifiersCountBySixteen) {
  EXPECT_EQ(Add().ToWord(), 0u);
  EXPECT_EQ(registry.Add(Source(), "", "pw", false, false).ToWord(), 16u);
  EXPECT_EQ(registry.AddEmpty(false).ToWord(), 32u);
  registry.Delete(LocallyUniqueID(0, 2));
  EXPECT_EQ(Add().ToWord(), 48u);  // a deleted identifier is never given back
}

TEST_F(RegistryTest, EachInstanceHasItsOwnCounterAndItemsPointBack) {
  ServerDataManager other;
  Add();
  LocallyUniqueID id = other.Add(Source(), "", false);
  EXPECT_EQ(id.ToWord(), 0u);
  EXPECT_EQ(other.GetDataSet(id)->dataManager, &other);
  EXPECT_EQ(registry.GetDataSet(id)->dataManager, &registry);
}

TEST_F(RegistryTest, AddStoresPasswordSilenceAndCreationNotice) {
  LocallyUniqueID withPassword = registry.Add(Source(), "a.csv", "pw", true, false);
  LocallyUniqueID silent = Add("b.csv", true);
  SvrDMItemPtr item = registry.GetDataSet(withPassword);
  EXPECT_EQ(item->password, "pw");
  EXPECT_TRUE(item->passwordMangled);
  EXPECT_TRUE(item->announce);
  EXPECT_TRUE(item->createNotified);
  EXPECT_FALSE(registry.GetDataSet(silent)->announce);
  EXPECT_FALSE(registry.GetDataSet(silent)->createNotified);
  EXPECT_EQ(observer.events, (std::vector<std::string>{"created 0 a.csv"}));
}

TEST_F(RegistryTest, AddWithUnusedIdentifierDeletesNothingAndLeavesCounter) {
  registry.Add(Source(), "x.csv", false, LocallyUniqueID(0, 100), 7);
  SvrDMItemPtr item = registry.GetDataSet(LocallyUniqueID(0, 100));
  EXPECT_EQ(item->caseSequence, 7u);
  EXPECT_EQ(Add().ToWord(), 0u);
  EXPECT_EQ(observer.events, (std::vector<std::string>{"created 1600 x.csv", "created 0 "}));
}

TEST_F(RegistryTest, AddWithUsedIdentifierReplacesOldDatasetNoticesInOrder) {
  LocallyUniqueID id = registry.Add(*new CountingSource(&destroyed, "old"), "old.csv", false);
  registry.Add(*new CountingSource(&destroyed, "new"), "new.csv", false, id, 3);
  EXPECT_EQ(destroyed, (std::vector<std::string>{"old"}));
  SvrDMItemPtr item = registry.GetDataSet(id);
  EXPECT_EQ(item->fileName, "new.csv");
  EXPECT_EQ(item->caseSequence, 3u);
  EXPECT_EQ(observer.events,
            (std::vector<std::string>{"created 0 old.csv", "deleted 0", "created 0 new.csv"}));
}

TEST_F(RegistryTest, SecondDatasetOfAnOpenFileKeepsTheNameAside) {
  LocallyUniqueID first = Add("Data/Survey.CSV");
  LocallyUniqueID second = Add("data/survey.csv");
  LocallyUniqueID unnamed1 = Add("");
  LocallyUniqueID unnamed2 = Add("");
  EXPECT_EQ(registry.GetDataSet(first)->fileName, "Data/Survey.CSV");
  EXPECT_EQ(registry.GetDataSet(first)->sharedFileName, "");
  EXPECT_EQ(registry.GetDataSet(second)->fileName, "");
  EXPECT_EQ(registry.GetDataSet(second)->sharedFileName, "data/survey.csv");
  // Empty names never count as shared, however many there are.
  EXPECT_EQ(registry.GetDataSet(unnamed1)->sharedFileName, "");
  EXPECT_EQ(registry.GetDataSet(unnamed2)->sharedFileName, "");
  // The creation notice carries the item's own file name, empty here.
  EXPECT_EQ(observer.events[1], "created 16 ");
}

TEST_F(RegistryTest, AddEmptyHasNoSourceAndNoCreationNoticeButADeletionNotice) {
  LocallyUniqueID id = registry.AddEmpty(false);
  SvrDMItemPtr item = registry.GetDataSet(id);
  EXPECT_EQ(item->dataSource, nullptr);
  EXPECT_FALSE(item->createNotified);
  registry.Delete(id);
  EXPECT_EQ(observer.events, (std::vector<std::string>{"deleted 0"}));
}

TEST_F(RegistryTest, SilentDatasetIsNeverAnnounced) {
  LocallyUniqueID id = Add("", true);
  registry.Delete(id);
  registry.AddEmpty(true);
  registry.Clear();
  EXPECT_TRUE(observer.events.empty());
}

TEST_F(RegistryTest, UnknownIdentifierThrows2001WithEmptyTextAndLockIsReleased) {
  Add();
  try {
    registry.GetDataSet(LocallyUniqueID(1, 0));  // same serial, other group
    FAIL() << "no exception";
  } catch (ErrorMsg const& error) {
    EXPECT_EQ(error.GetCode(), 2001u);
    EXPECT_EQ(error.GetText(), "");
  }
  // The lock went with the unwinding: another thread can use the registry.
  bool added = false;
  std::thread([&] {
    Add();
    added = true;
  }).join();
  EXPECT_TRUE(added);
}

TEST_F(RegistryTest, HandleSearchIgnoresCaseAndEmptyHandleFindsFirstItem) {
  LocallyUniqueID first = Add();
  LocallyUniqueID second = Add();
  registry.GetDataSet(second)->handle = "Sales";
  EXPECT_EQ(registry.GetDataSet(std::string("sALES"))->dataSetID, second);
  EXPECT_EQ(registry.GetDataSet(std::string(""))->dataSetID, first);
  EXPECT_FALSE(registry.GetDataSet(std::string("missing")).IsValid());
}

TEST_F(RegistryTest, DeletedItemLivesOnThroughAHeldPointer) {
  LocallyUniqueID id = Add("kept.csv");
  SvrDMItemPtr held = registry.GetDataSet(id);
  registry.Delete(id);
  registry.Delete(id);  // unknown now: no error, no second notice
  EXPECT_TRUE(destroyed.empty());
  EXPECT_EQ(held->fileName, "kept.csv");
  EXPECT_THROW(registry.GetDataSet(id), ErrorMsg);
  held = nullptr;
  EXPECT_EQ(destroyed, (std::vector<std::string>{"source"}));
  EXPECT_EQ(observer.events, (std::vector<std::string>{"created 0 kept.csv", "deleted 0"}));
}

TEST_F(RegistryTest, DeleteKeepsTheOrderOfTheRemainingEntries) {
  Add("a");
  LocallyUniqueID b = Add("b");
  Add("c");
  registry.Delete(b);
  registry.Clear();
  EXPECT_EQ(observer.events, (std::vector<std::string>{"created 0 a", "created 16 b", "created 32 c",
                                                        "deleted 16", "deleted 32", "deleted 0"}));
}

TEST_F(RegistryTest, ClearNoticesLastAddedFirstAndEmptyClearSendsNothing) {
  registry.Clear();
  EXPECT_TRUE(observer.events.empty());
  Add("a");
  Add("b");
  Add("c");
  observer.events.clear();
  registry.Clear();
  EXPECT_EQ(observer.events, (std::vector<std::string>{"deleted 32", "deleted 16", "deleted 0"}));
  EXPECT_EQ(destroyed.size(), 3u);
  EXPECT_THROW(registry.GetDataSet(LocallyUniqueID(0, 0)), ErrorMsg);
}

TEST_F(RegistryTest, RegistryEndReleasesItemsWithoutNotices) {
  std::vector<std::string> log;
  RecordingObserver quiet;
  {
    ServerDataManager local;
    local.Register(quiet);
    local.Add(*new CountingSource(&log, "one"), "", false);
    local.Add(*new CountingSource(&log, "two"), "", false);
    quiet.events.clear();
  }
  EXPECT_TRUE(quiet.events.empty());
  EXPECT_EQ(log, (std::vector<std::string>{"one", "two"}));
}

TEST(RegistryInstanceTest, GetInstanceIsOneObject) {
  EXPECT_EQ(&ServerDataManager::GetInstance(), &ServerDataManager::GetInstance());
}

}  // namespace
