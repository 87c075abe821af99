// Real files for tests that hold data files open: a private directory per
// fixture, modification times set to the second, and a count of the
// process's open descriptors to catch leaked streams.
#ifndef SDM_TESTS_SUPPORT_SCRATCHDIR_H
#define SDM_TESTS_SUPPORT_SCRATCHDIR_H

#include <cstdint>
#include <string>
#include <vector>

// A fresh directory made with mkdtemp, so tests running in parallel
// processes never share files. Removes the files it wrote, and itself, when
// it goes. Not for use from several threads at once.
class ScratchDir {
 public:
  ScratchDir();
  ~ScratchDir();
  ScratchDir(ScratchDir const&) = delete;
  ScratchDir& operator=(ScratchDir const&) = delete;

  std::string const& path() const { return path_; }
  // Full path of `name` inside the directory; creates nothing.
  std::string PathOf(std::string const& name) const;
  // Writes `contents` to `name` (replacing it) and returns the full path.
  std::string Write(std::string const& name, std::string const& contents);
  // Adds a second name for the file `existing`, as a case-blind file
  // system would let both names reach one file.
  std::string Link(std::string const& existing, std::string const& name);

 private:
  std::string path_;
  std::vector<std::string> written_;
};

// Sets the file's modification time to `seconds` since the epoch.
void SetModificationTime(std::string const& path, int64_t seconds);
// The file's modification time in whole seconds, read by name.
int64_t ModificationTime(std::string const& path);
// Entries of /proc/self/fd, the directory's own descriptor included.
int CountOpenDescriptors();

#endif  // SDM_TESTS_SUPPORT_SCRATCHDIR_H
