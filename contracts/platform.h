// The utility and platform layer of the server: the base of reference-counted
// records, the registry's recursive lock, the file-name class that holds a
// data file open, case-blind comparison, the server's numeric dates, and the
// identifier of datasets and variables.
#ifndef SDM_CONTRACTS_PLATFORM_H
#define SDM_CONTRACTS_PLATFORM_H

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>

#include "ThreadAnnotations.h"

// Identifies a dataset or a variable: a 4-bit group in bits 0-3 and a 28-bit
// serial in bits 4-31 of one word. All 32 bits set means "no identifier",
// which is what the default constructor gives. A plain value; no threads.
struct LocallyUniqueID {
  static constexpr uint32_t kNone = 0xFFFFFFFFu;

  constexpr LocallyUniqueID() : group(0xFu), serial(0xFFFFFFFu) {}
  constexpr LocallyUniqueID(uint32_t g, uint32_t s) : group(g & 0xFu), serial(s & 0xFFFFFFFu) {}

  // The word form used in messages and byte strings. Built by shifts, so it
  // does not depend on how the compiler lays out the bit fields.
  static LocallyUniqueID FromWord(uint32_t word) { return LocallyUniqueID(word & 0xFu, word >> 4); }
  uint32_t ToWord() const {
    return (static_cast<uint32_t>(serial) << 4) | static_cast<uint32_t>(group);
  }
  bool IsNone() const { return ToWord() == kNone; }

  bool operator==(LocallyUniqueID const& o) const { return group == o.group && serial == o.serial; }
  bool operator!=(LocallyUniqueID const& o) const { return !(*this == o); }
  bool operator<(LocallyUniqueID const& o) const {
    return group != o.group ? group < o.group : serial < o.serial;
  }

  uint32_t group : 4;
  uint32_t serial : 28;
};

// Base of every record shared through RefCountPtr<T>. The count is atomic:
// pointers to one object may be copied and dropped on many threads at once.
// A copy starts with no reference, whatever the source's count.
class QUOR_RefCntObject {
 public:
  QUOR_RefCntObject() = default;
  QUOR_RefCntObject(QUOR_RefCntObject const&) : refs_(0) {}
  QUOR_RefCntObject& operator=(QUOR_RefCntObject const&) { return *this; }
  virtual ~QUOR_RefCntObject() = default;

  void AddReference() { refs_.fetch_add(1, std::memory_order_relaxed); }
  // Deletes the object through its virtual destructor when the last
  // reference goes.
  void RemoveReference() {
    if (refs_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }
  int IsShared() const { return refs_.load(std::memory_order_acquire) > 1 ? 1 : 0; }
  int IsShareable() const { return 1; }

 private:
  std::atomic<long> refs_{0};
};

// A recursive lock: the thread that holds it takes it again without waiting,
// and it is free once every Lock of that thread has ended.
class SDM_CAPABILITY("mutex") CriticalSection {
 public:
  CriticalSection() = default;
  CriticalSection(CriticalSection const&) = delete;
  CriticalSection& operator=(CriticalSection const&) = delete;

  // Scoped holder. Takes a const section so const operations can lock.
  class SDM_SCOPED_CAPABILITY Lock {
   public:
    explicit Lock(CriticalSection const& section) SDM_ACQUIRE(section);
    ~Lock() SDM_RELEASE();
    Lock(Lock const&) = delete;
    Lock& operator=(Lock const&) = delete;

   private:
    CriticalSection const& section_;
  };

 private:
  mutable std::recursive_mutex mutex_;
};

// A file name of the platform layer. fsopen opens the file and returns a C
// stream that outlives this object, or null when the file cannot be opened.
class ExtNameStr {
 public:
  ExtNameStr() = default;
  void SetGeneric(std::string const& name) { name_ = name; }
  std::string const& Generic() const { return name_; }
  // `share` 32 asks for a stream that holds the file as in use for reading.
  FILE* fsopen(char const* mode, int share) const;

 private:
  std::string name_;
};

// 0 when the two zero-terminated strings are equal apart from ASCII case.
int QUORMBstricmp_A(char const* a, char const* b);

// The server's numeric date: seconds since 1 January 1970 00:00:00 of the
// proleptic Gregorian calendar, the civil time given taken as it stands (no
// zone is applied). Stores the value in *result and returns 0; returns 1 and
// leaves *result alone when the month, day, hour, minute or second is out of
// range.
int iDMY2Quor(long day, long month, long year, long hour, long minute, double second,
              double* result);

#endif  // SDM_CONTRACTS_PLATFORM_H
