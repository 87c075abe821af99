// A data source for reliability tests that counts the living ones and
// notices a second destruction, without allocating in its destructor.
#ifndef SDM_TESTS_SUPPORT_TRACKED_SOURCE_H
#define SDM_TESTS_SUPPORT_TRACKED_SOURCE_H

#include <atomic>
#include <string>

#include "ServerDataManager.h"

class TrackedSource : public QUOR_DataSource {
 public:
  // `variables` numeric variables with serials from `firstSerial` on.
  explicit TrackedSource(int variables = 0, uint32_t firstSerial = 1) : QUOR_DataSource(nullptr) {
    for (uint32_t i = 0; i < static_cast<uint32_t>(variables); ++i) {
      MakeVariable(QUOR_Variable(LocallyUniqueID(0, firstSerial + i), "v" + std::to_string(i)),
                   nullptr);
    }
    ++live;
  }
  ~TrackedSource() override {
    if (alive_.exchange(false) == false) ++destroyedTwice;
    --live;
  }
  // A chain of `length`, head returned; only the head has variables.
  static TrackedSource* Chain(int length, int variables = 2, uint32_t firstSerial = 1) {
    TrackedSource* head = new TrackedSource(variables, firstSerial);
    for (QUOR_DataSource* below = head; --length > 0; below = below->GetParentSource()) {
      below->SetParentSource(new TrackedSource());
    }
    return head;
  }
  // A claimed row count; the source has no rows to iterate.
  long long RowCount() const override { return rows; }

  long long rows = 0;
  inline static std::atomic<long> live{0}, destroyedTwice{0};

 private:
  std::atomic<bool> alive_{true};
};

#endif  // SDM_TESTS_SUPPORT_TRACKED_SOURCE_H
