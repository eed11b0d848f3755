// Host stand-in for the platform path service: each variable comes from the environment variable of its
// own name, else the device's default, so a sandbox device is just a set of environment variables.
#include <tzplatform_config.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "hostkit/fail_list.h"

namespace {

struct Variable {
  tzplatform_variable id;
  const char* name;
  const char* device_default;
};

constexpr Variable kVariables[] = {
    {TZ_SYS_DB, "TZ_SYS_DB", "/opt/dbspace"},
    {TZ_SYS_RW_APP, "TZ_SYS_RW_APP", "/opt/usr/apps"},
    {TZ_SYS_RO_APP, "TZ_SYS_RO_APP", "/usr/apps"},
    {TZ_SYS_RW_PACKAGES, "TZ_SYS_RW_PACKAGES", "/opt/share/packages"},
    {TZ_SYS_RO_PACKAGES, "TZ_SYS_RO_PACKAGES", "/usr/share/packages"},
};

}  // namespace

extern "C" const char* tzplatform_getenv(enum tzplatform_variable id) {
  for (const Variable& variable : kVariables) {
    if (variable.id != id) continue;
    if (hostkit::Listed("HOST_TZPLATFORM_UNSET", variable.name)) return nullptr;  // forced to fail
    const char* value = std::getenv(variable.name);
    return (value != nullptr && *value != '\0') ? value : variable.device_default;
  }
  return nullptr;
}
