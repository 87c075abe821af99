#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ServerDataManager.h"
#include "support/access_probes.h"

namespace {

class CountingDataSetObserver : public SvrDMDataSetObserver {
 public:
  void DataSetChanged(SvrDMWriteableDataSource const* source) override {
    ++calls;
    seen += static_cast<int>(source->GetNotifications().size());
  }
  int calls = 0;
  int seen = 0;
};

// An identifier that the registry never generates: group 3.
LocallyUniqueID const kUnknownId(3, 12345);

class HandlesTest : public ::testing::Test {
 protected:
  LocallyUniqueID AddSource(std::string const& fileName, std::atomic<int>* destroyed = nullptr) {
    return registry_.Add(*new ProbeSource(destroyed != nullptr ? destroyed : &destroyed_), fileName,
                         false);
  }

  ServerDataManager registry_;
  std::atomic<int> destroyed_{0};
};

// --- The value handle -----------------------------------------------------------

TEST_F(HandlesTest, HandleReadsTheItemsPropertiesAndSharesItsChanges) {
  LocallyUniqueID id = AddSource("h.sav");
  SvrDMDataset first(registry_, id);
  SvrDMDataset second = first;

  EXPECT_EQ(first.GetDataSetID(), id);
  EXPECT_EQ(first.GetServerDataManager(), &registry_);
  EXPECT_TRUE(first.HasDataSource());
  EXPECT_EQ(first.GetFileName(), "h.sav");
  EXPECT_GT(first.getObjCreationTime(), 0.0);
  EXPECT_TRUE(first.WindowMinimized());
  EXPECT_FALSE(first.WindowFront());
  EXPECT_FALSE(first.WindowHidden());

  first.WindowFront(true);
  first.WindowMinimized(false);
  first.WindowHidden(true);
  first.SetHandle("Survey");
  first.SetPassword("secret", true);
  EXPECT_TRUE(second.WindowFront());
  EXPECT_FALSE(second.WindowMinimized());
  EXPECT_TRUE(second.WindowHidden());
  EXPECT_EQ(second.GetHandle(), "Survey");
  EXPECT_EQ(second.GetPassword(), "secret");
  EXPECT_TRUE(registry_.GetDataSet(id)->passwordMangled);

  auto* specs = new SvrBootstrapSpecs();
  first.SetBootstrapSpecs(specs);
  EXPECT_EQ(second.GetBootstrapSpecs(), specs);  // freed by the item at its end
}

TEST_F(HandlesTest, HandleFromAStringIgnoresCaseAndHoldsNothingWhenUnknown) {
  ServerDataManager& global = ServerDataManager::GetInstance();
  LocallyUniqueID id = global.Add(*new ProbeSource(&destroyed_), "", false);
  SvrDMDataset(global, id).SetHandle("MixedCase");

  SvrDMDataset found(std::string("mixedCASE"));
  EXPECT_EQ(found.GetDataSetID(), id);
  SvrDMDataset byId(id);
  EXPECT_EQ(byId.GetHandle(), "MixedCase");

  SvrDMDataset missing(std::string("no such handle"));
  EXPECT_TRUE(missing.WindowHidden());
  SvrDMDataset copy = missing;  // a handle without an item can be copied and assigned
  copy = missing;
  EXPECT_TRUE(copy.WindowHidden());
  global.Delete(id);
}

TEST_F(HandlesTest, UnknownIdentifierThrows2001WithEmptyText) {
  try {
    SvrDMDataset handle(registry_, kUnknownId);
    FAIL() << "no exception";
  } catch (ErrorMsg const& error) {
    EXPECT_EQ(error.GetCode(), 2001u);
    EXPECT_TRUE(error.GetText().empty());
  }
  EXPECT_THROW(SvrDMDataset{kUnknownId}, ErrorMsg);
}

TEST_F(HandlesTest, EmptyDatasetHasNoDataSource) {
  SvrDMDataset handle(registry_, registry_.AddEmpty(false));
  EXPECT_FALSE(handle.HasDataSource());
}

TEST_F(HandlesTest, HandleKeepsTheItemAliveAfterDeleteUntilTheLastCopyGoes) {
  LocallyUniqueID id = AddSource("d.sav");
  auto handle = std::make_unique<SvrDMDataset>(registry_, id);
  SvrDMDataset copy = *handle;
  registry_.Delete(id);
  EXPECT_THROW(SvrDMDataset(registry_, id), ErrorMsg);
  EXPECT_EQ(handle->GetFileName(), "d.sav");
  handle.reset();
  EXPECT_EQ(destroyed_, 0);
  EXPECT_EQ(copy.GetDataSetID(), id);
  copy = SvrDMDataset(SvrDMItemPtr());
  EXPECT_EQ(destroyed_, 1);
}

TEST_F(HandlesTest, GetAllDatasetsGivesOneHandlePerDatasetInOrderOfAddition) {
  EXPECT_TRUE(registry_.GetAllDatasets().empty());
  LocallyUniqueID a = AddSource("a");
  LocallyUniqueID b = registry_.AddEmpty(true);
  LocallyUniqueID c = AddSource("c");
  std::vector<SvrDMDataset> all = registry_.GetAllDatasets();
  ASSERT_EQ(all.size(), 3u);
  EXPECT_EQ(all[0].GetDataSetID(), a);
  EXPECT_EQ(all[1].GetDataSetID(), b);
  EXPECT_EQ(all[2].GetDataSetID(), c);

  registry_.Clear();
  EXPECT_EQ(all[2].GetFileName(), "c");
  EXPECT_EQ(destroyed_, 0);
  all.clear();
  EXPECT_EQ(destroyed_, 2);
}

// --- Read access -----------------------------------------------------------------

TEST_F(HandlesTest, ReadersCountOnlyWhileTheyHold) {
  LocallyUniqueID id = AddSource("r");
  SvrDMDataset handle(registry_, id);
  EXPECT_EQ(handle.ReadersCount(), 0);
  EXPECT_EQ(handle.WritersCount(), 0);
  auto first = std::make_unique<SvrDMInputDataSource>(registry_, id, false);
  {
    SvrDMInputDataSource second(registry_, id, true);
    EXPECT_EQ(handle.ReadersCount(), 2);
    EXPECT_EQ(second.operator->(), first->operator->());
  }
  EXPECT_EQ(handle.ReadersCount(), 1);
  first.reset();
  EXPECT_EQ(handle.ReadersCount(), 0);
  EXPECT_EQ(handle.WritersCount(), 0);
}

TEST_F(HandlesTest, ReadAccessToAnEmptyDatasetGivesNull) {
  SvrDMItemPtr item = registry_.GetDataSet(registry_.AddEmpty(false));
  SvrDMInputDataSource reader(item, false);
  EXPECT_EQ(reader.operator->(), nullptr);
}

TEST_F(HandlesTest, ReadAccessReadsTheSourceAtEachCall) {
  LocallyUniqueID id = AddSource("s");
  SvrDMItemPtr item = registry_.GetDataSet(id);
  QUOR_DataSource* before = SvrDMInputDataSource(item, false).operator->();
  auto* replacement = new ProbeSource(&destroyed_);
  {
    SvrDMWriteableDataSource writer(item, false, nullptr);
    replacement->SetParentSource(writer.GetDataSource());  // the old source stays in the chain
    item->dataSource = replacement;
    EXPECT_EQ(writer.operator->(), replacement);
    EXPECT_EQ(&*writer, replacement);
  }
  SvrDMInputDataSource reader(item, false);
  EXPECT_NE(before, replacement);
  EXPECT_EQ(reader.operator->(), replacement);
  EXPECT_EQ(&*reader, replacement);
}

TEST_F(HandlesTest, AccessByUnknownIdentifierThrows2001AndMovesNoCounter) {
  LocallyUniqueID id = AddSource("x");
  SvrDMInputDataSource reader(registry_, id, false);
  EXPECT_THROW(SvrDMInputDataSource(registry_, kUnknownId, false), ErrorMsg);
  EXPECT_THROW(SvrDMWriteableDataSource(registry_, kUnknownId, true, nullptr), ErrorMsg);
  EXPECT_THROW(SvrDMInputDataSource(kUnknownId, false), ErrorMsg);
  EXPECT_THROW(SvrDMWriteableDataSource(kUnknownId, false, nullptr), ErrorMsg);
  EXPECT_EQ(reader.ReadersCount(), 1);
  EXPECT_EQ(reader.WritersCount(), 0);
}

// --- Write access ------------------------------------------------------------------

TEST_F(HandlesTest, WriteAccessCountsOneWriterAndNoReaderWhileItLives) {
  LocallyUniqueID id = AddSource("w");
  SvrDMItemPtr item = registry_.GetDataSet(id);
  {
    SvrDMWriteableDataSource writer(item, true, nullptr);  // a try on a free item succeeds
    EXPECT_EQ(writer.WritersCount(), 1);
    EXPECT_EQ(writer.ReadersCount(), 0);
    EXPECT_FALSE(item->writeLockFailed);
  }
  EXPECT_EQ(item->writersCount, 0);
  EXPECT_EQ(item->readersCount, 0);
  {
    SvrDMWriteableDataSource writer(registry_, id, false, nullptr);
    EXPECT_EQ(writer.WritersCount(), 1);
  }
  EXPECT_EQ(item->writersCount, 0);
  EXPECT_EQ(item->readersCount, 0);
}

TEST_F(HandlesTest, GlobalRegistryConstructorsFindTheDataset) {
  ServerDataManager& global = ServerDataManager::GetInstance();
  LocallyUniqueID id = global.Add(*new ProbeSource(&destroyed_), "", false);
  {
    SvrDMWriteableDataSource writer(id, false, nullptr);
    EXPECT_NE(writer.GetDataSource(), nullptr);
  }
  {
    SvrDMInputDataSource reader(id, false);
    EXPECT_NE(reader.operator->(), nullptr);
  }
  global.Delete(id);
  EXPECT_EQ(destroyed_, 1);
}

TEST_F(HandlesTest, TryWriterAgainstAReaderThrows55AndLeavesNoTrace) {
  LocallyUniqueID id = AddSource("t");
  SvrDMItemPtr item = registry_.GetDataSet(id);
  {
    SvrDMInputDataSource reader(item, false);
    try {
      SvrDMWriteableDataSource writer(item, true, nullptr);
      FAIL() << "the try succeeded against a reader";
    } catch (int code) {
      EXPECT_EQ(code, 55);
    }
    EXPECT_EQ(item->readersCount, 1);
    EXPECT_EQ(item->writersCount, 0);
  }
  EXPECT_EQ(item->readersCount, 0);
  // The reader's end freed the lock: a blocking writer gets it at once.
  SvrDMWriteableDataSource writer(item, false, nullptr);
  EXPECT_EQ(item->writersCount, 1);
}

TEST_F(HandlesTest, TryWriterAgainstAWriterThrows55AndTheHolderEndsNormally) {
  LocallyUniqueID id = AddSource("t");
  SvrDMItemPtr item = registry_.GetDataSet(id);
  CountingDataSetObserver observer;
  SettleSnapshot(item);
  item->Register(observer);
  {
    SvrDMWriteableDataSource holder(item, false, nullptr);
    holder.AddNotification(new ProbeMessage("change", nullptr));
    EXPECT_THROW(SvrDMWriteableDataSource(item, true, nullptr), int);
    EXPECT_EQ(item->writersCount, 1);
    EXPECT_EQ(item->readersCount, 0);
    EXPECT_EQ(holder.GetNotifications().size(), 1u);
  }
  EXPECT_EQ(observer.calls, 1);
  EXPECT_EQ(observer.seen, 1);
  EXPECT_EQ(item->writersCount, 0);
  EXPECT_EQ(item->readersCount, 0);
  SvrDMWriteableDataSource next(item, true, nullptr);  // the lock is free again
  item->Unregister(observer);
}

TEST_F(HandlesTest, AccessEndingLastDestroysTheDeletedItem) {
  LocallyUniqueID id = AddSource("z");
  {
    SvrDMWriteableDataSource writer(registry_, id, false, nullptr);
    registry_.Delete(id);
    EXPECT_EQ(destroyed_, 0);
    EXPECT_NE(writer.GetDataSource(), nullptr);
  }
  EXPECT_EQ(destroyed_, 1);
}

}  // namespace
