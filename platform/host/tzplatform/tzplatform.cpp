// Host stand-in for the platform path service: each variable comes from the environment variable of its
// own name, else the device's default, so a sandbox device is just a set of environment variables.
#include <tzplatform_config.h>

#include <cstdlib>
#include <cstring>
#include <string>

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

// HOST_TZPLATFORM_UNSET lists the variables for which the service is to fail (answer NULL).
bool ForcedUnset(const char* name) {
  const char* list = std::getenv("HOST_TZPLATFORM_UNSET");
  if (list == nullptr) return false;
  const std::string padded = "," + std::string(list) + ",";
  return padded.find("," + std::string(name) + ",") != std::string::npos;
}

}  // namespace

extern "C" const char* tzplatform_getenv(enum tzplatform_variable id) {
  for (const Variable& variable : kVariables) {
    if (variable.id != id) continue;
    if (ForcedUnset(variable.name)) return nullptr;
    const char* value = std::getenv(variable.name);
    return (value != nullptr && *value != '\0') ? value : variable.device_default;
  }
  return nullptr;
}
