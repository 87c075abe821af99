// Replaces the global operator new family and counts VUGlobal's blocks with
// it. Every block comes from malloc and goes back to free, so a sanitizer
// that intercepts malloc still sees all of them: under g++ the runtime is a
// shared library, and a definition in the executable takes precedence.
#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "ServerDataManager.h"
#include "support/failing_new.h"

namespace {
// Per thread and trivially initialised, so reading them allocates nothing.
thread_local bool tArmed = false, tPersistent = false;
thread_local long tFailAt = 0, tCounted = 0, tFailed = 0, tHeld = 0;
thread_local std::size_t tLargest = 0;
std::atomic<long> gLive{0};

bool ShouldFail(std::size_t size) {
  if (!tArmed) return false;
  ++tCounted;
  if (size > tLargest) tLargest = size;
  bool fail = tFailAt > 0 && (tPersistent ? tCounted >= tFailAt : tCounted == tFailAt);
  tFailed += fail ? 1 : 0;
  return fail;
}

// The C library's size of each block counts as held, asked on the way in
// and on the way out, so that what is freed cancels what was taken.
void* Allocate(std::size_t size, bool nothrow) {
  void* block = ShouldFail(size) ? nullptr : std::malloc(size == 0 ? 1 : size);
  if (block == nullptr && !nothrow) throw std::bad_alloc();
  if (block != nullptr) {
    ++gLive;
    if (tArmed) tHeld += static_cast<long>(malloc_usable_size(block));
  }
  return block;
}

void Release(void* block) noexcept {
  if (block == nullptr) return;
  --gLive;
  if (tArmed) tHeld -= static_cast<long>(malloc_usable_size(block));
  std::free(block);
}
}  // namespace

namespace failing_new {
void Arm(long k, bool persistent) {
  tCounted = tFailed = tHeld = 0;
  tLargest = 0;
  tFailAt = k;
  tPersistent = persistent;
  VUGlobal::SetAllocationHook(&ShouldFail);
  tArmed = true;
}
void Disarm() {
  tArmed = false;
  VUGlobal::SetAllocationHook(nullptr);
}
Pause::Pause() : armed_(tArmed) { tArmed = false; }
Pause::~Pause() { tArmed = armed_; }
long Counted() { return tCounted; }
long Failed() { return tFailed; }
std::size_t LargestRequest() { return tLargest; }
long HeldBytes() { return tHeld; }
long LiveBlocks() { return gLive; }
}  // namespace failing_new

// The aligned forms are left alone: their default pairs allocate and free
// among themselves.
void* operator new(std::size_t size) { return Allocate(size, false); }
void* operator new[](std::size_t size) { return Allocate(size, false); }
void* operator new(std::size_t size, std::nothrow_t const&) noexcept {
  return Allocate(size, true);
}
void* operator new[](std::size_t size, std::nothrow_t const&) noexcept {
  return Allocate(size, true);
}
void operator delete(void* block) noexcept { Release(block); }
void operator delete[](void* block) noexcept { Release(block); }
void operator delete(void* block, std::size_t) noexcept { Release(block); }
void operator delete[](void* block, std::size_t) noexcept { Release(block); }
void operator delete(void* block, std::nothrow_t const&) noexcept { Release(block); }
void operator delete[](void* block, std::nothrow_t const&) noexcept { Release(block); }
