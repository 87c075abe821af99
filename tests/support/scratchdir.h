// Real files for tests that hold data files open: a private directory per
// test, modification times set to the second, and a count of the process's
// open descriptors to catch leaked streams.
#ifndef SDM_TESTS_SUPPORT_SCRATCHDIR_H
#define SDM_TESTS_SUPPORT_SCRATCHDIR_H

#include <cstdint>
#include <string>

// A fresh directory made with mkdtemp, so tests running in parallel
// processes never share files; removed with all it holds when it goes. Not
// for use from several threads at once.
class ScratchDir {
 public:
  ScratchDir();
  ~ScratchDir();
  ScratchDir(ScratchDir const&) = delete;
  ScratchDir& operator=(ScratchDir const&) = delete;

  // Full path of `name` inside the directory; creates nothing.
  std::string PathOf(std::string const& name) const { return path_ + "/" + name; }
  // Writes `contents` to `name` (replacing it) and returns the full path.
  std::string Write(std::string const& name, std::string const& contents);

 private:
  std::string path_;
};

// Sets the file's modification time to `seconds` since the epoch.
void SetModificationTime(std::string const& path, int64_t seconds);
// Entries of /proc/self/fd, the listing's own descriptor included.
int CountOpenDescriptors();

#endif  // SDM_TESTS_SUPPORT_SCRATCHDIR_H
