// What the snapshot costs in memory, and that reconciling an unchanged
// dictionary costs no allocation. This file replaces the global allocator
// with a counting one, so it is built into a binary of its own
// (sdm_memory_tests) and never linked with the other tests.
#include <malloc.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ServerDataManager.h"

namespace {

// Counts while armed: calls to operator new, and the heap bytes held, as
// the C library sizes each block (malloc_usable_size, asked on the way in
// and on the way out, so what is freed cancels what was taken).
std::atomic<bool> gArmed{false};
std::atomic<long> gNewCalls{0};
std::atomic<long> gHeldBytes{0};

void* Allocate(std::size_t size) {
  void* block = std::malloc(size == 0 ? 1 : size);
  if (block == nullptr) throw std::bad_alloc();
  if (gArmed.load(std::memory_order_relaxed)) {
    gNewCalls.fetch_add(1, std::memory_order_relaxed);
    gHeldBytes.fetch_add(static_cast<long>(malloc_usable_size(block)), std::memory_order_relaxed);
  }
  return block;
}

void Release(void* block) noexcept {
  if (block == nullptr) return;
  if (gArmed.load(std::memory_order_relaxed)) {
    gHeldBytes.fetch_sub(static_cast<long>(malloc_usable_size(block)), std::memory_order_relaxed);
  }
  std::free(block);
}

// Arms the counters for its scope, from zero.
class Counting {
 public:
  Counting() {
    gNewCalls = 0;
    gHeldBytes = 0;
    gArmed = true;
  }
  ~Counting() { gArmed = false; }
  Counting(Counting const&) = delete;
  Counting& operator=(Counting const&) = delete;

  // Blocks from operator new, and message blocks from VUGlobal's own
  // allocator taken and not given back since arming.
  long calls() const { return gNewCalls.load() + (VUGlobal::LiveBlocks() - messageBlocksAtStart_); }
  long heldBytes() const { return gHeldBytes.load(); }

 private:
  long const messageBlocksAtStart_ = VUGlobal::LiveBlocks();
};

}  // namespace

// Blocks taken before arming may be freed while armed, and the other way
// round; each such block skews the held total by its size. The tests below
// arm only around work that frees what it took or keeps it all.
void* operator new(std::size_t size) { return Allocate(size); }
void* operator new[](std::size_t size) { return Allocate(size); }
void* operator new(std::size_t size, std::nothrow_t const&) noexcept {
  try {
    return Allocate(size);
  } catch (std::bad_alloc const&) {
    return nullptr;
  }
}
void* operator new[](std::size_t size, std::nothrow_t const& tag) noexcept {
  return operator new(size, tag);
}
void operator delete(void* block) noexcept { Release(block); }
void operator delete[](void* block) noexcept { Release(block); }
void operator delete(void* block, std::size_t) noexcept { Release(block); }
void operator delete[](void* block, std::size_t) noexcept { Release(block); }
void operator delete(void* block, std::nothrow_t const&) noexcept { Release(block); }
void operator delete[](void* block, std::nothrow_t const&) noexcept { Release(block); }

namespace {

constexpr int kVariables = 10000;

// An item over a dictionary-only source of kVariables variables, with the
// dataset properties a real dictionary carries set, so a no-difference
// Update walks every property stage with something to compare.
class SnapshotMemoryTest : public ::testing::Test {
 protected:
  SnapshotMemoryTest() : source(new DataFreeDataSource) {
    for (int i = 0; i < kVariables; ++i) {
      source->MakeVariable(QUOR_Variable(LocallyUniqueID(1, static_cast<uint32_t>(i + 1)),
                                         "variable" + std::to_string(i)),
                           nullptr);
    }
    source->SetLabel("a survey");
    source->SetFileSpec("survey.csv");
    source->SetWeightVar(kVariables - 1);
    source->SetFilterVar(kVariables / 2);
    int const split[] = {3, 1};
    source->SetSplit(2, split, true);
    source->GetTrendsInfo()->SetText("trends");
    DatasourceAttributes attributes;
    attributes.Set("origin", "interview");
    source->SetAttributes(attributes);
    source->SetExtension(
        QUOR_DataSource::Extension(QUOR_DataSource::kExtensionRecord, "record zero"));
    item = new SvrDMItem(LocallyUniqueID(0, 1), source, nullptr, 0, "", true);
  }

  DataFreeDataSource* source;  // owned by the item
  SvrDMItemPtr item;
};

TEST_F(SnapshotMemoryTest, SnapshotSharesDefinitionsAndCostsAtMost24BytesAVariable) {
  // The first Update queues one message a variable; the queue's own growth
  // is not the snapshot's, so it gets its room beforehand.
  item->notifications.reserve(kVariables + 16);
  long held;
  {
    Counting counting;
    item->observerView.Update();
    // The messages carry their own handles; what stays after they go is
    // the snapshot.
    item->ClearNotifications();
    held = counting.heldBytes();
  }

  QUOR_DataSource const& snapshot = item->observerView.Snapshot();
  ASSERT_EQ(snapshot.ColumnCount(), source->ColumnCount());
  for (int i = 0; i < kVariables; ++i) {
    ASSERT_EQ(snapshot.GetVariable(i).Definition(), source->GetVariable(i).Definition())
        << "at " << i;
  }
  // A copied definition alone would be several times this.
  EXPECT_LE(held, 24L * kVariables)
      << held / static_cast<double>(kVariables) << " bytes a variable";
}

TEST_F(SnapshotMemoryTest, UpdateFindingNoDifferenceAllocatesNothing) {
  item->observerView.Update();
  item->ClearNotifications();

  long calls;
  {
    Counting counting;
    item->observerView.Update();
    calls = counting.calls();
  }
  EXPECT_TRUE(item->notifications.empty());
  EXPECT_EQ(calls, 0);
}

// An Update that reorders every variable plans over working structures of
// its own (an index, counts, a permutation); they are gone when it returns,
// and what it took is its messages. This also shows the counters are live,
// or the zero above would prove nothing.
TEST_F(SnapshotMemoryTest, UpdateKeepsNothingButItsMessages) {
  item->observerView.Update();
  item->ClearNotifications();
  item->notifications.reserve(kVariables + 16);  // the queue's growth is not Update's
  std::vector<QUOR_Variable> reversed;
  for (int i = kVariables - 1; i >= 0; --i) reversed.push_back(source->GetVariable(i));
  source->DeleteVariables(0, kVariables - 1);
  for (QUOR_Variable const& variable : reversed) source->MakeVariable(variable, nullptr);

  long calls;
  long held;
  {
    Counting counting;
    item->observerView.Update();
    calls = counting.calls();
    item->ClearNotifications();
    held = counting.heldBytes();
  }
  EXPECT_GE(calls, kVariables - 1);  // a message a move, at the least
  EXPECT_EQ(held, 0) << "bytes kept by an Update beyond its messages";
}

}  // namespace
