// Database half of the host application service: the application-information record (see
// vex_state.cpp for the forced failures).
#include <vex_app_service.h>

#include <cstring>

#include "vex_state.h"

extern "C" int vex_get_app_info(const char* appid, vex_app_info_t* info) {
  if (appid == nullptr || info == nullptr || host_vex::FailureForced("vex_get_app_info")) return -1;
  std::memset(info, 0, sizeof(*info));
  // The last byte stays zero so the id field is always terminated.
  std::strncpy(info->bytes + VEX_APP_INFO_APPID_OFFSET, appid,
               VEX_APP_INFO_SIZE - VEX_APP_INFO_APPID_OFFSET - 1);
  return 0;
}
