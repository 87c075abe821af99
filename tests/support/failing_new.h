// Allocation-failure injection, for the binary that links tests/failing_new.cpp:
// it replaces the global operator new family and hooks VUGlobal's operator
// new into the same count, so message blocks and ordinary blocks fail in one
// sequence. Only the thread that armed it is counted.
#ifndef SDM_TESTS_SUPPORT_FAILING_NEW_H
#define SDM_TESTS_SUPPORT_FAILING_NEW_H

#include <cstddef>

namespace failing_new {
// Counts this thread's allocations from 1; the k-th throws std::bad_alloc,
// and with `persistent` every later one too. k = 0 only counts.
void Arm(long k, bool persistent);
void Disarm();
long Counted();  // since Arm, failed ones included
long Failed();
std::size_t LargestRequest();
// Heap bytes of the global operator new taken and not given back while armed.
long HeldBytes();
// Holds off counting and failing on this thread for its lifetime: for work
// that belongs to the test, such as a client applying what it was shown.
class Pause {
 public:
  Pause();
  ~Pause();
  Pause(Pause const&) = delete;
  Pause& operator=(Pause const&) = delete;

 private:
  bool armed_;
};
// Blocks of the global operator new not yet given back, in the whole process.
long LiveBlocks();
}  // namespace failing_new

#endif  // SDM_TESTS_SUPPORT_FAILING_NEW_H
