// Handles on datasets and the data source that shadows another's rows.
#ifndef SDM_HANDLES_H
#define SDM_HANDLES_H

#include "RefCountPtr.h"
#include "datasource.h"
#include "platform.h"

// A data source with a dictionary of its own over the rows of another
// source, which it owns with that source's chain. Copies share the source;
// the last clone to go deletes it. The source stays hidden from chain walks:
// the parent link is null except during MakeIterator and while
// ShowParents(true) is in force. No lock of its own: it lives under the
// access lock of the item that holds it, and MakeIterator, which writes the
// parent link, must not run on one clone from two threads at once.
class SvrDMCloneDataSource : public QUOR_DataSource {
 public:
  // Takes ownership of `source` and its chain (also through the const), and
  // starts with a copy of its dictionary. `source` must not be null.
  explicit SvrDMCloneDataSource(QUOR_DataSource const* source);
  // A second clone over the same source, with a copy of `other`'s present
  // dictionary.
  SvrDMCloneDataSource(SvrDMCloneDataSource const& other);
  SvrDMCloneDataSource& operator=(SvrDMCloneDataSource const&) = delete;
  ~SvrDMCloneDataSource() override;

  // Rows are the source's.
  ObsIterator* MakeIterator(OBS* obs) const override;
  long GetObsAreaSize() const override;
  long long RowCount() const override;
  int NParents() const override;

  // Shows (true) or hides the source as this clone's parent, and returns
  // whether it was shown before the call. A clone must be hidden again
  // before its chain is deleted.
  bool ShowParents(bool show);

  struct Data : QUOR_RefCntObject {
    explicit Data(QUOR_DataSource const* owned) : source(owned) {}
    Data(Data const& other) : QUOR_RefCntObject(other), source(other.source) {}
    Data& operator=(Data const&) = delete;
    // Deletes the source's chain, head first.
    ~Data() override;

    // Set at construction; owned with its parents.
    QUOR_DataSource const* const source;
  };

 private:
  RefCountPtr<Data> data;
};

#endif  // SDM_HANDLES_H
