// Launcher half of the host application service: the foreground query and termination (see
// vex_state.cpp for the state they read and write).
#include <vex_app_service.h>

#include <cstring>

#include "vex_state.h"

extern "C" int vex_get_current_showing_app(char** appid) {
  if (appid == nullptr || host_vex::FailureForced("vex_get_current_showing_app")) return -1;
  if (host_vex::FailureForced("null_foreground")) {
    *appid = nullptr;
    return 0;
  }
  *appid = strdup(host_vex::ForegroundAppId().c_str());
  return *appid != nullptr ? 0 : -1;
}

extern "C" int vex_terminate_app(const char* appid) {
  if (appid == nullptr || host_vex::FailureForced("vex_terminate_app")) return -1;
  return host_vex::RecordTermination(appid) ? 0 : -1;
}
