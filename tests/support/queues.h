// Queues as tests read them: short lines to compare whole queues with, and
// the variable stage of a snapshot update written out plainly (a linear
// search from each live position, a sweep of the gap one position at a time,
// one move a pass, editing a list as it goes). Slow and obviously right, the
// latter is the reference the library's stage is checked against, message
// for message.
#ifndef SDM_TESTS_SUPPORT_QUEUES_H
#define SDM_TESTS_SUPPORT_QUEUES_H

#include <cstdint>
#include <string>
#include <vector>

#include "ServerDataManager.h"

// The messages the variable stage queues for a snapshot list `view` and a
// live list `live`, each printed as one line (operator<<), built with the
// given dataset identifier and case sequence. `bulk` takes the bulk path.
std::vector<std::string> LiteralVariableStage(std::vector<QUOR_Variable> view,
                                              std::vector<QUOR_Variable> const& live, bool bulk,
                                              LocallyUniqueID dataSet, uint32_t caseSequence);

// The variables of a source, in order.
std::vector<QUOR_Variable> VariablesOf(QUOR_DataSource const& source);

// The printed lines of the variable messages (deletes, inserts, moves,
// modifies) that stand in `queue` from position `from` on.
std::vector<std::string> VariableLines(std::vector<DataSetMsg*> const& queue, std::size_t from = 0);

// Each message's class name without its namespace, and an extension's type after it: the order of
// a pass, whose contents a client copy checks.
std::vector<std::string> DescribeQueue(std::vector<DataSetMsg*> const& queue);

#endif  // SDM_TESTS_SUPPORT_QUEUES_H
