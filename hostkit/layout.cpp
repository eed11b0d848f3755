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
  layout.registrations = root + "/usr/share/parser-plugins";
  layout.metadataPlugins = root + "/etc/package-manager/parserlib/metadata";
  layout.homes = root + "/opt/usr/home";
  return layout;
}

Layout Layout::ForUser(unsigned uid) const {
  Layout layout = *this;
  layout.user = uid;
  return layout;
}

std::string Layout::UserHome(unsigned uid) const {
  return homes + "/" + (uid == kOwnerUid ? kOwnerHome : "user" + std::to_string(uid));
}

std::optional<unsigned> Layout::UserOf(const std::string& home) const {
  const std::string name = std::filesystem::path(home).filename().string();
  const std::string digits = name.compare(0, 4, "user") == 0 ? name.substr(4) : "";
  unsigned uid = name == kOwnerHome ? kOwnerUid : 0;
  if (!digits.empty() && digits.size() <= 9 && digits.find_first_not_of("0123456789") == std::string::npos) {
    uid = static_cast<unsigned>(std::stoul(digits));
  }
  // Only the names UserHome gives a regular user (user0042 is no home of uid 42).
  if (uid < kFirstRegularUid || UserHome(uid) != homes + "/" + name) return std::nullopt;
  return uid;
}

std::vector<std::string> Layout::Dirs() const {
  const std::string logDir = std::filesystem::path(log).parent_path().string();
  return {db,         rwApp, ManagerDir(), roApp,         rwPackages,
          roPackages, vex,   logDir,       registrations, metadataPlugins};
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
          "HOST_DLOG_FILE=" + log,
          "HOST_PKGMGRINFO_UID=0",
          "TZ_USER_PACKAGES=" + (user != 0 ? UserPackages(user) : ""),
          "TZ_USER_APP=" + (user != 0 ? UserApps(user) : "")};
}

void Layout::Export() const {
  for (const std::string& entry : Environment()) {
    const size_t equals = entry.find('=');
    setenv(entry.substr(0, equals).c_str(), entry.c_str() + equals + 1, 1);
  }
}

}  // namespace hostkit
