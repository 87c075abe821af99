// The shared library as a server's module: a module that uses it is loaded
// with dlopen, adds a dataset over a real data file, and is unloaded with
// dlclose, twice. The library must leave no trace behind: unmapped, its
// registry ended quietly, and a second load starting afresh.
#include <dlfcn.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "module/registry_module.h"

namespace {
namespace fs = std::filesystem;

// Whether a line of /proc/self/maps ends in `path`, or a descriptor of the
// process is open on it (the listing's own is closed by the time it is read).
bool IsMapped(std::string const& path) {
  std::stringstream maps;
  maps << std::ifstream("/proc/self/maps").rdbuf();
  return maps.str().find(path + "\n") != std::string::npos;
}
bool IsOpen(std::string const& path) {
  std::error_code gone;
  for (auto const& fd : fs::directory_iterator("/proc/self/fd")) {
    if (fs::read_symlink(fd.path(), gone) == path) return true;
  }
  return false;
}

TEST(ModuleTest, UnloadingEndsTheRegistryQuietlyAndAReloadStartsAfresh) {
  std::string const library = fs::canonical(SDM_LIBRARY_PATH);
  std::string const data = fs::canonical(SDM_DATA_FILE);
  ASSERT_FALSE(IsMapped(library)) << "the test binary must not link the library";
  for (int load = 1; load <= 2; ++load) {
    RegistryModuleProbe probe;
    void* handle = dlopen(fs::canonical(SDM_MODULE_PATH).c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(handle, nullptr) << dlerror();
    auto start = reinterpret_cast<RegistryModuleStart>(dlsym(handle, SDM_REGISTRY_MODULE_START));
    ASSERT_NE(start, nullptr) << dlerror();
    EXPECT_EQ(start(data.c_str(), &probe), 0u) << "load " << load << " found identifiers used";
    EXPECT_EQ(probe.createdNotices, 1);
    EXPECT_TRUE(IsMapped(library));
    EXPECT_TRUE(IsOpen(data)) << "the dataset holds its data file";
    ASSERT_EQ(dlclose(handle), 0) << dlerror();
    // The registry ended with the library: file let go, both sources of the
    // chain deleted, and no notice.
    EXPECT_EQ(probe.sourcesDeleted, 2);
    EXPECT_EQ(probe.deletedNotices, 0);
    EXPECT_FALSE(IsOpen(data));
    EXPECT_FALSE(IsMapped(library));
  }
}
}  // namespace
