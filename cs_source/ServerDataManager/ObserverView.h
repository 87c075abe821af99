// The per-dataset snapshot of the dictionary, and the reconciliation that
// turns each difference between it and the live data source into a
// notification message.
#ifndef SDM_OBSERVERVIEW_H
#define SDM_OBSERVERVIEW_H

#include <cstdint>
#include <memory>

class QUOR_DataSource;
class SvrDMItem;

// Embedded in its item, which it borrows. Holds a row-less copy of what the
// dataset's watchers were last told. Reached only by the thread that holds
// the item's write access, under its observer mutex: nothing here locks.
class SvrDMObserverView {
 public:
  explicit SvrDMObserverView(SvrDMItem& item);
  ~SvrDMObserverView();
  SvrDMObserverView(SvrDMObserverView const&) = delete;
  SvrDMObserverView& operator=(SvrDMObserverView const&) = delete;

  // Compares the snapshot with the item's live data source, queues one
  // message per difference on the item, in a fixed order, and brings the
  // snapshot up to date. The variable list is reconciled in O(n log n).
  //
  // Faults: each stage (the variable list, then each property) changes the
  // snapshot and queues its messages together or not at all, so whatever
  // exception leaves Update, the queue describes exactly what was done to
  // the snapshot; the next Update finds what is still different.
  //
  // A live list that holds one identifier twice breaks the contract of a
  // dictionary: Update then throws std::invalid_argument naming it, before
  // anything is queued or changed.
  void Update();

  // When set, the next Update replaces the variable list in two messages
  // instead of reporting each move. One-shot.
  void BulkVarMoves(bool on);

  // The snapshot, for inspection. Valid while the view lives.
  QUOR_DataSource const& Snapshot() const;
  // The row count last seen by Update; -2 before the first.
  int64_t RowCountSeen() const;

 private:
  struct Data;
  std::unique_ptr<Data> data_;
};

#endif  // SDM_OBSERVERVIEW_H
