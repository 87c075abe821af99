#include "threads.h"

void sfMutexRW::readLock() {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [this] { return !writer_ && waitingWriters_ == 0; });
  ++readers_;
}

void sfMutexRW::writeLock() {
  std::unique_lock<std::mutex> lock(mutex_);
  ++waitingWriters_;
  changed_.wait(lock, [this] { return !writer_ && readers_ == 0; });
  --waitingWriters_;
  writer_ = true;
}

bool sfMutexRW::tryWriteLock() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (writer_ || readers_ != 0) return false;
  writer_ = true;
  return true;
}

void sfMutexRW::unlock() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    // A writer excludes every reader, so a held write access can only be the
    // caller's; otherwise the caller is one of the readers.
    if (writer_) {
      writer_ = false;
    } else if (readers_ > 0) {
      --readers_;
    }
  }
  changed_.notify_all();
}
