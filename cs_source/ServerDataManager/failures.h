// The failures a caller of the data manager meets, named, and a way to put
// any of them into words.
#ifndef SDM_FAILURES_H
#define SDM_FAILURES_H

#include <exception>
#include <iosfwd>
#include <string>

#include "errormonitor.h"
#include "platform.h"
#include "sdmexport.h"

// The two failures the data manager raises itself, both thrown by value and
// neither derived from std::exception: an ErrorMsg with this code and an
// empty text when no open dataset has the identifier asked for (from every
// constructor of a handle or an access that takes one, and from
// ServerDataManager::GetDataSet), and a plain int of this value when a try
// for a dataset's write lock fails (from the access constructors with
// `tryOnly`). Anything else that reaches a caller comes from a data source,
// an observer or the allocator, and passes through unchanged.
constexpr unsigned int kSvrDMUnknownDataSet = 2001;
constexpr int kSvrDMLockNotAvailable = 55;

// "group:serial", as messages print identifiers; "none" for the all-ones one.
SDM_EXPORT std::ostream& operator<<(std::ostream& out, LocallyUniqueID id);
// "ErrorMsg <code>", then ": <text>" when there is a text.
SDM_EXPORT std::ostream& operator<<(std::ostream& out, ErrorMsg const& error);

// One sentence for a failure caught from the library, for a log or a client:
// "no dataset 0:48 is open (ErrorMsg 2001)", "the dataset is busy: a try for
// its access lock failed (55)", the text of a std::exception, and a plain
// description of anything else. Call it inside a catch block, where it reads
// the exception being handled, or hand it one kept in `failure`.
// `dataSetID` is the identifier the caller asked for, which neither thrown
// value carries; leave it out when there is none to name. Does not throw
// for any failure, only when memory runs out.
SDM_EXPORT std::string SvrDMDescribeFailure(LocallyUniqueID dataSetID = LocallyUniqueID(),
                                            std::exception_ptr failure = std::current_exception());

#endif  // SDM_FAILURES_H
