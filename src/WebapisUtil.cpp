#include "WebapisUtil.h"

#include <fcntl.h>
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <type_traits>
#include <utility>

#include "JsonUtil.h"

namespace {

static_assert(std::is_same_v<decltype(strerror_r(0, std::declval<char*>(), 0)), char*>,
              "failure lines are laid out for the GNU strerror_r");

// A failed system call as field engineers read it: the number, the message that strerror_r returns,
// and the buffer handed to it (which the GNU form fills only for numbers it has no text of its own for).
class SystemError {
 public:
  SystemError() : code_(errno) { message_ = strerror_r(code_, buffer_, sizeof(buffer_)); }
  int code() const { return code_; }
  const char* message() const { return message_; }
  const char* buffer() const { return buffer_; }

 private:
  int code_;
  char buffer_[256] = {};
  const char* message_;
};

// The result document of every record of `map`, in key order, as `add` builds it.
std::string DocumentText(PluginDataMap& map, void (*add)(Json::Value&, _PluginData&)) {
  Json::Value document(Json::nullValue);
  for (auto& entry : map) add(document, entry.second);
  std::string text;
  JsonUtil::ParseJsonToStr(document, text);
  return text;
}

// The content of a regular file at `path`; false for anything else (a FIFO is never waited on).
bool ReadRegularFile(const std::string& path, std::string& text) {
  const PluginFd file(PluginOpenRegularForReading(path.c_str()));
  return file && PluginReadAll(file.get(), text);
}

}  // namespace

// The platform reports sizes in 32 bits: a file too large for that is treated as unreadable.
int GetFileSize(const char* path) {
  struct stat st;
  if (stat(path, &st) != 0 || st.st_size > INT32_MAX) return -1;
  return static_cast<int>(st.st_size);
}

int PluginOpenForWriting(const char* path) {
  // A FIFO, socket or device where a file of the plug-in belongs is damage, not data: it goes, and a
  // regular file takes its place. Were it kept, every later use of the path would fail or wait on it.
  struct stat st;
  if (lstat(path, &st) == 0 && !S_ISREG(st.st_mode) && !S_ISDIR(st.st_mode) && !S_ISLNK(st.st_mode)) {
    unlink(path);
  }
  PluginFd file(open(path, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0666));
  if (!file || fstat(file.get(), &st) != 0 || !S_ISREG(st.st_mode)) return -1;
  return file.Release();
}

bool PluginWriteAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    const ssize_t written = write(fd, data, size);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    data += written;
    size -= static_cast<size_t>(written);
  }
  return true;
}

int PluginOpenRegularForReading(const char* path) {
  PluginFd file(open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  struct stat st;
  if (!file || fstat(file.get(), &st) != 0 || !S_ISREG(st.st_mode)) return -1;
  return file.Release();
}

bool PluginReadAll(int fd, std::string& text) {
  char buffer[64 * 1024];
  for (;;) {
    const ssize_t got = read(fd, buffer, sizeof(buffer));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return false;
    if (got == 0) return true;
    text.append(buffer, static_cast<size_t>(got));
  }
}

void PluginSyncDirectory(const std::string& path) {
  const PluginFd dir(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (dir) fsync(dir.get());
}

WebapisUtil::WebapisUtil() = default;

WebapisUtil::~WebapisUtil() = default;

bool WebapisUtil::SavePluginUpgradeResult(PluginDataMap& map) {
  const std::string text = DocumentText(map, JsonUtil::MakeUpgradeWebapiJson);
  // Readers of the result file must never see a half-written text: stage it, then rename over.
  if (!m_WriteUpgradeWebapiToLocal(strRESULT_FILE_BAK, text)) return false;
  if (!m_RenameFile(strRESULT_FILE_BAK, strRESULT_FILE)) return false;
  // Without this a power cut could still undo the rename, though the new text itself is safe.
  PluginSyncDirectory(strRESULT_DIR);
  return true;
}

bool WebapisUtil::CheckUpgradeResultExist() { return access(strRESULT_FILE.c_str(), F_OK) == 0; }

bool WebapisUtil::CheckUpgradeResultMatches(PluginDataMap& map) {
  std::string published;
  return ReadRegularFile(strRESULT_FILE, published) &&
         published == DocumentText(map, JsonUtil::MakeExpectedWebapiJson);
}

bool WebapisUtil::m_WriteUpgradeWebapiToLocal(const std::string& path, const std::string& text) {
  if (access(strRESULT_DIR.c_str(), F_OK) != 0) {
    if (!m_CreateDirectory(strRESULT_DIR)) return false;
    // The new entry lasts only once its parent is synced: a power cut could otherwise take the directory,
    // and the result file renamed into it, after the call has returned.
    PluginSyncDirectory(strMANAGER_DIR);
  }
  if (m_IsFileSymbolLink(path)) return false;

  PluginFd file(PluginOpenForWriting(path.c_str()));
  if (!file) {
    PLUGIN_LOG("open [%s] fail!", path.c_str());
    return false;
  }
  // The text counts as written only once it is on the storage device: the rename that follows would
  // otherwise publish whatever a full disk or a power cut left of it, an empty file most of all. Even
  // "null" has four characters, so an empty text is never taken for a written one.
  const bool written = !text.empty() && PluginWriteAll(file.get(), text.data(), text.size()) &&
                       fsync(file.get()) == 0 && file.Close();
  if (written) {
    PLUGIN_LOG("write json to local path [%s] success!", path.c_str());
    return true;
  }
  PLUGIN_LOG("write json to local path[%s] fail!", path.c_str());
  return false;
}

bool WebapisUtil::m_RenameFile(const std::string& source, const std::string& destination) {
  if (rename(source.c_str(), destination.c_str()) == 0) return true;
  const SystemError error;
  PLUGIN_LOG("rename[%s] to[%s] fail!errno [%d,%s,%s]", source.c_str(), destination.c_str(), error.code(),
             error.message(), error.buffer());
  return false;
}

bool WebapisUtil::m_CreateDirectory(const std::string& path) {
  const int result = mkdir(path.c_str(), 0775);
  if (result == 0) {
    PLUGIN_LOG("create [%s] success", path.c_str());
    return true;
  }
  const SystemError error;
  PLUGIN_LOG("Dest Path [%s] failed to create! return:[%d], errno:[%d, %s, %s]", path.c_str(), result,
             error.code(), error.message(), error.buffer());
  return false;
}

// The plug-in runs with the package manager's privileges, so a link planted at the staging path could
// make it overwrite any file; such a path, or one that cannot be examined, is never written.
bool WebapisUtil::m_IsFileSymbolLink(const std::string& path) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) {
    if (errno == ENOENT) {
      PLUGIN_LOG("[%s] NOT exist", path.c_str());
      return false;
    }
    PLUGIN_LOG("lstat [%s] fail", path.c_str());
    return true;
  }
  if (S_ISLNK(st.st_mode)) {
    PLUGIN_LOG("path [%s] is a symbol link! there's security risk!", path.c_str());
    return true;
  }
  PLUGIN_LOG("[%s] is not a symbol link", path.c_str());
  return false;
}
