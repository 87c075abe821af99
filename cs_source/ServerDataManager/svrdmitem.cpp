#include "svrdmitem.h"

#include <cstdio>
#include <cstdlib>

#include <sys/stat.h>

#include "bootstrapspecs.h"
#include "datasource.h"
#include "messages.h"
#include "registry.h"

// Fields not named here start as their declarations in the header say.
SvrDMItem::SvrDMItem(LocallyUniqueID id, QUOR_DataSource* source, ServerDataManager* manager,
                     unsigned int sequence, std::string const& name, bool announceIt)
    : dataManager(manager),
      dataSource(source),
      fileName(name),
      dataSetID(id),
      caseSequence(sequence),
      announce(announceIt) {
  LockSavFileInUse();
  quorTimestampNow(&objCreationTime);
}

// Built by nothing in the library; every field as the header declares it.
SvrDMItem::SvrDMItem() = default;

SvrDMItem::SvrDMItem(SvrDMItem const& other) : SvrDMItem() {
  announce = other.announce;
  // Reached only when a RefCountPtr tries to copy an item, which no path of
  // the server does: an item is one dataset and cannot be duplicated.
  SvrDMAssertionFailed("0", "cs_source/ServerDataManager/svrdmitem", __LINE__,
                       "SvrDMItem::SvrDMItem(const SvrDMItem&)");
}

SvrDMItem::~SvrDMItem() {
  UnlockSavFileInUse();
  ClearNotifications();
  DeleteDataSource();
  SetBootstrapSpecs(nullptr);
}

bool SvrDMItem::operator==(SvrDMItem const& other) const { return dataSetID == other.dataSetID; }

bool SvrDMItem::operator<(SvrDMItem const& other) const { return dataSetID < other.dataSetID; }

void SvrDMItem::Password(std::string const& newPassword, bool mangled) {
  password = newPassword;
  passwordMangled = mangled;
}

int SvrDMItem::quorTimestampNow(double* out) {
  std::time_t now = std::time(nullptr);
  std::tm const* local = std::localtime(&now);
  if (local == nullptr) return iDMY2Quor(1, 2, 1975, 12, 0, 0.0, out);
  return iDMY2Quor(local->tm_mday, local->tm_mon + 1, local->tm_year + 1900, local->tm_hour,
                   local->tm_min, static_cast<double>(local->tm_sec), out);
}

void SvrDMItem::AddNotification(DataSetMsg* message) { notifications.push_back(message); }

void SvrDMItem::QueueNotification(DataSetMsg* message) {
  try {
    AddNotification(message);
  } catch (...) {
    delete message;
    throw;
  }
}

void SvrDMItem::ClearNotifications() {
  for (DataSetMsg* message : notifications) delete message;
  notifications.clear();
}

void SvrDMDeleteChain(QUOR_DataSource const* head, QUOR_DataSource const* stop) {
  // A source never deletes its parent, and a child's destructor may still
  // look at it: read the link first, then delete, then move on.
  while (head != stop && head != nullptr) {
    QUOR_DataSource const* parent = head->GetParentSource();
    delete head;
    head = parent;
  }
}

void SvrDMItem::DeleteDataSource() {
  QUOR_DataSource* const head = dataSource;
  dataSource = nullptr;
  SvrDMDeleteChain(head);
}

namespace {
// Whether walking up from `from` along the parent links reaches `target`.
// The walk's final null counts as reached.
bool Reaches(QUOR_DataSource const* from, QUOR_DataSource const* target) {
  for (QUOR_DataSource const* at = from;; at = at->GetParentSource()) {
    if (at == target) return true;
    if (at == nullptr) return false;
  }
}
}  // namespace

void SvrDMItem::SetDataSet(QUOR_DataSource* newSource) {
  QUOR_DataSource* const old = dataSource;
  // Delete what the new head no longer reaches. Falling back to an ancestor
  // (or to nothing) drops the sources below it; a new head whose own chain
  // leads to the old one keeps all of it; an unrelated head drops it all.
  QUOR_DataSource* stop = nullptr;
  bool deleteOld = false;
  if (newSource != old) {
    if (old != nullptr && Reaches(old, newSource)) {
      deleteOld = true;
      stop = newSource;
    } else if (!Reaches(newSource, old)) {
      deleteOld = true;
    }
  }
  if (deleteOld) SvrDMDeleteChain(old, stop);

  // The file goes before the head changes, and is held again after it: a
  // replaced source may have reopened or renamed it.
  if (old != nullptr) UnlockSavFileInUse();
  dataSource = newSource;
  if (old != nullptr) QueueNotification(new ResetUndoMsg());
  if (dataSource != nullptr) {
    LockSavFileInUse();
  } else {
    UnlockSavFileInUse();
  }
}

void SvrDMItem::SetBootstrapSpecs(SvrBootstrapSpecs* specs) {
  if (specs == bootstrapSpecs) return;
  delete bootstrapSpecs;
  bootstrapSpecs = specs;
}

// --- The held data file and the password. ---

void SvrDMItem::LockSavFileInUse() {
  // Compared with case on purpose: a name that changed only in case is
  // opened afresh, which also renews the base time. A repeated call with the
  // same name keeps the old base, so a change made in between stays visible.
  if (fileName == lockedFileName) return;
  // The old file goes first, even when the new one turns out not to open.
  UnlockSavFileInUse();
  if (fileName.empty()) return;

  ExtNameStr name;
  name.SetGeneric(fileName);
  // Copied before the file opens: once it is open nothing may fail before
  // it is recorded, or an exhausted allocator would leave it open for good.
  std::string heldName = fileName;
  FILE* file = name.fsopen("r", 32);
  // lockedFileName stays empty, so the next call tries again.
  if (file == nullptr) return;
  lockedFile = file;
  lockedFileName.swap(heldName);

  // Without a time the file is still held; the base simply stays 0.
  struct stat status;
  if (fstat(fileno(lockedFile), &status) == 0) lockedFileTime = status.st_mtime;
}

void SvrDMItem::UnlockSavFileInUse() {
  if (lockedFile == nullptr) return;
  std::fclose(lockedFile);
  lockedFileTime = 0;
  lockedFile = nullptr;
  lockedFileName.clear();
}

bool SvrDMItem::SavFileExternallyChanged() const {
  if (lockedFile == nullptr) return false;
  // Asked of the open stream, not the name: a file replaced under the same
  // name is not this file. Any difference counts, an older time too.
  struct stat status;
  if (fstat(fileno(lockedFile), &status) != 0) return false;
  return static_cast<int64_t>(status.st_mtime) != lockedFileTime;
}

void SvrDMItem::FileName(std::string const& name) {
  fileName = name;
  LockSavFileInUse();
}

bool SvrDMItem::PasswordMangled() const {
  // Only the head is asked: a file source further down the chain has been
  // shadowed by whatever stands in front of it.
  if (auto const* fileSource = dynamic_cast<SystemFileDataSource const*>(dataSource)) {
    return fileSource->GetPasswordMangled();
  }
  return passwordMangled;
}

void SvrDMAssertionFailed(char const* expression, char const* file, int line,
                          char const* function) {
  std::fprintf(stderr, "%s:%d: %s: Assertion `%s' failed.\n", file, line, function, expression);
  std::abort();
}

void SvrDMItem::InitializeErrorMonitor(PackageProxy* proxy) {
  errorMonitor.InitializeErrorMonitor(dataSetID, proxy);
}

// --- Access lock ---------------------------------------------------------

bool SvrDMItem::AcquireReadLock(bool /*tryOnly*/) {
  // The mutex offers a try for writing only, so a reader always waits.
  accessMutex.readLock();
  return true;
}

bool SvrDMItem::AcquireWriteLock(bool tryOnly) {
  if (!tryOnly) {
    accessMutex.writeLock();
    return true;
  }
  if (accessMutex.tryWriteLock()) return true;
  writeLockFailed.store(true, std::memory_order_relaxed);
  return false;
}

// Nothing to tell apart here: an access that failed to acquire never calls
// this, so every call comes from a holder.
void SvrDMItem::ReleaseLock() { accessMutex.unlock(); }

// --- Notification queue and dataset observers -------------------------------

void SvrDMItem::Register(SvrDMDataSetObserver& observer) {
  sfGuard guard(observerMutex, sfMutex::kExclusive);
  dataSetObservers.push_back(&observer);
}

void SvrDMItem::Unregister(SvrDMDataSetObserver& observer) {
  sfGuard guard(observerMutex, sfMutex::kExclusive);
  dataSetObservers.remove(&observer);
}

void SvrDMItem::Notify(SvrDMWriteableDataSource const* source, SvrDMDataSetObserver* skip) {
  bool const creationDue = announce && !createNotified;
  {
    // The snapshot is only worth its cost when someone will hear of the
    // differences: the dataset's observers, or the registry's observers of a
    // creation notice still due.
    sfGuard guard(observerMutex, sfMutex::kExclusive);
    if (!dataSetObservers.empty() || creationDue) observerView.Update();
  }
  if (notifications.empty()) return;

  // Registry observers hear of the dataset before its own observers hear of
  // the changes. registryLock is taken inside, with observerMutex free, so
  // the two item locks never nest with it.
  if (announce && !createNotified && dataManager != nullptr) dataManager->NotifyCreate(*this);

  {
    sfGuard guard(observerMutex, sfMutex::kExclusive);
    for (SvrDMDataSetObserver* observer : dataSetObservers) {
      if (observer != skip) observer->DataSetChanged(source);
    }
  }
  // Only after every observer has returned: an exception above leaves the
  // messages queued for the next pass.
  ClearNotifications();
}

void SvrDMItem::Originator(unsigned int& value) { originator = value; }

void SvrDMItem::BulkVarMoves(bool on) { observerView.BulkVarMoves(on); }
