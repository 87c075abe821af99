// The cost of holding a dataset: a read access, a write access that changes
// nothing, and a write access whose end tells four observers of a rename.
#include <benchmark/benchmark.h>

#include <string>

#include "ServerDataManager.h"

namespace {

// A registered dataset of n variables whose snapshot is up to date.
class Dataset {
 public:
  explicit Dataset(int n) {
    DataFreeDataSource* source = new DataFreeDataSource;
    for (int i = 0; i < n; ++i) {
      source->MakeVariable(
          QUOR_Variable(LocallyUniqueID(1, static_cast<uint32_t>(i + 1)), "v" + std::to_string(i)),
          nullptr);
    }
    item = registry.GetDataSet(registry.Add(*source, std::string(), true));
    item->observerView.BulkVarMoves(true);
    item->observerView.Update();
    item->ClearNotifications();
  }

  ServerDataManager registry;
  SvrDMItemPtr item;
};

// Reads what it is told, as a client that forwards the messages would.
class CountingObserver : public SvrDMDataSetObserver {
 public:
  void DataSetChanged(SvrDMWriteableDataSource const* source) override {
    seen += source->GetNotifications().size();
  }
  std::size_t seen = 0;
};

// A read access on an item nobody else holds, from the pointer a caller
// already has.
void BM_Access_ReadFreeItem(benchmark::State& state) {
  Dataset dataset(10);
  for (auto _ : state) {
    SvrDMInputDataSource access(dataset.item, false);
    benchmark::DoNotOptimize(access.operator->());
  }
}
BENCHMARK(BM_Access_ReadFreeItem);

// A write access that changes nothing, on a dataset nobody observes: its end
// has no reconciliation to run.
void BM_Access_WriteNoChangeNoObserver(benchmark::State& state) {
  Dataset dataset(10);
  for (auto _ : state) {
    SvrDMWriteableDataSource access(dataset.item, false, nullptr);
    benchmark::DoNotOptimize(access.operator->());
  }
}
BENCHMARK(BM_Access_WriteNoChangeNoObserver);

constexpr int kObservers = 4;

// The same with four observers: the end reconciles n variables, finds
// nothing and calls nobody.
void BM_Access_WriteNoChange4Observers(benchmark::State& state) {
  Dataset dataset(static_cast<int>(state.range(0)));
  CountingObserver observers[kObservers];
  SvrDMDataset handle(dataset.item);
  for (CountingObserver& observer : observers) handle.Register(observer);
  for (auto _ : state) {
    SvrDMWriteableDataSource access(dataset.item, false, nullptr);
    benchmark::DoNotOptimize(access.operator->());
  }
  if (observers[0].seen != 0) state.SkipWithError("an observer heard of a change");
  for (CountingObserver& observer : observers) handle.Unregister(observer);
}
BENCHMARK(BM_Access_WriteNoChange4Observers)->Arg(1000);

// Each access renames one variable (back and forth between two names), so
// its end queues a ModifyVarMsg and four observers hear of it.
void BM_Access_WriteRename4Observers(benchmark::State& state) {
  Dataset dataset(static_cast<int>(state.range(0)));
  CountingObserver observers[kObservers];
  SvrDMDataset handle(dataset.item);
  for (CountingObserver& observer : observers) handle.Register(observer);
  int const middle = static_cast<int>(state.range(0)) / 2;
  std::string const names[2] = {"renamed", "v" + std::to_string(middle)};
  std::size_t k = 0;
  for (auto _ : state) {
    SvrDMWriteableDataSource access(dataset.item, false, nullptr);
    access->GetVariable(middle).SetName(names[k++ & 1]);
  }
  if (observers[0].seen < static_cast<std::size_t>(state.iterations())) {
    state.SkipWithError("an observer missed a rename");
  }
  for (CountingObserver& observer : observers) handle.Unregister(observer);
}
BENCHMARK(BM_Access_WriteRename4Observers)->Arg(1000);

}  // namespace
