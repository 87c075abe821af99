// A client's copy of a dataset's dictionary, kept up to date only by the
// notification messages a watcher receives, read the way a client reads
// them. Tests compare it with the live dictionary: if the two differ, some
// message was wrong, missing or out of order.
#ifndef SDM_TESTS_SUPPORT_WATCHER_MODEL_H
#define SDM_TESTS_SUPPORT_WATCHER_MODEL_H

#include <map>
#include <string>
#include <vector>

#include "ServerDataManager.h"

class WatcherModel {
 public:
  // Applies the messages in queue order. Returns false, with the reason in
  // `error`, when a message cannot apply to the model (an unknown variable,
  // a position out of range).
  bool Apply(std::vector<DataSetMsg*> const& queue, std::string* error);

  // True when the model agrees with `live` on everything the messages carry;
  // otherwise `error` says where they part. `fileSpec` is compared only when
  // `checkFileSpec` is set, since a dataset that shares another's file never
  // announces it.
  bool Matches(QUOR_DataSource& live, std::string* error, bool checkFileSpec = true) const;

  std::vector<QUOR_Variable> variables;
  LocallyUniqueID weight;
  LocallyUniqueID filter;
  std::vector<LocallyUniqueID> split;
  bool separate = false;
  std::string label;
  std::string fileSpec;
  bool dirty = false;
  long long rowCount = -1;
  QUOR_TrendsInfo trends;
  std::map<int, std::string> extensions;  // payload by extension type

 private:
  bool ApplyOne(DataSetMsg const& message, std::string* error);
  int Find(LocallyUniqueID id) const;
};

// Names a variable for test output: serial k reads as the k-th capital
// letter when the tests build their variables that way, else as a number.
std::string VariableName(LocallyUniqueID id);

// One line per message, for comparing whole queues in tests, e.g.
// "Insert [X] before B", "Move 3 -> 0", "Modify A", "Weight A".
std::vector<std::string> DescribeQueue(std::vector<DataSetMsg*> const& queue);

#endif  // SDM_TESTS_SUPPORT_WATCHER_MODEL_H
