// Floors that the library's figures are divided by: what the same work costs
// with nothing of the library in the way. Each lives in the same binary as
// the benchmark it is paired with, so both are measured on the same machine
// state; bench/run holds the pairing.
#include <benchmark/benchmark.h>

#include <shared_mutex>

namespace {

// What a read access must at least cost: one shared acquisition and release
// of a reader/writer lock nobody else holds.
void BM_Baseline_SharedMutexReadLock(benchmark::State& state) {
  std::shared_mutex mutex;
  for (auto _ : state) {
    mutex.lock_shared();
    mutex.unlock_shared();
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_Baseline_SharedMutexReadLock);

// The same for a write access: one exclusive acquisition and release.
void BM_Baseline_SharedMutexWriteLock(benchmark::State& state) {
  std::shared_mutex mutex;
  for (auto _ : state) {
    mutex.lock();
    mutex.unlock();
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_Baseline_SharedMutexWriteLock);

}  // namespace
