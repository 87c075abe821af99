#include "handles.h"

#include <atomic>
#include <exception>

#include "failures.h"
#include "registry.h"

// --- SvrDMDataset -------------------------------------------------------------

SvrDMDataset::SvrDMDataset(SvrDMItemPtr const& item) : item_(item) {}

SvrDMDataset::SvrDMDataset(std::string const& handle)
    : item_(ServerDataManager::GetInstance().GetDataSet(handle)) {}

SvrDMDataset::SvrDMDataset(LocallyUniqueID id)
    : item_(ServerDataManager::GetInstance().GetDataSet(id)) {}

SvrDMDataset::SvrDMDataset(ServerDataManager& manager, LocallyUniqueID id)
    : item_(manager.GetDataSet(id)) {}

SvrDMDataset::~SvrDMDataset() noexcept(false) = default;

LocallyUniqueID SvrDMDataset::GetDataSetID() const { return item_->dataSetID; }
unsigned int SvrDMDataset::GetCaseSequence() const { return item_->caseSequence; }
bool SvrDMDataset::HasDataSource() const { return item_->dataSource != nullptr; }
ServerDataManager* SvrDMDataset::GetServerDataManager() { return item_->dataManager; }
ServerDataManager* SvrDMDataset::GetServerDataManager() const { return item_->dataManager; }

bool SvrDMDataset::WindowFront() const { return item_->windowFront; }
bool SvrDMDataset::WindowMinimized() const { return item_->windowMinimized; }
// A handle on a dataset that was never found has no window to show.
bool SvrDMDataset::WindowHidden() const { return !item_.IsValid() || item_->windowHidden; }
void SvrDMDataset::WindowFront(bool front) { item_->windowFront = front; }
void SvrDMDataset::WindowMinimized(bool minimized) { item_->windowMinimized = minimized; }
void SvrDMDataset::WindowHidden(bool hidden) { item_->windowHidden = hidden; }

int32_t SvrDMDataset::WritersCount() const { return item_->writersCount; }
int32_t SvrDMDataset::ReadersCount() const { return item_->readersCount; }

double SvrDMDataset::getObjCreationTime() const { return item_->objCreationTime; }
std::string SvrDMDataset::GetPassword() const { return item_->password; }
std::string SvrDMDataset::GetFileName() const { return item_->fileName; }
std::string SvrDMDataset::GetHandle() const { return item_->handle; }
void SvrDMDataset::SetHandle(std::string const& handle) { item_->handle = handle; }

SvrBootstrapSpecs* SvrDMDataset::GetBootstrapSpecs() const { return item_->GetBootstrapSpecs(); }
void SvrDMDataset::SetBootstrapSpecs(SvrBootstrapSpecs* specs) { item_->SetBootstrapSpecs(specs); }
bool SvrDMDataset::GetPasswordMangled() const { return item_->PasswordMangled(); }
void SvrDMDataset::SetPassword(std::string const& password, bool mangled) {
  item_->Password(password, mangled);
}
void SvrDMDataset::SetFileName(std::string const& fileName) { item_->FileName(fileName); }
void SvrDMDataset::LockSavFileInUse() { item_->LockSavFileInUse(); }
void SvrDMDataset::UnlockSavFileInUse() { item_->UnlockSavFileInUse(); }
void SvrDMDataset::Register(SvrDMDataSetObserver& observer) { item_->Register(observer); }
void SvrDMDataset::Unregister(SvrDMDataSetObserver& observer) { item_->Unregister(observer); }
void SvrDMDataset::InitializeErrorMonitor(PackageProxy* proxy) {
  item_->InitializeErrorMonitor(proxy);
}
InteractiveErrorMonitor* SvrDMDataset::GetErrorMonitor() { return item_->GetErrorMonitor(); }

// --- SvrDMInputDataSource -----------------------------------------------------

// The lock stays held when this returns: the object's end releases it.
// Inline in each read constructor: a read access is meant to cost little
// more than the lock itself.
inline void SvrDMInputDataSource::TakeReadLock(bool tryOnly) SDM_NO_THREAD_SAFETY_ANALYSIS {
  // If this throws, only the handle part is destroyed: this object's end
  // does not run, and nothing has been taken or counted.
  if (!item_->AcquireReadLock(tryOnly)) throw kSvrDMLockNotAvailable;
  held_ = Held::kRead;
  // Counted once held: a reader still waiting is not a reader yet.
  item_->readersCount.fetch_add(1, std::memory_order_relaxed);
}

SvrDMInputDataSource::SvrDMInputDataSource(SvrDMItemPtr& item, bool tryOnly) : SvrDMDataset(item) {
  TakeReadLock(tryOnly);
}

SvrDMInputDataSource::SvrDMInputDataSource(LocallyUniqueID id, bool tryOnly) : SvrDMDataset(id) {
  TakeReadLock(tryOnly);
}

SvrDMInputDataSource::SvrDMInputDataSource(ServerDataManager& manager, LocallyUniqueID id,
                                           bool tryOnly)
    : SvrDMDataset(manager, id) {
  TakeReadLock(tryOnly);
}

SvrDMInputDataSource::SvrDMInputDataSource(char const* /*unused*/, SvrDMItemPtr const& item)
    : SvrDMDataset(item) {
  // A writer counts from the moment it asks for the lock.
  item_->writersCount.fetch_add(1, std::memory_order_relaxed);
}

SvrDMInputDataSource::~SvrDMInputDataSource() noexcept(false) SDM_NO_THREAD_SAFETY_ANALYSIS {
  switch (held_) {
    case Held::kNothing:
      return;
    case Held::kRead:
      // Released first, then counted off: a reader stays counted while it
      // may still hold. If the release throws, the count stays with it.
      item_->ReleaseLock();
      item_->readersCount.fetch_sub(1, std::memory_order_relaxed);
      break;
    case Held::kWrite:
      // A writer is counted off while it still holds, so a thread that
      // takes the lock next never counts it.
      item_->writersCount.fetch_sub(1, std::memory_order_relaxed);
      item_->ReleaseLock();
      break;
  }
  // The handle part still keeps the item alive here; the reference goes last.
}

QUOR_DataSource* SvrDMInputDataSource::operator->() const { return item_->dataSource; }
QUOR_DataSource& SvrDMInputDataSource::operator*() const { return *item_->dataSource; }

// --- SvrDMWriteableDataSource ---------------------------------------------------

SvrDMWriteableDataSource::SvrDMWriteableDataSource(SvrDMItemPtr& item, bool tryOnly,
                                                   SvrDMDataSetObserver* observer)
    : SvrDMInputDataSource("", item), observer_(observer) {
  TakeWriteLock(tryOnly);
}

// The registry's pointer is a temporary of the base initialiser: it goes
// before the lock is asked for, and the handle part alone keeps the item.
SvrDMWriteableDataSource::SvrDMWriteableDataSource(LocallyUniqueID id, bool tryOnly,
                                                   SvrDMDataSetObserver* observer)
    : SvrDMInputDataSource("", ServerDataManager::GetInstance().GetDataSet(id)),
      observer_(observer) {
  TakeWriteLock(tryOnly);
}

SvrDMWriteableDataSource::SvrDMWriteableDataSource(ServerDataManager& manager, LocallyUniqueID id,
                                                   bool tryOnly, SvrDMDataSetObserver* observer)
    : SvrDMInputDataSource("", manager.GetDataSet(id)), observer_(observer) {
  TakeWriteLock(tryOnly);
}

// The lock stays held when this returns: the object's end releases it.
void SvrDMWriteableDataSource::TakeWriteLock(bool tryOnly) SDM_NO_THREAD_SAFETY_ANALYSIS {
  // A failure takes back the writer's own count before it leaves, so a
  // failed attempt leaves no trace; the read part's end then finds nothing
  // held and gives nothing back.
  bool held = false;
  try {
    held = item_->AcquireWriteLock(tryOnly);
  } catch (...) {
    item_->writersCount.fetch_sub(1, std::memory_order_relaxed);
    throw;
  }
  if (!held) {
    item_->writersCount.fetch_sub(1, std::memory_order_relaxed);
    throw kSvrDMLockNotAvailable;
  }
  held_ = Held::kWrite;
}

SvrDMWriteableDataSource::~SvrDMWriteableDataSource() noexcept(false) {
  // Whatever Notify does, the read part's end then counts this writer off
  // and releases the write lock, and the reference goes.
  try {
    Notify();
  } catch (...) {
    // Ending while another exception unwinds (inside this handler only that
    // one still counts as uncaught): letting this one out too would end the
    // process, so that one goes on, and what this pass failed to deliver
    // stays queued for the next. Asked only here, off the common path.
    if (std::uncaught_exceptions() > 0) return;
    throw;
  }
}

QUOR_DataSource* SvrDMWriteableDataSource::GetDataSource() const { return item_->dataSource; }
QUOR_DataSource* SvrDMWriteableDataSource::operator->() const { return item_->dataSource; }
QUOR_DataSource& SvrDMWriteableDataSource::operator*() const { return *item_->dataSource; }
void SvrDMWriteableDataSource::SetDataSet(QUOR_DataSource* source) { item_->SetDataSet(source); }

void SvrDMWriteableDataSource::IncrementCaseSequence() { ++item_->caseSequence; }
void SvrDMWriteableDataSource::UndoIncrementCaseSequence() { ++item_->caseSequence; }

std::vector<DataSetMsg*> const& SvrDMWriteableDataSource::GetNotifications() const {
  return item_->notifications;
}
void SvrDMWriteableDataSource::AddNotification(DataSetMsg* message) {
  item_->AddNotification(message);
}
void SvrDMWriteableDataSource::ClearNotifications() { item_->ClearNotifications(); }
void SvrDMWriteableDataSource::Notify() { item_->Notify(this, observer_); }
void SvrDMWriteableDataSource::BulkVarMoves() { item_->BulkVarMoves(true); }
void SvrDMWriteableDataSource::Originator(unsigned int value) {
  unsigned int copy = value;
  item_->Originator(copy);
}

// --- The clone data source. ---

SvrDMCloneDataSource::Data::~Data() { SvrDMDeleteChain(source); }

SvrDMCloneDataSource::SvrDMCloneDataSource(QUOR_DataSource const* source)
    : QUOR_DataSource(nullptr), data(nullptr) {
  // The record owns the source from here on, so a failing copy below still
  // frees it, with its chain, on the way out.
  data = new Data(source);
  CopyDictionary(*source);
}

SvrDMCloneDataSource::SvrDMCloneDataSource(SvrDMCloneDataSource const& other)
    : QUOR_DataSource(nullptr), data(other.data) {
  CopyDictionary(other);
}

SvrDMCloneDataSource::~SvrDMCloneDataSource() = default;

ObsIterator* SvrDMCloneDataSource::MakeIterator(OBS* obs) const {
  // The iterator takes what it needs from the parent while it is built; the
  // link is shown only for that long. It is the one const operation that
  // writes, hence the cast.
  auto* self = const_cast<SvrDMCloneDataSource*>(this);
  self->SetParentSource(data->source);
  ObsIterator* iterator = nullptr;
  try {
    iterator = new PassThroughIter(*this, obs, nullptr);
  } catch (...) {
    // Left shown, a later chain walk would reach the source and delete it
    // twice; hide it whatever happens.
    self->SetParentSource(nullptr);
    throw;
  }
  self->SetParentSource(nullptr);
  return iterator;
}

long SvrDMCloneDataSource::GetObsAreaSize() const { return data->source->GetObsAreaSize(); }

long long SvrDMCloneDataSource::RowCount() const { return data->source->RowCount(); }

int SvrDMCloneDataSource::NParents() const {
  return data->source != nullptr ? data->source->NParents() : 0;
}

bool SvrDMCloneDataSource::ShowParents(bool show) {
  bool const wasShown = GetParentSource() != nullptr;
  SetParentSource(show ? data->source : nullptr);
  return wasShown;
}
