#include "hostkit/layout.h"

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace hostkit {

Layout Layout::At(const std::string& root) {
  Layout layout;
  layout.root = root;
  layout.db = root + "/opt/dbspace";
  layout.rwApp = root + "/opt/usr/apps";
  layout.roApp = root + "/usr/apps";
  layout.rwPackages = root + "/opt/share/packages";
  layout.roPackages = root + "/usr/share/packages";
  layout.vex = root + "/run/vex";
  layout.log = root + "/var/log/dlog.log";
  return layout;
}

std::vector<std::string> Layout::Dirs() const {
  return {db,         rwApp,      ManagerDir(), roApp,
          rwPackages, roPackages, vex,          std::filesystem::path(log).parent_path().string()};
}

void Layout::Create() const {
  for (const std::string& dir : Dirs()) {
    std::error_code error;
    std::filesystem::create_directories(dir, error);
    if (error) throw std::runtime_error("cannot create " + dir + ": " + error.message());
  }
}

void Layout::Reset() const {
  std::error_code ignored;  // what cannot be removed makes Create fail
  std::filesystem::remove_all(root, ignored);
  Create();
}

std::vector<std::string> Layout::Environment() const {
  return {"TZ_SYS_DB=" + db,
          "TZ_SYS_RW_APP=" + rwApp,
          "TZ_SYS_RO_APP=" + roApp,
          "TZ_SYS_RW_PACKAGES=" + rwPackages,
          "TZ_SYS_RO_PACKAGES=" + roPackages,
          "HOST_VEX_DIR=" + vex,
          "HOST_DLOG_FILE=" + log};
}

void Layout::Export() const {
  for (const std::string& entry : Environment()) {
    const size_t equals = entry.find('=');
    setenv(entry.substr(0, equals).c_str(), entry.c_str() + equals + 1, 1);
  }
}

}  // namespace hostkit
