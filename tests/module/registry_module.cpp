// A server's module in miniature: it uses the data manager from the entry
// point that the test calls, and leaves its dataset open when unloaded.
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
  ~Counted() override { ++gProbe->sourcesDeleted; }
};

struct Listener : ServerDataManagerObserver {
  void DataSetCreated(LocallyUniqueID const&, std::string const&) override {
    ++gProbe->createdNotices;
  }
  void DataSetDeleted(LocallyUniqueID const&) override { ++gProbe->deletedNotices; }
};

// Never destroyed: it outlives the registry, which ends after this module's
// own static objects, so that a notice sent at the registry's end would
// still be counted. The storage is unmapped with the module.
alignas(Listener) unsigned char gListenerStorage[sizeof(Listener)];
}  // namespace

extern "C" SDM_EXPORT uint32_t SdmRegistryModuleStart(char const* path,
                                                      RegistryModuleProbe* probe) {
  gProbe = probe;
  ServerDataManager& registry = ServerDataManager::GetInstance();
  registry.Register(*new (gListenerStorage) Listener);
  auto* head = new Counted<QUOR_DataSource>(new Counted<SystemFileDataSource>(path));
  return registry.Add(*head, path, /*silent=*/false).ToWord();
}
