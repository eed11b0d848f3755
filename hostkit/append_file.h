// A file that whole lines are appended to, one write each, so that several processes may share it (the
// sandbox device's log, the record of terminations). The file stays open between calls; it is opened
// anew when the caller names another path, when the path names another file by now (removed, replaced),
// and in a forked child, whose writes must not go through its parent's descriptor.
#ifndef WUP_HOSTKIT_APPEND_FILE_H_
#define WUP_HOSTKIT_APPEND_FILE_H_

#include <sys/types.h>

#include <cstddef>
#include <string>

namespace hostkit {

class AppendFile {
 public:
  AppendFile() = default;
  AppendFile(const AppendFile&) = delete;
  AppendFile& operator=(const AppendFile&) = delete;
  ~AppendFile() { Close(); }

  // Appends `size` bytes to the file at `path` (created when missing) with one write; false when the
  // file cannot be opened or the write falls short.
  bool Append(const std::string& path, const char* data, size_t size);

 private:
  bool Current(const std::string& path) const;
  void Close();

  std::string path_;
  int fd_ = -1;
  pid_t owner_ = -1;
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

}  // namespace hostkit

#endif  // WUP_HOSTKIT_APPEND_FILE_H_
