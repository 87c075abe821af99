// A client's copy of a dataset's dictionary, kept from the notification
// messages alone: what a client of the data manager does with them, in code.
#ifndef SDM_CLIENTCOPY_H
#define SDM_CLIENTCOPY_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "RefCountPtr.h"
#include "platform.h"
#include "sdmexport.h"

class DataSetMsg;
class QUOR_DataSource;
class QUOR_ExtensionImpl;
class SvrDMItem;

// One client's copy of one dataset's dictionary: the variables in order;
// weight, filter and split, held by identifier as data sources hold them;
// label, file path, trends, extension payloads, row count and dirty flag.
// It changes only by the messages of the dataset's passes, applied in queue
// order, or by Seed, which starts it where the stream stands. It owns what it
// holds and keeps no pointer to an item, and none to a message beyond the
// next queue. No lock: one thread at a time, as a dataset observer is.
class SDM_EXPORT SvrDMClientCopy {
 public:
  // What a client holds before its first pass: no variables, no roles, an
  // empty label and file path, clean, row count -1 (unknown), extensions as
  // a new data source has them.
  SvrDMClientCopy();
  ~SvrDMClientCopy();
  SvrDMClientCopy(SvrDMClientCopy const&) = delete;
  SvrDMClientCopy& operator=(SvrDMClientCopy const&) = delete;

  // Makes the copy what the item's watchers have been told so far, so that
  // the next pass continues it exactly: the snapshot, not the live source,
  // and the messages still queued from a pass that failed are skipped when
  // that pass's queue arrives (they are in the snapshot already). Call it
  // with read access to `item` held and outside any pass, and register the
  // copy's observer before that access ends. Also the way back into step
  // after a refusal.
  void Seed(SvrDMItem const& item);

  // Applies the queue of one pass in order, null entries passed over, after
  // the messages that a seed found queued. Returns the empty string, or the
  // refusal: which message (position in the queue and class) and why it
  // cannot apply. Messages before it stay applied, the refused one changes
  // nothing, later ones are not applied, and from then on the copy refuses
  // everything until it is seeded again. A refusal is returned, not thrown:
  // the copy is applied inside DataSetChanged, where an exception would keep
  // the pass from the observers after it.
  [[nodiscard]] std::string Apply(std::vector<DataSetMsg*> const& queue);
  // Applies one message, with the same refusal (the class and why).
  [[nodiscard]] std::string Apply(DataSetMsg const& message);

  // Where the copy and `live` differ, one clause each, joined by "; "; empty
  // when they agree on everything the messages carry. A dataset that shares
  // another's file never announces its file path, nor does one whose source
  // rests on no data file: pass false to leave the file path out.
  std::string Differences(QUOR_DataSource const& live, bool compareFileSpec = true) const;

  // Variables in order, weight, filter, split and separate flag, label, file
  // path, trends and dirty flag, read as from any data source: a role whose
  // variable has left reads as none until it comes back. The sets,
  // attributes and extension record 0 are held as payloads instead (see
  // Extension); rows per imputation is not held.
  QUOR_DataSource const& Dictionary() const;
  // The payload last announced under extension `type`
  // (QUOR_DataSource::ExtensionType), or, never announced, what a new source
  // has: a null pointer for record 0 while there is none.
  RefCountPtr<QUOR_ExtensionImpl> Extension(int type) const;
  // From the last ResetClientDataMsg, or the seed; -1 before either.
  int64_t RowCount() const;
  // The dataset and case sequence of the last message that carried them, or
  // of the seed; none and 0 before either.
  LocallyUniqueID DataSetID() const;
  uint32_t CaseSequence() const;
  // Empty while the copy is in step, else the refusal that ended it.
  std::string const& Refusal() const;

 private:
  struct Data;
  std::unique_ptr<Data> data_;
};

#endif  // SDM_CLIENTCOPY_H
