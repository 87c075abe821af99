// A server's module in miniature: it uses the data manager from a static
// object of its own, as a module may while it is loaded and unloaded, and
// from the entry point that the test calls.
#include "registry_module.h"

#include <new>
#include <string>

#include "ServerDataManager.h"

namespace {
RegistryModuleProbe* gProbe = nullptr;

// A data source of the chain that counts its end.
template <class Source>
struct Counted : Source {
  using Source::Source;
  ~Counted() override {
    if (gProbe != nullptr) ++gProbe->sourcesDeleted;
  }
};

class Listener : public ServerDataManagerObserver {
 public:
  void DataSetCreated(LocallyUniqueID const&, std::string const&) override {
    ++gProbe->createdNotices;
  }
  void DataSetDeleted(LocallyUniqueID const&) override { ++gProbe->deletedNotices; }
};

// The listener is never destroyed: it has to outlive the registry, which
// ends after this module's own static objects, so that a notice sent at the
// registry's end would still be counted. The storage is unmapped with the
// module after every finaliser has run.
alignas(Listener) unsigned char gListenerStorage[sizeof(Listener)];

// Adds a dataset from its constructor and looks at the registry from its
// destructor, which runs at dlclose before the library's own end.
struct StaticUser {
  StaticUser() : id(ServerDataManager::GetInstance().AddEmpty(false)) {}
  ~StaticUser() {
    if (gProbe == nullptr) return;
    gProbe->datasetsAtStaticEnd =
        static_cast<int>(ServerDataManager::GetInstance().GetAllDatasets().size());
  }
  LocallyUniqueID id;
};
StaticUser gStaticUser;
}  // namespace

extern "C" SDM_EXPORT uint32_t SdmRegistryModuleStart(char const* path,
                                                      RegistryModuleProbe* probe) {
  gProbe = probe;
  probe->staticDatasetID = gStaticUser.id.ToWord();
  ServerDataManager& registry = ServerDataManager::GetInstance();
  registry.Register(*new (gListenerStorage) Listener);
  auto* head = new Counted<QUOR_DataSource>(new Counted<SystemFileDataSource>(path));
  return registry.Add(*head, path, /*silent=*/false).ToWord();
}
