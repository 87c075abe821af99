// The per-dataset snapshot of the dictionary that change detection compares
// the live data source with.
#ifndef SDM_OBSERVERVIEW_H
#define SDM_OBSERVERVIEW_H

class SvrDMItem;

// Embedded in its item, which it points back to. Reached only under the
// item's write access.
class SvrDMObserverView {
 public:
  explicit SvrDMObserverView(SvrDMItem* item) : item_(item) {}
  SvrDMObserverView(SvrDMObserverView const&) = delete;
  SvrDMObserverView& operator=(SvrDMObserverView const&) = delete;

  SvrDMItem* Item() const { return item_; }

  void Update();
  void BulkVarMoves(bool on);

 private:
  SvrDMItem* item_;
};

#endif  // SDM_OBSERVERVIEW_H
