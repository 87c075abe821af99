#include "support/scratchdir.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>

namespace {
[[noreturn]] void Fail(std::string const& what, std::string const& path) {
  throw std::runtime_error(what + " " + path + ": " + std::strerror(errno));
}
}  // namespace

ScratchDir::ScratchDir() {
  char const* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") +
                        "/sdm-test-XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (mkdtemp(buffer.data()) == nullptr) Fail("mkdtemp", pattern);
  path_ = buffer.data();
}

ScratchDir::~ScratchDir() {
  for (std::string const& file : written_) unlink(file.c_str());
  rmdir(path_.c_str());
}

std::string ScratchDir::PathOf(std::string const& name) const { return path_ + "/" + name; }

std::string ScratchDir::Write(std::string const& name, std::string const& contents) {
  std::string full = PathOf(name);
  std::ofstream out(full, std::ios::binary | std::ios::trunc);
  out << contents;
  out.close();
  if (!out) Fail("write", full);
  written_.push_back(full);
  return full;
}

std::string ScratchDir::Link(std::string const& existing, std::string const& name) {
  std::string full = PathOf(name);
  if (link(PathOf(existing).c_str(), full.c_str()) != 0) Fail("link", full);
  written_.push_back(full);
  return full;
}

void SetModificationTime(std::string const& path, int64_t seconds) {
  struct timespec times[2];
  times[0].tv_sec = 0;
  times[0].tv_nsec = UTIME_OMIT;
  times[1].tv_sec = static_cast<time_t>(seconds);
  times[1].tv_nsec = 0;
  if (utimensat(AT_FDCWD, path.c_str(), times, 0) != 0) Fail("utimensat", path);
}

int64_t ModificationTime(std::string const& path) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0) Fail("stat", path);
  return static_cast<int64_t>(status.st_mtime);
}

int CountOpenDescriptors() {
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) Fail("opendir", "/proc/self/fd");
  int count = 0;
  while (dirent const* entry = readdir(dir)) {
    if (entry->d_name[0] != '.') ++count;
  }
  closedir(dir);
  return count;
}
