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
  // snapshot up to date piece by piece. On an exception the messages queued
  // so far and the snapshot changes made so far stay; the next Update picks
  // up what is still different.
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
