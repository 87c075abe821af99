#include "support/scratchdir.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

namespace fs = std::filesystem;

namespace {
void ThrowIf(bool failed, std::string const& what) {
  if (failed) throw std::system_error(errno, std::generic_category(), what);
}
}  // namespace

ScratchDir::ScratchDir() : path_((fs::temp_directory_path() / "sdm-test-XXXXXX").string()) {
  ThrowIf(mkdtemp(path_.data()) == nullptr, "mkdtemp " + path_);
}

ScratchDir::~ScratchDir() {
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

std::string ScratchDir::Write(std::string const& name, std::string const& contents) {
  ThrowIf(!(std::ofstream(PathOf(name), std::ios::binary) << contents), "write " + PathOf(name));
  return PathOf(name);
}

void SetModificationTime(std::string const& path, int64_t seconds) {
  struct timespec const times[2] = {{0, UTIME_OMIT}, {static_cast<time_t>(seconds), 0}};
  ThrowIf(utimensat(AT_FDCWD, path.c_str(), times, 0) != 0, "utimensat " + path);
}

int CountOpenDescriptors() {
  fs::directory_iterator const entries("/proc/self/fd");
  return static_cast<int>(std::distance(entries, fs::directory_iterator()));
}
