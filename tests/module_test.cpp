// The shared library as a server's module: a module that uses it is loaded
// with dlopen, adds a dataset over a real data file, and is unloaded with
// dlclose, twice. The library must leave no trace behind: unmapped, its
// registry ended quietly, and a second load starting afresh.
#include <dlfcn.h>

#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "module/registry_module.h"

namespace {
namespace fs = std::filesystem;

// Whether a line of /proc/self/maps maps the file at `path` (canonical).
bool IsMapped(std::string const& path) {
  std::ifstream maps("/proc/self/maps");
  std::string line;
  while (std::getline(maps, line)) {
    // The path is the last field and the only one that starts with a slash.
    std::string::size_type slash = line.find('/');
    if (slash != std::string::npos && line.compare(slash, std::string::npos, path) == 0) {
      return true;
    }
  }
  return false;
}

// Whether one of the process's descriptors is open on the file at `path`.
bool IsOpen(std::string const& path) {
  for (fs::directory_entry const& fd : fs::directory_iterator("/proc/self/fd")) {
    std::error_code gone;  // the iterator's own descriptor is closed by now
    if (fs::read_symlink(fd.path(), gone) == path) return true;
  }
  return false;
}

TEST(ModuleTest, UnloadingEndsTheRegistryQuietlyAndAReloadStartsAfresh) {
  std::string const library = fs::canonical(SDM_LIBRARY_PATH);
  std::string const module = fs::canonical(SDM_MODULE_PATH);
  std::string const data = fs::canonical(SDM_DATA_FILE);
  ASSERT_FALSE(IsMapped(library)) << "the test binary must not link the library";

  for (int load = 1; load <= 2; ++load) {
    SCOPED_TRACE("load " + std::to_string(load));
    RegistryModuleProbe probe;
    void* handle = dlopen(module.c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(handle, nullptr) << dlerror();
    auto start = reinterpret_cast<RegistryModuleStart>(dlsym(handle, SDM_REGISTRY_MODULE_START));
    ASSERT_NE(start, nullptr) << dlerror();

    // A fresh registry: the module's static object took the first
    // identifier, the dataset the second.
    uint32_t id = start(data.c_str(), &probe);
    EXPECT_EQ(probe.staticDatasetID, 0u);
    EXPECT_EQ(id, 16u);
    EXPECT_EQ(probe.createdNotices, 1);
    EXPECT_TRUE(IsMapped(library));
    EXPECT_TRUE(IsOpen(data)) << "the dataset holds its data file";
    EXPECT_EQ(probe.sourcesDeleted, 0);

    ASSERT_EQ(dlclose(handle), 0) << dlerror();
    // The static object's destructor still found both datasets; then the
    // registry ended with the library: file let go, both sources of the
    // chain deleted, and no notice.
    EXPECT_EQ(probe.datasetsAtStaticEnd, 2);
    EXPECT_EQ(probe.sourcesDeleted, 2);
    EXPECT_EQ(probe.deletedNotices, 0);
    EXPECT_FALSE(IsOpen(data));
    EXPECT_FALSE(IsMapped(module));
    EXPECT_FALSE(IsMapped(library));
  }
}
}  // namespace
