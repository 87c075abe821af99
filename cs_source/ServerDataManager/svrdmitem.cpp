#include "svrdmitem.h"

#include <cstdio>
#include <cstdlib>

#include "bootstrapspecs.h"
#include "datasource.h"
#include "messages.h"

SvrDMItem::SvrDMItem(LocallyUniqueID id, QUOR_DataSource* source, ServerDataManager* manager,
                     unsigned int sequence, std::string const& name, bool announceIt)
    : dataManager(manager),
      dataSource(source),
      fileName(name),
      passwordMangled(false),
      errorMonitor(LocallyUniqueID(), nullptr),
      dataSetID(id),
      caseSequence(sequence),
      observerView(this),
      writersCount(0),
      readersCount(0),
      originator(0),
      announce(announceIt),
      writeLockFailed(false),
      windowFront(false),
      windowMinimized(true),
      windowHidden(false),
      createNotified(false),
      lockedFile(nullptr),
      lockedFileTime(0),
      bootstrapSpecs(nullptr),
      objCreationTime(0.0) {
  quorTimestampNow(&objCreationTime);
}

SvrDMItem::SvrDMItem()
    : dataManager(nullptr),
      dataSource(nullptr),
      passwordMangled(false),
      errorMonitor(LocallyUniqueID(), nullptr),
      dataSetID(),
      caseSequence(0),
      observerView(this),
      writersCount(0),
      readersCount(0),
      originator(0),
      announce(true),
      writeLockFailed(false),
      windowFront(false),
      windowMinimized(true),
      windowHidden(false),
      createNotified(false),
      lockedFile(nullptr),
      lockedFileTime(0),
      bootstrapSpecs(nullptr),
      objCreationTime(0.0) {}

SvrDMItem::SvrDMItem(SvrDMItem const& other) : SvrDMItem() {
  announce = other.announce;
  // Reached only when a RefCountPtr tries to copy an item, which no path of
  // the server does: an item is one dataset and cannot be duplicated. The
  // check must survive NDEBUG builds, so it is spelled out rather than left
  // to assert().
  std::fprintf(stderr, "%s:%d: %s: Assertion `%s' failed.\n", "cs_source/ServerDataManager/svrdmitem",
               __LINE__, "SvrDMItem::SvrDMItem(const SvrDMItem&)", "0");
  std::abort();
}

SvrDMItem::~SvrDMItem() {
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

void SvrDMItem::ClearNotifications() {
  for (DataSetMsg* message : notifications) delete message;
  notifications.clear();
}

void SvrDMItem::DeleteDataSource() {
  // A source never deletes its parent, and a child's destructor may still
  // look at it: read the link first, then delete, then move on.
  QUOR_DataSource* current = dataSource;
  dataSource = nullptr;
  while (current != nullptr) {
    QUOR_DataSource* parent = current->GetParentSource();
    delete current;
    current = parent;
  }
}

void SvrDMItem::SetBootstrapSpecs(SvrBootstrapSpecs* specs) {
  if (specs == bootstrapSpecs) return;
  delete bootstrapSpecs;
  bootstrapSpecs = specs;
}

void SvrDMItem::InitializeErrorMonitor(PackageProxy* proxy) {
  errorMonitor.InitializeErrorMonitor(dataSetID, proxy);
}
