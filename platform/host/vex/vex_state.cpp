// Host stand-in for the TV's application service (libvex_launcher_api, libvex_db_api).
//
// Contract, relied on by the tests and by pkgsim; everything is read at call time, only when a call
// needs it:
//   HOST_VEX_DIR              directory of the service's state on the sandbox device.
//   $HOST_VEX_DIR/foreground  id of the application in the foreground; a missing or empty file means
//                             none. A trailing line feed is ignored.
//   $HOST_VEX_DIR/terminated  every successful vex_terminate_app appends the id and "\n", in call order.
//   HOST_VEX_FAIL             comma-separated tokens: "vex_get_current_showing_app", "vex_get_app_info",
//                             "vex_terminate_app" make that function return -1; "null_foreground" makes
//                             vex_get_current_showing_app return 0 with a null pointer.
// vex_get_current_showing_app hands out a malloc'ed copy of the id ("" when none). vex_get_app_info
// zeroes the record and puts the given id at byte offset 1024. Without HOST_VEX_DIR nothing is in the
// foreground and terminations succeed without being recorded.
#include "vex_state.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <mutex>

#include "hostkit/append_file.h"
#include "hostkit/fail_list.h"

namespace host_vex {
namespace {

std::string StateDir() {
  const char* dir = std::getenv("HOST_VEX_DIR");
  return dir != nullptr ? dir : "";
}

}  // namespace

bool FailureForced(const char* token) { return hostkit::Listed("HOST_VEX_FAIL", token); }

std::string ForegroundAppId() {
  const std::string dir = StateDir();
  if (dir.empty()) return "";
  std::string id;
  const int fd = open((dir + "/foreground").c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd >= 0) {
    char buffer[512];
    for (ssize_t count; (count = read(fd, buffer, sizeof buffer)) > 0;) id.append(buffer, static_cast<size_t>(count));
    close(fd);
  }
  while (!id.empty() && (id.back() == '\n' || id.back() == '\r')) id.pop_back();
  return id;
}

bool RecordTermination(const std::string& appId) {
  const std::string dir = StateDir();
  if (dir.empty()) return true;
  // Never destroyed: a termination may still come while the process ends.
  static std::mutex* const mutex = new std::mutex;
  static hostkit::AppendFile* const record = new hostkit::AppendFile;
  const std::string line = appId + "\n";
  const std::lock_guard<std::mutex> lock(*mutex);
  return record->Append(dir + "/terminated", line.data(), line.size());
}

}  // namespace host_vex
