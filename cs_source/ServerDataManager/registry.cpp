#include "registry.h"

#include <algorithm>
#include <atomic>
#include <iterator>
#include <list>
#include <new>
#include <vector>

#include "datasource.h"
#include "errormonitor.h"
#include "failures.h"
#include "handles.h"

struct ServerDataManager::Data {
  // A search takes the first match in table order; these are its keys.
  struct LUIDMatch {
    LocallyUniqueID key;
    bool operator()(SvrDMItemPtr const& item) const { return item->dataSetID == key; }
  };
  struct HandleMatch {
    std::string key;
    bool operator()(SvrDMItemPtr const& item) const {
      return QUORMBstricmp_A(key.c_str(), item->handle.c_str()) == 0;
    }
  };
  struct FileNameMatch {
    std::string key;
    bool operator()(SvrDMItemPtr const& item) const {
      return QUORMBstricmp_A(key.c_str(), item->fileName.c_str()) == 0;
    }
  };

  explicit Data(ServerDataManager* manager) : owner(manager) {}

  template <class Match>
  std::vector<SvrDMItemPtr>::iterator Find(Match const& match) SDM_REQUIRES(registryLock) {
    return std::find_if(items.begin(), items.end(), match);
  }

  // The steps the public operations share, each run inside the lock the
  // operation holds.
  LocallyUniqueID NextID() SDM_REQUIRES(registryLock);
  void AddItem(QUOR_DataSource* dataSource, std::string const& fileName, bool hasPassword,
               std::string const& password, bool passwordMangled, bool silent, LocallyUniqueID id,
               unsigned int caseSequence) SDM_REQUIRES(registryLock);
  // Tells the observers, then takes the entry at `index` out of the table.
  void RemoveAt(std::size_t index) SDM_REQUIRES(registryLock);

  std::vector<SvrDMItemPtr> items SDM_GUARDED_BY(registryLock);
  std::list<ServerDataManagerObserver*> observers SDM_GUARDED_BY(registryLock);
  uint32_t idGroup = 0;  // set at construction; written by nothing after
  uint32_t nextIdSerial SDM_GUARDED_BY(registryLock) = 0;

  CriticalSection registryLock;

  // Exchanged without a lock; callers keep it apart from Add.
  QUOR_DataSourceFilterHook* filterHook = nullptr;

  // Set at construction.
  ServerDataManager* const owner;
};

namespace {
// Holds a data-source chain handed to Add until an item has taken it. The
// caller of Add has given the chain up, so an Add that fails before the item
// exists (the allocator, an observer of the replaced dataset) deletes the
// chain here rather than losing it.
class HandedChain {
 public:
  explicit HandedChain(QUOR_DataSource* head) : head_(head) {}
  ~HandedChain() { SvrDMDeleteChain(head_); }
  HandedChain(HandedChain const&) = delete;
  HandedChain& operator=(HandedChain const&) = delete;

  // The chain belongs to someone else from now on.
  QUOR_DataSource* Release() {
    QUOR_DataSource* head = head_;
    head_ = nullptr;
    return head;
  }

 private:
  QUOR_DataSource* head_;
};
}  // namespace

namespace {
// The process-wide instance lives here between the first SvrDMRegistryInit
// and the end of the last. Both are constant-initialised, so they are ready
// before any dynamic initialiser of any file runs.
alignas(ServerDataManager) unsigned char gInstanceStorage[sizeof(ServerDataManager)];
std::atomic<int> gInstanceUsers{0};

ServerDataManager* Instance() {
  return std::launder(reinterpret_cast<ServerDataManager*>(gInstanceStorage));
}
}  // namespace

SvrDMRegistryInit::SvrDMRegistryInit() {
  if (gInstanceUsers.fetch_add(1) == 0) new (gInstanceStorage) ServerDataManager();
}

SvrDMRegistryInit::~SvrDMRegistryInit() {
  if (gInstanceUsers.fetch_sub(1) == 1) Instance()->~ServerDataManager();
}

ServerDataManager& ServerDataManager::GetInstance() {
  // A file that asks without including the header (through the handles, say)
  // may run its initialisers before any file that does: the first such call
  // builds the instance, which then ends with the static objects as usual.
  if (gInstanceUsers.load(std::memory_order_acquire) == 0) static SvrDMRegistryInit firstUse;
  return *Instance();
}

ServerDataManager::ServerDataManager() : data_(new Data(this)) {}

ServerDataManager::~ServerDataManager() SDM_NO_THREAD_SAFETY_ANALYSIS {
  if (!data_) return;
  // No lock and no notices: the process or the library is going away. Items
  // that nobody else refers to end here, first added first.
  data_->observers.clear();
  for (SvrDMItemPtr& item : data_->items) item = nullptr;
  data_->items.clear();
}

LocallyUniqueID ServerDataManager::Data::NextID() {
  // The counter moves before the item is built, so a failed add loses its
  // identifier rather than handing it out twice. The identifier keeps the
  // bits of each field that fit.
  LocallyUniqueID id(idGroup, nextIdSerial);
  ++nextIdSerial;
  return id;
}

LocallyUniqueID ServerDataManager::Add(QUOR_DataSource& dataSource, std::string const& fileName,
                                       bool silent) {
  CriticalSection::Lock lock(data_->registryLock);
  LocallyUniqueID id = data_->NextID();
  data_->AddItem(&dataSource, fileName, false, std::string(), false, silent, id, 0);
  return id;
}

LocallyUniqueID ServerDataManager::Add(QUOR_DataSource& dataSource, std::string const& fileName,
                                       std::string const& password, bool passwordMangled,
                                       bool silent) {
  CriticalSection::Lock lock(data_->registryLock);
  LocallyUniqueID id = data_->NextID();
  data_->AddItem(&dataSource, fileName, true, password, passwordMangled, silent, id, 0);
  return id;
}

void ServerDataManager::Add(QUOR_DataSource& dataSource, std::string const& fileName, bool silent,
                            LocallyUniqueID id, unsigned int caseSequence) {
  CriticalSection::Lock lock(data_->registryLock);
  // The old dataset's notice and removal come before anything of the new.
  HandedChain handed(&dataSource);
  Delete(id);
  handed.Release();
  data_->AddItem(&dataSource, fileName, false, std::string(), false, silent, id, caseSequence);
}

LocallyUniqueID ServerDataManager::AddEmpty(bool silent) {
  CriticalSection::Lock lock(data_->registryLock);
  LocallyUniqueID id = data_->NextID();
  data_->AddItem(nullptr, std::string(), false, std::string(), false, silent, id, 0);
  return id;
}

void ServerDataManager::Data::AddItem(QUOR_DataSource* dataSource, std::string const& fileName,
                                      bool hasPassword, std::string const& password,
                                      bool passwordMangled, bool silent, LocallyUniqueID id,
                                      unsigned int caseSequence) {
  // The hook takes the source it is given and answers with the one to use;
  // what becomes of the first is the hook's concern.
  if (filterHook != nullptr && dataSource != nullptr) dataSource = filterHook->Filter(dataSource);
  HandedChain handed(dataSource);

  // One file is held by one dataset: a later dataset of a name that is open
  // already keeps the name aside instead of holding the file a second time.
  bool alreadyOpen = Find(FileNameMatch{fileName}) != items.end();
  SvrDMItemPtr item(new SvrDMItem(id, dataSource, owner, caseSequence,
                                  alreadyOpen ? std::string() : fileName, !silent));
  // Built: the item owns the chain and deletes it at its end.
  handed.Release();
  if (hasPassword) item->Password(password, passwordMangled);
  if (alreadyOpen) item->sharedFileName = fileName;
  items.push_back(item);
  owner->NotifyCreate(*item);
}

void ServerDataManager::Delete(LocallyUniqueID const& id) {
  CriticalSection::Lock lock(data_->registryLock);
  auto found = data_->Find(Data::LUIDMatch{id});
  if (found == data_->items.end()) return;
  data_->RemoveAt(static_cast<std::size_t>(found - data_->items.begin()));
}

void ServerDataManager::Clear() {
  // Held for the whole walk: no other thread may change the table under the
  // index. A deletion notice may still delete other datasets on this thread,
  // so the index is brought back within the table after each removal.
  CriticalSection::Lock lock(data_->registryLock);
  for (std::size_t i = data_->items.size(); i > 0; i = std::min(i - 1, data_->items.size())) {
    data_->RemoveAt(i - 1);
  }
}

void ServerDataManager::Data::RemoveAt(std::size_t index) {
  // The local copy keeps the item alive past its entry; if it is the last
  // reference, the item ends when this scope does, still inside the lock.
  SvrDMItemPtr item = items[index];
  LocallyUniqueID id = item->dataSetID;
  if (item->announce) {
    for (auto it = observers.begin(); it != observers.end(); ++it) (*it)->DataSetDeleted(id);
  }
  // An observer may have deleted other datasets from inside its notice (or
  // this one), shifting the table: erase the entry of this item wherever it
  // now stands, and nothing if it has gone already, never whatever has moved
  // into `index`.
  auto entry = items.end();
  if (index < items.size() && items[index] == item) {
    entry = items.begin() + static_cast<std::ptrdiff_t>(index);
  } else {
    entry = std::find(items.begin(), items.end(), item);
    if (entry == items.end()) return;
  }
  items.erase(entry);
}

SvrDMItemPtr ServerDataManager::GetDataSet(LocallyUniqueID const& id) const {
  CriticalSection::Lock lock(data_->registryLock);
  auto found = data_->Find(Data::LUIDMatch{id});
  if (found == data_->items.end()) throw ErrorMsg(kSvrDMUnknownDataSet, std::string());
  return *found;
}

SvrDMItemPtr ServerDataManager::GetDataSet(std::string const& handle) const {
  CriticalSection::Lock lock(data_->registryLock);
  auto found = data_->Find(Data::HandleMatch{handle});
  if (found == data_->items.end()) return SvrDMItemPtr();
  return *found;
}

void ServerDataManager::Register(ServerDataManagerObserver& observer) {
  CriticalSection::Lock lock(data_->registryLock);
  data_->observers.remove(&observer);
  data_->observers.push_back(&observer);
}

void ServerDataManager::Unregister(ServerDataManagerObserver& observer) {
  CriticalSection::Lock lock(data_->registryLock);
  data_->observers.remove(&observer);
}

void ServerDataManager::NotifyCreate(SvrDMItem& item) {
  if (!item.announce || item.createNotified || item.dataSource == nullptr) return;
  LocallyUniqueID id = item.dataSetID;
  // Set before delivery, so the notice goes out at most once however a
  // delivery ends.
  item.createNotified = true;
  CriticalSection::Lock lock(data_->registryLock);
  // The next link is read before the call, so an observer may remove itself.
  for (auto it = data_->observers.begin(); it != data_->observers.end();) {
    ServerDataManagerObserver* observer = *it++;
    observer->DataSetCreated(id, item.fileName);
  }
}

QUOR_DataSourceFilterHook* ServerDataManager::RegisterFilter(QUOR_DataSourceFilterHook* hook) {
  QUOR_DataSourceFilterHook* old = data_->filterHook;
  data_->filterHook = hook;
  return old;
}

// --- The held data file and the password. ---

bool ServerDataManager::SavFileExternallyChanged(std::string const& fileName) const {
  CriticalSection::Lock lock(data_->registryLock);
  bool changed = false;
  // The whole table is walked: the last matching dataset's answer stands.
  // Datasets without a file are skipped, so an empty name never matches.
  for (SvrDMItemPtr const& item : data_->items) {
    if (item->fileName.empty()) continue;
    if (QUORMBstricmp_A(fileName.c_str(), item->fileName.c_str()) == 0) {
      changed = item->SavFileExternallyChanged();
    }
  }
  return changed;
}

void ServerDataManager::Password(LocallyUniqueID const& id, std::string const& password,
                                 bool mangled) {
  CriticalSection::Lock lock(data_->registryLock);
  auto found = data_->Find(Data::LUIDMatch{id});
  if (found == data_->items.end()) return;
  // Held for the call, so the item outlives anything the call might drop.
  SvrDMItemPtr item = *found;
  item->Password(password, mangled);
}

// --- Handles of all datasets ----------------------------------------------

std::vector<SvrDMDataset> ServerDataManager::GetAllDatasets() const {
  CriticalSection::Lock lock(data_->registryLock);
  std::vector<SvrDMDataset> all;
  all.reserve(data_->items.size());
  for (SvrDMItemPtr const& item : data_->items) all.emplace_back(item);
  return all;
}
