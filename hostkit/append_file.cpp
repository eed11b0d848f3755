#include "hostkit/append_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace hostkit {

bool AppendFile::Current(const std::string& path) const {
  if (fd_ < 0 || owner_ != getpid() || path != path_) return false;
  struct stat status;
  return stat(path.c_str(), &status) == 0 && status.st_dev == device_ && status.st_ino == inode_;
}

void AppendFile::Close() {
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
}

bool AppendFile::Append(const std::string& path, const char* data, size_t size) {
  if (!Current(path)) {
    Close();
    fd_ = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    struct stat status;
    if (fd_ < 0 || fstat(fd_, &status) != 0) {
      Close();
      return false;
    }
    path_ = path;
    owner_ = getpid();
    device_ = status.st_dev;
    inode_ = status.st_ino;
  }
  return write(fd_, data, size) == static_cast<ssize_t>(size);
}

}  // namespace hostkit
