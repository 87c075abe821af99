// The ways a server procedure holds a dataset: a plain value handle, and the
// scoped read and write accesses derived from it.
#ifndef SDM_HANDLES_H
#define SDM_HANDLES_H

#include <cstdint>
#include <string>
#include <vector>

#include "RefCountPtr.h"
#include "datasource.h"
#include "platform.h"
#include "registry.h"  // keeps the process registry alive for this file's statics
#include "sdmexport.h"
#include "svrdmitem.h"

class DataSetMsg;
class InteractiveErrorMonitor;
class PackageProxy;
class QUOR_DataSource;
class ServerDataManager;
class SvrBootstrapSpecs;

// A value that keeps one dataset's item alive through a counted reference.
// Copies share the item, so a change through one shows in all. Takes no
// access lock: its accessors read and write the item's plain fields as they
// stand, and every operation but WindowHidden() needs a handle that holds an
// item.
class SDM_EXPORT SvrDMDataset {
 public:
  // `item` may hold no item.
  explicit SvrDMDataset(SvrDMItemPtr const& item);
  // Finds the dataset by its handle string, ignoring case, in the process
  // registry; holds no item when none matches.
  explicit SvrDMDataset(std::string const& handle);
  // Find the dataset by identifier; throw ErrorMsg 2001 for an unknown one.
  explicit SvrDMDataset(LocallyUniqueID id);
  SvrDMDataset(ServerDataManager& manager, LocallyUniqueID id);

  SvrDMDataset(SvrDMDataset const&) = default;
  SvrDMDataset& operator=(SvrDMDataset const&) = default;
  // May throw: the access objects end through here and pass on what their
  // notification or release throws.
  virtual ~SvrDMDataset() noexcept(false);

  LocallyUniqueID GetDataSetID() const;
  unsigned int GetCaseSequence() const;
  bool HasDataSource() const;
  ServerDataManager* GetServerDataManager();
  ServerDataManager* GetServerDataManager() const;

  bool WindowFront() const;
  bool WindowMinimized() const;
  // True also when the handle holds no item.
  bool WindowHidden() const;
  void WindowFront(bool front);
  void WindowMinimized(bool minimized);
  void WindowHidden(bool hidden);

  // Writers count from the moment they ask for the lock; readers only while
  // they hold it.
  int32_t WritersCount() const;
  int32_t ReadersCount() const;

  double getObjCreationTime() const;
  std::string GetPassword() const;
  std::string GetFileName() const;
  std::string GetHandle() const;
  void SetHandle(std::string const& handle);

  SvrBootstrapSpecs* GetBootstrapSpecs() const;
  // Takes ownership of `specs`.
  void SetBootstrapSpecs(SvrBootstrapSpecs* specs);
  bool GetPasswordMangled() const;
  void SetPassword(std::string const& password, bool mangled);
  // Stores the file name and moves the held file to it.
  void SetFileName(std::string const& fileName);
  void LockSavFileInUse();
  void UnlockSavFileInUse();
  void Register(SvrDMDataSetObserver& observer);
  void Unregister(SvrDMDataSetObserver& observer);
  // `proxy` is borrowed.
  void InitializeErrorMonitor(PackageProxy* proxy);
  InteractiveErrorMonitor* GetErrorMonitor();

 protected:
  // May hold no item.
  SvrDMItemPtr item_;
};

// Scoped read access: holds the item's read lock from the end of its
// constructor to its destructor, beside any number of other readers. Also
// the common last stage of write access: it records what the object has
// acquired and its end gives back exactly that. One thread uses an object.
class SDM_EXPORT SvrDMInputDataSource : public SvrDMDataset {
 public:
  // `tryOnly` is handed on to the lock; a reader waits in any case. Throws
  // int 55 if the lock cannot be had, ErrorMsg 2001 for an unknown
  // identifier; either way nothing is held and no counter has moved.
  SvrDMInputDataSource(SvrDMItemPtr& item, bool tryOnly);
  SvrDMInputDataSource(LocallyUniqueID id, bool tryOnly);
  SvrDMInputDataSource(ServerDataManager& manager, LocallyUniqueID id, bool tryOnly);
  // Gives back what the object holds, with its count (a reader after the
  // release, a writer before it), then drops the reference, which may end
  // the item. A reader whose release throws stays counted.
  ~SvrDMInputDataSource() noexcept(false) override;

  SvrDMInputDataSource(SvrDMInputDataSource const&) = delete;
  SvrDMInputDataSource& operator=(SvrDMInputDataSource const&) = delete;

  // The item's current data source, read at each call; null for a dataset
  // without one.
  QUOR_DataSource* operator->() const;
  QUOR_DataSource& operator*() const;

 protected:
  // The entry of write access: counts a writer and takes no lock, which the
  // write access asks for itself. The first argument is not read.
  SvrDMInputDataSource(char const* unused, SvrDMItemPtr const& item);

  enum class Held { kNothing, kRead, kWrite };
  // What this object holds of the item's lock, and so what its end gives
  // back. Written only by the object's own constructors.
  Held held_ = Held::kNothing;

 private:
  void TakeReadLock(bool tryOnly);
};

// Scoped write access: holds the item's write lock, alone, from its
// constructor to its destructor. Its end runs the notify pass while the lock
// is still held, so the dataset's observers hear of the changes; `observer`
// is the one left out. One thread uses an object.
class SDM_EXPORT SvrDMWriteableDataSource : public SvrDMInputDataSource {
 public:
  // With `tryOnly` the constructor makes one try and throws int 55 if the
  // lock is taken; otherwise it waits. An unknown identifier throws
  // ErrorMsg 2001. A failed constructor leaves the lock and both counters as
  // they were. `observer` may be null and is not owned.
  SvrDMWriteableDataSource(SvrDMItemPtr& item, bool tryOnly, SvrDMDataSetObserver* observer);
  SvrDMWriteableDataSource(LocallyUniqueID id, bool tryOnly, SvrDMDataSetObserver* observer);
  SvrDMWriteableDataSource(ServerDataManager& manager, LocallyUniqueID id, bool tryOnly,
                           SvrDMDataSetObserver* observer);
  // Notifies under the lock, then counts the writer off and releases, also
  // when the notification throws; that exception then goes on, unless the
  // object ends while another exception unwinds, which wins.
  ~SvrDMWriteableDataSource() noexcept(false) override;

  SvrDMWriteableDataSource(SvrDMWriteableDataSource const&) = delete;
  SvrDMWriteableDataSource& operator=(SvrDMWriteableDataSource const&) = delete;

  QUOR_DataSource* GetDataSource() const;
  QUOR_DataSource* operator->() const;
  QUOR_DataSource& operator*() const;
  // Makes `source` the dataset's data source; the item takes ownership of
  // it. From then on the accessors above give the new source.
  void SetDataSet(QUOR_DataSource* source);

  // Both move the case sequence on by one; nothing compares its values, so
  // an undo is a further step rather than a step back.
  void IncrementCaseSequence();
  void UndoIncrementCaseSequence();

  // The item's own queue, in order of arrival, still owned by the item.
  std::vector<DataSetMsg*> const& GetNotifications() const;
  // The item owns `message` from here on.
  void AddNotification(DataSetMsg* message);
  void ClearNotifications();
  // Delivers what has gathered so far; the destructor delivers the rest.
  void Notify();
  // The next snapshot update replaces the variable list wholesale.
  void BulkVarMoves();
  void Originator(unsigned int value);

 private:
  void TakeWriteLock(bool tryOnly);

  // Set at construction; not owned, may be null.
  SvrDMDataSetObserver* const observer_;
};

// A data source with a dictionary of its own over the rows of another
// source, which it owns with that source's chain. Copies share the source;
// the last clone to go deletes it. The source stays hidden from chain walks:
// the parent link is null except during MakeIterator and while
// ShowParents(true) is in force. No lock of its own: it lives under the
// access lock of the item that holds it, and MakeIterator, which writes the
// parent link, must not run on one clone from two threads at once.
class SDM_EXPORT SvrDMCloneDataSource : public QUOR_DataSource {
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
