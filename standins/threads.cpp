#include "threads.h"

namespace {

constexpr uint64_t kWriter = 1;
constexpr uint64_t kWaitingWriter = 2;
constexpr uint64_t kWaitingWriters = 0xFFFFFFFEu;
constexpr uint64_t kReader = uint64_t{1} << 32;

uint64_t Readers(uint64_t state) { return state >> 32; }
// Writers are preferred: a reader keeps out while one waits.
bool ReaderMayEnter(uint64_t state) { return (state & (kWriter | kWaitingWriters)) == 0; }
bool WriterMayEnter(uint64_t state) { return (state & kWriter) == 0 && Readers(state) == 0; }

}  // namespace

// How a waiter and a releaser cannot miss each other: the waiter counts
// itself in sleepers_ and then reads state_; the releaser changes state_ and
// then reads sleepers_; all four are sequentially consistent. So either the
// waiter sees the release and goes in, or the releaser sees the waiter and
// takes mutex_ before notifying, which it can only get once the waiter is
// inside changed_.wait.

void sfMutexRW::readLock() {
  uint64_t state = state_.load(std::memory_order_relaxed);
  if (ReaderMayEnter(state) &&
      state_.compare_exchange_strong(state, state + kReader, std::memory_order_acquire,
                                     std::memory_order_relaxed)) {
    return;
  }
  std::unique_lock<std::mutex> lock(mutex_);
  sleepers_.fetch_add(1);
  for (;;) {
    state = state_.load();
    while (ReaderMayEnter(state)) {
      if (state_.compare_exchange_weak(state, state + kReader)) {
        sleepers_.fetch_sub(1);
        return;
      }
    }
    changed_.wait(lock);
  }
}

void sfMutexRW::writeLock() {
  uint64_t state = 0;
  if (state_.compare_exchange_strong(state, kWriter, std::memory_order_acquire,
                                     std::memory_order_relaxed)) {
    return;
  }
  std::unique_lock<std::mutex> lock(mutex_);
  sleepers_.fetch_add(1);
  // From here new readers keep out.
  state_.fetch_add(kWaitingWriter);
  for (;;) {
    state = state_.load();
    while (WriterMayEnter(state)) {
      if (state_.compare_exchange_weak(state, (state - kWaitingWriter) | kWriter)) {
        sleepers_.fetch_sub(1);
        return;
      }
    }
    changed_.wait(lock);
  }
}

bool sfMutexRW::tryWriteLock() {
  uint64_t state = state_.load(std::memory_order_relaxed);
  while (WriterMayEnter(state)) {
    if (state_.compare_exchange_weak(state, state | kWriter, std::memory_order_acquire,
                                     std::memory_order_relaxed)) {
      return true;
    }
  }
  return false;
}

void sfMutexRW::unlock() {
  // A writer excludes every reader, so a held write access can only be the
  // caller's; otherwise the caller is one of the readers.
  uint64_t state = state_.load(std::memory_order_relaxed);
  for (;;) {
    uint64_t next;
    if ((state & kWriter) != 0) {
      next = state & ~kWriter;
    } else if (Readers(state) > 0) {
      next = state - kReader;
    } else {
      return;
    }
    if (state_.compare_exchange_weak(state, next)) break;
  }
  if (sleepers_.load() > 0) {
    { std::lock_guard<std::mutex> lock(mutex_); }
    changed_.notify_all();
  }
}
