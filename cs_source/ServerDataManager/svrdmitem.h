// The one shared record of an open dataset.
#ifndef SDM_SVRDMITEM_H
#define SDM_SVRDMITEM_H

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <list>
#include <string>
#include <vector>

#include "ObserverView.h"
#include "RefCountPtr.h"
#include "errormonitor.h"
#include "platform.h"
#include "sdmexport.h"
#include "threads.h"

class DataSetMsg;
class QUOR_DataSource;
class ServerDataManager;
class SvrBootstrapSpecs;
class SvrDMWriteableDataSource;

// Implemented by the server's clients of a dataset: hears, at the end of each
// write access that queued something, that the dataset changed. Called in the
// writer's thread under its write lock and the item's observerMutex, so it
// must neither register nor unregister on the same item, nor ask for access
// of its own to it; it reads the queue through `source`. Not owned.
class SDM_EXPORT SvrDMDataSetObserver {
 public:
  virtual void DataSetChanged(SvrDMWriteableDataSource const* source) = 0;
  virtual ~SvrDMDataSetObserver() = default;
};

// A dataset: identity, names, password, the owned chain of data sources, the
// access lock, observers and queue, error monitor, snapshot, held file and
// bootstrap specs. Shared through SvrDMItemPtr; the access classes
// read and write the fields directly. Each group of fields has its own lock
// rule, noted beside it: no single lock covers the record.
class SDM_EXPORT SvrDMItem : public QUOR_RefCntObject {
 public:
  // Called by the registry alone. Takes ownership of `dataSource` and its
  // whole parent chain.
  SvrDMItem(LocallyUniqueID id, QUOR_DataSource* dataSource, ServerDataManager* dataManager,
            unsigned int caseSequence, std::string const& fileName, bool announce);
  SvrDMItem();
  // An item has no copy: this stops the process with an assertion failure.
  SvrDMItem(SvrDMItem const& other);
  SvrDMItem& operator=(SvrDMItem const&) = delete;
  ~SvrDMItem() override;

  // Same identifier, both bit fields.
  bool operator==(SvrDMItem const& other) const;
  // Lower group first; with equal groups, lower serial.
  bool operator<(SvrDMItem const& other) const;

  // Stores the password and whether it is in mangled form.
  void Password(std::string const& password, bool mangled);

  // The current local time in the server's numeric date form; falls back to
  // 1 February 1975 12:00:00 when the clock cannot be broken down.
  static int quorTimestampNow(double* out);

  // The held data file. While a dataset belongs to a file it keeps the file
  // open, which marks it as in use and fixes the modification time against
  // which outside changes are judged. No lock: callers serialise these.
  //
  // Brings the held file in line with fileName: nothing happens while the
  // two names are equal with case; otherwise the old file is let go and the
  // new one opened. A file that cannot be opened is not reported and is not
  // held, so the next call tries again.
  void LockSavFileInUse();
  // Closes the held file, if any, and forgets its name and time.
  void UnlockSavFileInUse();
  // True when the held file's modification time, asked of the open stream,
  // differs from the one read when it was opened; false with no file held.
  bool SavFileExternallyChanged() const;
  // Stores `name` as the dataset's file and moves the hold to it.
  void FileName(std::string const& name);
  // A SystemFileDataSource at the head of the chain answers; otherwise the
  // item's own passwordMangled.
  bool PasswordMangled() const;

  // Appends `message` to the queue, which owns it from then on. When the
  // queue cannot grow, bad_alloc passes and the message stays the caller's.
  void AddNotification(DataSetMsg* message);
  // The same for messages the library builds itself: the queue owns
  // `message` even when it cannot grow, in which case it is deleted before
  // bad_alloc passes on.
  void QueueNotification(DataSetMsg* message);
  // Deletes every queued message, undelivered.
  void ClearNotifications();
  // Deletes the whole chain of data sources, head first, each parent read
  // before its child goes, and leaves `dataSource` null.
  void DeleteDataSource();
  // Makes `newSource` the head of the chain and takes ownership of it and of
  // its own parents. Sources of the old chain that the new one no longer
  // reaches are deleted; the file is let go before the change and held again
  // after it; a ResetUndoMsg is queued when a source was present. Needs the
  // write lock.
  void SetDataSet(QUOR_DataSource* newSource);

  // --- Access lock. Called only by the access objects: one Acquire from
  // the constructor, and one ReleaseLock from the end of the same object in
  // the same thread if, and only if, the Acquire returned true. The access
  // object remembers what it holds; the item keeps no record of it.

  // Waits for the read lock, whatever `tryOnly` says, and returns true.
  bool AcquireReadLock(bool tryOnly) SDM_TRY_ACQUIRE_SHARED(true, accessMutex);
  // Waits for the write lock, or with `tryOnly` makes one try and returns
  // false if the lock is taken; the mutex is then as it was.
  bool AcquireWriteLock(bool tryOnly) SDM_TRY_ACQUIRE(true, accessMutex);
  // Gives back the read or write lock that the calling thread holds.
  void ReleaseLock() SDM_RELEASE_GENERIC(accessMutex);

  // --- Notification queue and dataset observers.

  // Appends the observer, even if it stands in the list already.
  void Register(SvrDMDataSetObserver& observer);
  // Removes every entry of the observer; an unknown observer is no error.
  void Unregister(SvrDMDataSetObserver& observer);
  // AddNotification and ClearNotifications above need the write lock too.
  //
  // The pass at the end of a write access: brings the snapshot up to date,
  // sends a creation notice still due, tells every observer but `skip`, and
  // empties the queue. Needs the write lock.
  void Notify(SvrDMWriteableDataSource const* source, SvrDMDataSetObserver* skip);
  // Stores the value; nothing in the library reads it.
  void Originator(unsigned int& value);
  // Makes the next snapshot update replace the variable list wholesale.
  void BulkVarMoves(bool on);

  SvrBootstrapSpecs* GetBootstrapSpecs() const { return bootstrapSpecs; }
  // Takes ownership of `specs` (ordinary allocator) and frees the one held
  // before, unless it is the same record.
  void SetBootstrapSpecs(SvrBootstrapSpecs* specs);

  // The embedded monitor, owned by the item. It reports nothing until
  // InitializeErrorMonitor gives it a channel.
  InteractiveErrorMonitor* GetErrorMonitor() { return &errorMonitor; }
  // Gives the monitor this dataset's identifier and `proxy` (borrowed; null
  // silences it again). The warning switch keeps its value.
  void InitializeErrorMonitor(PackageProxy* proxy);

  // The fields in their fixed order, each marked with what guards it. The
  // access lock is held across calls by the access objects, which the
  // analysis cannot follow, so what it guards is noted in words; "no lock"
  // means callers serialise their own changes.

  ServerDataManager* dataManager = nullptr;  // set at construction
  // Head of the owned chain. Changed under the write lock of accessMutex,
  // read under read or write access (HasDataSource reads it with no lock).
  QUOR_DataSource* dataSource = nullptr;
  std::string handle;            // no lock; the registry reads it under registryLock
  std::string fileName;          // no lock; likewise, and a write access's end may set it
  std::string sharedFileName;    // set while the registry adds the item
  std::string password;          // no lock
  bool passwordMangled = false;  // no lock
  sfMutexRW accessMutex;         // held by the access objects, across calls
  sfMutex observerMutex;         // taken only through sfGuard
  std::list<SvrDMDataSetObserver*> dataSetObservers SDM_GUARDED_BY(observerMutex);
  std::vector<DataSetMsg*> notifications;  // owned; write lock of accessMutex
  // Silent until InitializeErrorMonitor gives it a channel. No lock:
  // callers order changes to it against reports.
  InteractiveErrorMonitor errorMonitor{LocallyUniqueID(), nullptr};
  LocallyUniqueID dataSetID;  // set at construction; all ones until then
  uint32_t caseSequence = 0;  // write lock of accessMutex
  // Updated under observerMutex and the write lock; BulkVarMoves under the
  // write lock alone.
  SvrDMObserverView observerView{*this};
  // Reporting only, so no lock: moved by the access objects beside one
  // another (readers share the lock, writers count before they hold it).
  std::atomic<int32_t> writersCount{0};
  std::atomic<int32_t> readersCount{0};
  uint32_t originator = 0;  // write lock of accessMutex; read by nothing
  bool announce = true;     // set at construction
  // Set by every failed try for the write lock and never cleared: it tells
  // that one has failed, nothing more, and nothing in the library reads it.
  // Atomic because tries fail on several threads at once.
  std::atomic<bool> writeLockFailed{false};
  bool windowFront = false;     // no lock
  bool windowMinimized = true;  // no lock
  bool windowHidden = false;    // no lock
  // Written by NotifyCreate: while the registry adds the item, before any
  // other thread can reach it, and later under the write lock of accessMutex.
  bool createNotified = false;
  // The held data file: no lock, and changed by a write access's end too.
  FILE* lockedFile = nullptr;
  std::string lockedFileName;
  int64_t lockedFileTime = 0;
  SvrBootstrapSpecs* bootstrapSpecs = nullptr;  // owned; no lock
  double objCreationTime = 0.0;                 // set at construction
};

typedef RefCountPtr<SvrDMItem> SvrDMItemPtr;

// Deletes the chain of data sources from `head` up, head first, each
// parent read before its child goes, and stops at `stop` (kept) or at the
// chain's end. A null `head` deletes nothing.
void SvrDMDeleteChain(QUOR_DataSource const* head, QUOR_DataSource const* stop = nullptr);

// Reports a broken internal invariant in the usual assertion form and stops
// the process. Unlike assert() it stays in release builds: what it guards
// cannot be reached by input, only by a broken library underneath.
[[noreturn]] void SvrDMAssertionFailed(char const* expression, char const* file, int line,
                                       char const* function);

#endif  // SDM_SVRDMITEM_H
