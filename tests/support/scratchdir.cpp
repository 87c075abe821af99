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

ScratchDir::ScratchDir() {
  std::string pattern = (fs::temp_directory_path() / "sdm-test-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr)
    throw std::system_error(errno, std::generic_category(), pattern);
  path_ = pattern;
}

ScratchDir::~ScratchDir() {
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

std::string ScratchDir::Write(std::string const& name, std::string const& contents) {
  std::string full = PathOf(name);
  std::ofstream out(full, std::ios::binary | std::ios::trunc);
  out << contents;
  out.close();
  if (!out) throw std::system_error(errno, std::generic_category(), "write " + full);
  return full;
}

std::string ScratchDir::Link(std::string const& existing, std::string const& name) {
  std::string full = PathOf(name);
  fs::create_hard_link(PathOf(existing), full);
  return full;
}

void SetModificationTime(std::string const& path, int64_t seconds) {
  struct timespec const times[2] = {{0, UTIME_OMIT}, {static_cast<time_t>(seconds), 0}};
  if (utimensat(AT_FDCWD, path.c_str(), times, 0) != 0) {
    throw std::system_error(errno, std::generic_category(), "utimensat " + path);
  }
}

int CountOpenDescriptors() {
  return static_cast<int>(
      std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()));
}
