// A client's copy of a dataset's dictionary, kept up to date only by the
// notification messages a watcher receives, read the way a client reads
// them. Tests compare it with the live dictionary: if the two differ, some
// message was wrong, missing or out of order.
#ifndef SDM_TESTS_SUPPORT_WATCHER_MODEL_H
#define SDM_TESTS_SUPPORT_WATCHER_MODEL_H

#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "ServerDataManager.h"

class WatcherModel {
 public:
  // Applies the messages in queue order. Returns false, with the reason in
  // `error`, when a message cannot apply to the model (an unknown variable,
  // a position out of range).
  bool Apply(std::vector<DataSetMsg*> const& queue, std::string* error);
  // Applies one message and returns why it cannot apply, empty when it
  // does; writes the message's DescribeQueue line to `line` either way.
  std::string Read(DataSetMsg const& message, std::ostream& line);

  // True when the model agrees with `live` on everything the messages carry;
  // otherwise `error` says where they part.
  // `checkFileSpec` false skips the file name, which a dataset sharing
  // another's file never announces.
  bool Matches(QUOR_DataSource& live, std::string* error, bool checkFileSpec = true) const;

  std::vector<QUOR_Variable> variables;
  LocallyUniqueID weight, filter;
  std::vector<LocallyUniqueID> split;
  bool separate = false, dirty = false;
  std::string label, fileSpec;
  long long rowCount = -1;
  QUOR_TrendsInfo trends;
  std::map<int, std::string> extensions;  // payload by extension type
};

// One line per message, for comparing whole queues in tests, e.g.
// "Insert [X] before B", "Move 3 -> 0", "Modify A", "Weight A". Serial k of
// group 0 reads as the k-th capital letter, as the tests build variables.
std::vector<std::string> DescribeQueue(std::vector<DataSetMsg*> const& queue);

#endif  // SDM_TESTS_SUPPORT_WATCHER_MODEL_H
