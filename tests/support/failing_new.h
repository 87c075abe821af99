// Allocation-failure injection for the tests that prove what survives an
// exhausted allocator. Linked only into the binaries that list
// tests/failing_new.cpp, which replaces the global operator new family; the
// same counter also serves VUGlobal's allocations through its test hook, so
// message blocks and ordinary blocks fail in one sequence.
#ifndef SDM_TESTS_SUPPORT_FAILING_NEW_H
#define SDM_TESTS_SUPPORT_FAILING_NEW_H

#include <cstddef>

namespace failing_new {

enum class Mode {
  kTransient,   // the k-th allocation fails, the ones after it succeed
  kPersistent,  // the k-th allocation and every one after it fail
};

// Starts counting the calling thread's allocations from 1; the k-th throws
// std::bad_alloc as `mode` says. k = 0 counts without ever failing. Other
// threads are neither counted nor failed.
void Arm(long k, Mode mode);
// Stops counting and failing on the calling thread; the figures of the last
// armed run stay readable.
void Disarm();

// Allocations requested on the armed thread since Arm, the failed ones
// included.
long Counted();
// How many of them were made to fail.
long Failed();
// The largest single request since Arm, in bytes.
std::size_t LargestRequest();

// Blocks from the global operator new family not yet given back, over the
// whole process: the leak count of a build without the address sanitizer.
long LiveBlocks();

}  // namespace failing_new

#endif  // SDM_TESTS_SUPPORT_FAILING_NEW_H
