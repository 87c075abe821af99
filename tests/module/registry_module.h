// What the module test and its module share: a record that the module fills
// in and the name and type of its entry point. Nothing of the data manager,
// so that the test binary never maps the library itself.
#ifndef SDM_TESTS_MODULE_REGISTRY_MODULE_H
#define SDM_TESTS_MODULE_REGISTRY_MODULE_H

#include <cstdint>

// Owned by the test; the module writes to it until it is unloaded: the
// registry notices its observer heard and the sources of its dataset that
// went.
struct RegistryModuleProbe {
  int createdNotices = 0, deletedNotices = 0, sourcesDeleted = 0;
};

// Adds a dataset over the data file `path` (a chain of two sources) after
// registering a registry observer, and returns the dataset's identifier.
typedef uint32_t (*RegistryModuleStart)(char const* path, RegistryModuleProbe* probe);
#define SDM_REGISTRY_MODULE_START "SdmRegistryModuleStart"

#endif  // SDM_TESTS_MODULE_REGISTRY_MODULE_H
