// Floors that the library's figures are divided by: what the same work costs
// with nothing of the library in the way. Each lives in the same binary as
// the benchmark it is paired with, so both are measured on the same machine
// state; bench/run holds the pairing.
#include <benchmark/benchmark.h>

#include <atomic>
#include <shared_mutex>
#include <vector>

#include "ServerDataManager.h"

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

// The atomic work a read access cannot do without: three counts (the
// handle's reference, the lock word, the readers' count) each raised on
// entry and lowered on exit, six read-modify-writes, on three cache lines.
void BM_Baseline_SixAtomicOps(benchmark::State& state) {
  struct alignas(64) Count {
    std::atomic<long> value{0};
  };
  Count counts[3];
  for (auto _ : state) {
    counts[0].value.fetch_add(1, std::memory_order_relaxed);
    counts[1].value.fetch_add(1, std::memory_order_acquire);
    counts[2].value.fetch_add(1, std::memory_order_relaxed);
    counts[2].value.fetch_sub(1, std::memory_order_relaxed);
    counts[1].value.fetch_sub(1, std::memory_order_release);
    counts[0].value.fetch_sub(1, std::memory_order_acq_rel);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_Baseline_SixAtomicOps);

// The counted-handle work the bulk path cannot do without, for n variables:
// four reference changes a variable (two lists of copies taken, and dropped).
void BM_Baseline_FourHandleChanges(benchmark::State& state) {
  std::vector<QUOR_Variable> live;
  for (int i = 0; i < state.range(0); ++i)
    live.emplace_back(LocallyUniqueID(1, static_cast<uint32_t>(i + 1)), "v");
  for (auto _ : state) {
    std::vector<QUOR_Variable> first = live;
    std::vector<QUOR_Variable> second = live;
    benchmark::DoNotOptimize(first.data());
    benchmark::DoNotOptimize(second.data());
  }
}
BENCHMARK(BM_Baseline_FourHandleChanges)->Arg(10000)->Unit(benchmark::kMicrosecond);

}  // namespace
