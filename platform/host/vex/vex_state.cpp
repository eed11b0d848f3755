// Host stand-in for the TV's application service (libvex_launcher_api, libvex_db_api).
//
// Contract, relied on by the tests and by pkgsim; everything is read at call time:
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

#include <cstdlib>
#include <fstream>
#include <sstream>

namespace host_vex {
namespace {

std::string StateDir() {
  const char* dir = std::getenv("HOST_VEX_DIR");
  return dir != nullptr ? dir : "";
}

std::string Trimmed(const std::string& text) {
  const size_t first = text.find_first_not_of(" \t");
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

}  // namespace

bool FailureForced(const std::string& token) {
  const char* list = std::getenv("HOST_VEX_FAIL");
  if (list == nullptr) return false;
  std::istringstream tokens(list);
  for (std::string item; std::getline(tokens, item, ',');) {
    if (Trimmed(item) == token) return true;
  }
  return false;
}

std::string ForegroundAppId() {
  const std::string dir = StateDir();
  if (dir.empty()) return "";
  std::ifstream in(dir + "/foreground", std::ios::binary);
  std::string id((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  while (!id.empty() && (id.back() == '\n' || id.back() == '\r')) id.pop_back();
  return id;
}

bool RecordTermination(const std::string& appId) {
  const std::string dir = StateDir();
  if (dir.empty()) return true;
  std::ofstream out(dir + "/terminated", std::ios::binary | std::ios::app);
  out << appId << '\n';
  return static_cast<bool>(out.flush());
}

}  // namespace host_vex
