// A data source for reliability tests: counts how many exist, and notices a
// second destruction, without allocating in its destructor (a destructor
// that allocated could itself fail under injection, and would be called
// from any thread in the soak).
#ifndef SDM_TESTS_SUPPORT_TRACKED_SOURCE_H
#define SDM_TESTS_SUPPORT_TRACKED_SOURCE_H

#include <atomic>
#include <cstdint>
#include <string>

#include "ServerDataManager.h"

class TrackedSource : public QUOR_DataSource {
 public:
  // A dictionary of `variables` numeric variables named v0, v1, ... with
  // identifiers from `firstID` on.
  explicit TrackedSource(int variables = 0, uint32_t firstID = 1) : QUOR_DataSource(nullptr) {
    for (int i = 0; i < variables; ++i) {
      MakeVariable(QUOR_Variable(LocallyUniqueID(0, firstID + static_cast<uint32_t>(i)),
                                 "v" + std::to_string(i)),
                   nullptr);
    }
    live_.fetch_add(1, std::memory_order_relaxed);
    created_.fetch_add(1, std::memory_order_relaxed);
  }
  ~TrackedSource() override {
    // Read before it is overwritten: a second destruction finds kDead here
    // (the address sanitizer reports it first where it runs).
    if (state_.exchange(kDead) != kAlive) doubleDestroyed_.fetch_add(1);
    live_.fetch_sub(1, std::memory_order_relaxed);
  }

  // A chain of `length` sources, the head returned; each parent has no
  // variables of its own.
  static TrackedSource* Chain(int length, int headVariables = 2, uint32_t firstID = 1) {
    TrackedSource* head = new TrackedSource(headVariables, firstID);
    QUOR_DataSource* below = head;
    for (int i = 1; i < length; ++i) {
      TrackedSource* parent = new TrackedSource();
      below->SetParentSource(parent);
      below = parent;
    }
    return head;
  }

  // The row count the source claims; it has no row data to iterate.
  long long RowCount() const override { return rows; }
  long long rows = 0;

  static long Live() { return live_.load(); }
  static long Created() { return created_.load(); }
  static long DoubleDestroyed() { return doubleDestroyed_.load(); }

 private:
  static constexpr uint32_t kAlive = 0xA11FEu;
  static constexpr uint32_t kDead = 0xDEADu;

  std::atomic<uint32_t> state_{kAlive};

  inline static std::atomic<long> live_{0};
  inline static std::atomic<long> created_{0};
  inline static std::atomic<long> doubleDestroyed_{0};
};

#endif  // SDM_TESTS_SUPPORT_TRACKED_SOURCE_H
