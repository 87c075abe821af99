// The tests' data source: it counts the living ones, notices a second
// destruction without allocating in its destructor, and, when given a log,
// records its name there as it goes, so a test can check that every member
// of a chain goes exactly once and in which order.
#ifndef SDM_TESTS_SUPPORT_TRACKED_SOURCE_H
#define SDM_TESTS_SUPPORT_TRACKED_SOURCE_H

#include <atomic>
#include <string>
#include <vector>

#include "ServerDataManager.h"

class TrackedSource : public QUOR_DataSource {
 public:
  // `variables` numeric variables with serials from `firstSerial` on.
  explicit TrackedSource(int variables = 0, uint32_t firstSerial = 1) : QUOR_DataSource(nullptr) {
    for (int i = 0; i < variables; ++i) {
      MakeVariable(QUOR_Variable(LocallyUniqueID(0, firstSerial++), "v" + std::to_string(i)),
                   nullptr);
    }
    ++live;
  }
  ~TrackedSource() override {
    if (!alive_.exchange(false)) ++destroyedTwice;
    --live;
    // Owners delete children first, and a source may look at its parent as
    // it goes: the address sanitizer sees a parent freed too early here.
    if (log == nullptr) return;
    if (GetParentSource() != nullptr) (void)GetParentSource()->RowCount();
    log->push_back(name);
  }
  // A chain of `length`, head returned; only the head has variables.
  static TrackedSource* Chain(int length, int variables = 2, uint32_t firstSerial = 1) {
    TrackedSource* head = new TrackedSource(variables, firstSerial);
    for (QUOR_DataSource* below = head; --length > 0; below = below->GetParentSource()) {
      below->SetParentSource(new TrackedSource());
    }
    return head;
  }
  // The chain of `names`, head first, each logging its name in `*log` as it
  // goes.
  static TrackedSource* Chain(std::vector<std::string>* log, std::vector<std::string> names) {
    TrackedSource* head = Chain(static_cast<int>(names.size()), 0);
    QUOR_DataSource* at = head;
    for (std::size_t i = 0; i < names.size(); ++i, at = at->GetParentSource()) {
      static_cast<TrackedSource*>(at)->log = log;
      static_cast<TrackedSource*>(at)->name = std::move(names[i]);
    }
    return head;
  }
  // A claimed row count; the source has no rows to iterate.
  long long RowCount() const override { return rows; }

  long long rows = 0;
  std::vector<std::string>* log = nullptr;
  std::string name;
  inline static std::atomic<long> live{0}, destroyedTwice{0};

 private:
  std::atomic<bool> alive_{true};
};

#endif  // SDM_TESTS_SUPPORT_TRACKED_SOURCE_H
