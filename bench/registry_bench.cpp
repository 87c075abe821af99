// The registry's two hot operations: finding a dataset by identifier, and a
// dataset coming and going. Reported without a baseline.
#include <benchmark/benchmark.h>

#include <vector>

#include "ServerDataManager.h"

namespace {

constexpr int kDatasets = 100;

// Looks up each of 100 datasets in turn, so the figure is the average over
// every position in the table rather than the luck of one.
void BM_Registry_GetDataSetById(benchmark::State& state) {
  ServerDataManager registry;
  std::vector<LocallyUniqueID> ids;
  ids.reserve(kDatasets);
  for (int i = 0; i < kDatasets; ++i) {
    ids.push_back(registry.Add(*new DataFreeDataSource, std::string(), true));
  }
  std::size_t next = 0;
  for (auto _ : state) {
    SvrDMItemPtr item = registry.GetDataSet(ids[next]);
    benchmark::DoNotOptimize(item.get());
    next = next + 1 == ids.size() ? 0 : next + 1;
  }
}
BENCHMARK(BM_Registry_GetDataSetById);

// A dataset with a dictionary-only source and no file, added and deleted
// among 100 others that stay.
void BM_Registry_AddThenDelete(benchmark::State& state) {
  ServerDataManager registry;
  for (int i = 0; i < kDatasets; ++i) registry.Add(*new DataFreeDataSource, std::string(), true);
  for (auto _ : state) {
    LocallyUniqueID id = registry.Add(*new DataFreeDataSource, std::string(), true);
    registry.Delete(id);
  }
}
BENCHMARK(BM_Registry_AddThenDelete);

}  // namespace
