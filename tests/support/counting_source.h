// A data source for tests that records when it is destroyed, so a test can
// check that every member of a chain goes exactly once and in which order.
#ifndef SDM_TESTS_SUPPORT_COUNTING_SOURCE_H
#define SDM_TESTS_SUPPORT_COUNTING_SOURCE_H

#include <string>
#include <vector>

#include "ServerDataManager.h"

class CountingSource : public QUOR_DataSource {
 public:
  // `log` receives `name` when the source is destroyed; it must outlive it.
  CountingSource(std::vector<std::string>* log, std::string name)
      : QUOR_DataSource(nullptr), log_(log), name_(std::move(name)) {}
  ~CountingSource() override {
    // A source may look at its parent while it is destroyed: owners delete
    // children first. Under the address sanitizer a parent freed too early
    // shows up here.
    if (GetParentSource() != nullptr) (void)GetParentSource()->RowCount();
    log_->push_back(name_);
  }

  // Builds the chain head -> ... -> root from `names`, first name the head.
  static CountingSource* Chain(std::vector<std::string>* log,
                               std::vector<std::string> const& names) {
    CountingSource* head = nullptr;
    CountingSource* previous = nullptr;
    for (std::string const& name : names) {
      auto* source = new CountingSource(log, name);
      if (previous == nullptr) {
        head = source;
      } else {
        previous->SetParentSource(source);
      }
      previous = source;
    }
    return head;
  }

 private:
  std::vector<std::string>* log_;
  std::string name_;
};

#endif  // SDM_TESTS_SUPPORT_COUNTING_SOURCE_H
