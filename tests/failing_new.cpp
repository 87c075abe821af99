// Replaces the global operator new family for the binaries that link this
// file, and hooks VUGlobal's operator new into the same counter. Every block
// comes from malloc and goes back to free, so the sanitizers that intercept
// malloc still see every block: a definition in the executable takes
// precedence over the one in a sanitizer's runtime, and the leak checker
// keeps working through malloc.
#include "support/failing_new.h"

#include <atomic>
#include <cstdlib>
#include <new>

#include "ServerDataManager.h"

namespace failing_new {
namespace {

// Per thread, so that only the thread under test is counted and failed. All
// trivially initialised: reading them allocates nothing.
thread_local bool tArmed = false;
thread_local long tFailAt = 0;
thread_local bool tPersistent = false;
thread_local long tCounted = 0;
thread_local long tFailed = 0;
thread_local std::size_t tLargest = 0;

std::atomic<long> gLiveBlocks{0};

// Counts one request on an armed thread and says whether it is to fail.
bool ShouldFail(std::size_t size) {
  if (!tArmed) return false;
  ++tCounted;
  if (size > tLargest) tLargest = size;
  bool fail = tFailAt > 0 && (tPersistent ? tCounted >= tFailAt : tCounted == tFailAt);
  if (fail) ++tFailed;
  return fail;
}

void* Allocate(std::size_t size, std::size_t alignment) {
  if (size == 0) size = 1;
  for (;;) {
    void* block = nullptr;
    if (alignment <= alignof(std::max_align_t)) {
      block = std::malloc(size);
    } else if (posix_memalign(&block, alignment, size) != 0) {
      block = nullptr;
    }
    if (block != nullptr) {
      gLiveBlocks.fetch_add(1, std::memory_order_relaxed);
      return block;
    }
    std::new_handler handler = std::get_new_handler();
    if (handler == nullptr) throw std::bad_alloc();
    handler();
  }
}

void* Throwing(std::size_t size, std::size_t alignment) {
  if (ShouldFail(size)) throw std::bad_alloc();
  return Allocate(size, alignment);
}

void* NoThrow(std::size_t size, std::size_t alignment) noexcept {
  if (ShouldFail(size)) return nullptr;
  try {
    return Allocate(size, alignment);
  } catch (std::bad_alloc const&) {
    return nullptr;
  }
}

void Release(void* block) noexcept {
  if (block == nullptr) return;
  gLiveBlocks.fetch_sub(1, std::memory_order_relaxed);
  std::free(block);
}

}  // namespace

void Arm(long k, Mode mode) {
  tCounted = 0;
  tFailed = 0;
  tLargest = 0;
  tFailAt = k;
  tPersistent = mode == Mode::kPersistent;
  VUGlobal::SetAllocationHook(&ShouldFail);
  tArmed = true;
}

void Disarm() {
  tArmed = false;
  VUGlobal::SetAllocationHook(nullptr);
}

long Counted() { return tCounted; }
long Failed() { return tFailed; }
std::size_t LargestRequest() { return tLargest; }
long LiveBlocks() { return gLiveBlocks.load(std::memory_order_relaxed); }

}  // namespace failing_new

using failing_new::NoThrow;
using failing_new::Release;
using failing_new::Throwing;

constexpr std::size_t kPlain = alignof(std::max_align_t);

void* operator new(std::size_t size) { return Throwing(size, kPlain); }
void* operator new[](std::size_t size) { return Throwing(size, kPlain); }
void* operator new(std::size_t size, std::nothrow_t const&) noexcept { return NoThrow(size, kPlain); }
void* operator new[](std::size_t size, std::nothrow_t const&) noexcept {
  return NoThrow(size, kPlain);
}
void* operator new(std::size_t size, std::align_val_t align) {
  return Throwing(size, static_cast<std::size_t>(align));
}
void* operator new[](std::size_t size, std::align_val_t align) {
  return Throwing(size, static_cast<std::size_t>(align));
}
void* operator new(std::size_t size, std::align_val_t align, std::nothrow_t const&) noexcept {
  return NoThrow(size, static_cast<std::size_t>(align));
}
void* operator new[](std::size_t size, std::align_val_t align, std::nothrow_t const&) noexcept {
  return NoThrow(size, static_cast<std::size_t>(align));
}

void operator delete(void* block) noexcept { Release(block); }
void operator delete[](void* block) noexcept { Release(block); }
void operator delete(void* block, std::size_t) noexcept { Release(block); }
void operator delete[](void* block, std::size_t) noexcept { Release(block); }
void operator delete(void* block, std::nothrow_t const&) noexcept { Release(block); }
void operator delete[](void* block, std::nothrow_t const&) noexcept { Release(block); }
void operator delete(void* block, std::align_val_t) noexcept { Release(block); }
void operator delete[](void* block, std::align_val_t) noexcept { Release(block); }
void operator delete(void* block, std::size_t, std::align_val_t) noexcept { Release(block); }
void operator delete[](void* block, std::size_t, std::align_val_t) noexcept { Release(block); }
void operator delete(void* block, std::align_val_t, std::nothrow_t const&) noexcept {
  Release(block);
}
void operator delete[](void* block, std::align_val_t, std::nothrow_t const&) noexcept {
  Release(block);
}
