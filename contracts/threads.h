// The threads library of the server: the reader/writer mutex of each dataset,
// the plain mutex of its observers, and the guard that holds the latter.
#ifndef SDM_CONTRACTS_THREADS_H
#define SDM_CONTRACTS_THREADS_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "ThreadAnnotations.h"

// Reader/writer mutex. unlock() releases whichever access the caller holds:
// while a writer holds it no reader can, so the state alone tells which.
// Writers are preferred: a reader waits while a writer waits.
class SDM_CAPABILITY("mutex") sfMutexRW {
 public:
  sfMutexRW() = default;
  sfMutexRW(sfMutexRW const&) = delete;
  sfMutexRW& operator=(sfMutexRW const&) = delete;

  void readLock() SDM_ACQUIRE_SHARED();
  void writeLock() SDM_ACQUIRE();
  bool tryWriteLock() SDM_TRY_ACQUIRE(true);
  void unlock() SDM_RELEASE_GENERIC();

 private:
  // The whole state in one word: bit 0 a writer holds it, bits 1-31 the
  // writers waiting, bits 32-63 the readers holding it. An uncontended
  // acquire or release is one compare-and-swap on it; only a thread that
  // must wait takes mutex_ and sleeps on changed_.
  std::atomic<uint64_t> state_{0};
  // Threads inside the waiting path. A release that sees none skips mutex_.
  std::atomic<int> sleepers_{0};
  std::mutex mutex_;
  std::condition_variable changed_;
};

// Plain mutex, taken only through sfGuard.
class SDM_CAPABILITY("mutex") sfMutex {
 public:
  enum LockType { kShared = 0, kExclusive = 1 };

  sfMutex() = default;
  sfMutex(sfMutex const&) = delete;
  sfMutex& operator=(sfMutex const&) = delete;

  void lock() SDM_ACQUIRE() { mutex_.lock(); }
  void unlock() SDM_RELEASE() { mutex_.unlock(); }

 private:
  std::mutex mutex_;
};

// Holds an sfMutex for its scope. Every lock type gives sole ownership here.
class SDM_SCOPED_CAPABILITY sfGuard {
 public:
  sfGuard(sfMutex& mutex, sfMutex::LockType) SDM_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~sfGuard() SDM_RELEASE() { mutex_.unlock(); }
  sfGuard(sfGuard const&) = delete;
  sfGuard& operator=(sfGuard const&) = delete;

 private:
  sfMutex& mutex_;
};

#endif  // SDM_CONTRACTS_THREADS_H
