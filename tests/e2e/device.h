// End-to-end harness: a sandbox device with plug-in packages on it, and the package manager's calls into the
// real plug-in library in a fresh process, as on the TV (constants built at load, instances kept for life).
#ifndef WUP_TESTS_E2E_DEVICE_H_
#define WUP_TESTS_E2E_DEVICE_H_

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "hostkit/plugin_call.h"
#include "sandbox.h"

namespace wup_e2e {

using wup_test::Has;
using wup_test::Lines;

inline const std::string kTypeKey = METADATA_NAMESPACE "upgradable_webapi_type";
inline const std::string kAppListKey = METADATA_NAMESPACE "upgradable_webapi_applist";
inline const std::string kForceKey = METADATA_NAMESPACE "forceupdate_webapi";

// A package in the writable area, as the package manager registers it before calling the plug-in.
struct Package {
  std::string pkgid;
  std::string version = "1.0.0";
  std::string kind;     // value of the type metadata; empty: no type metadata at all
  std::string appList;  // value of the allow-list metadata; empty: none
  std::string force;    // value of the force-update metadata; empty: none
  std::map<std::string, std::string> descriptions;  // of an xwalk package: file name to content
};

inline Package Pepper(const std::string& name, const std::string& version = "1.0.0") {
  return {"com.korvane.tv.pepper." + name, version, "pepperplugin", "", "", {}};
}

using MetadataList = std::vector<std::pair<const char*, const char*>>;

// The metadata list that the package carries, the type key first.
MetadataList MetadataOf(const Package& package);

// The three entry points as loaded from the library, called with a metadata list built from `items`; a
// null pair stands for a node without data, a null key for an item without a key.
class Plugin {
 public:
  explicit Plugin(void* library);
  int Install(const char* pkgid, const char* appid, const MetadataList& items) {
    return Call(hostkit::Operation::kInstall, pkgid, appid, items);
  }
  int Upgrade(const char* pkgid, const char* appid, const MetadataList& items) {
    return Call(hostkit::Operation::kUpgrade, pkgid, appid, items);
  }
  int Uninstall(const char* pkgid, const char* appid, const MetadataList& items) {
    return Call(hostkit::Operation::kUninstall, pkgid, appid, items);
  }

 private:
  int Call(hostkit::Operation operation, const char* pkgid, const char* appid, const MetadataList& items);
  hostkit::EntryPoints entries_;
};

class Device {
 public:
  Device();
  ~Device();

  const wup_test::SandboxLayout& layout() const { return layout_; }

  // Places a package as the package manager would before calling the plug-in.
  void Place(const Package& package);
  // Runs `body` with the plug-in loaded in a fresh process with `environment` set (as SetEnvironment); its
  // exit status: 0 when it ran through, kExceptionLeft when an exception left the plug-in,
  // kExpectationFailed (and a failure of the calling test) when an expectation of the body failed,
  // 128 + signal.
  static constexpr int kExceptionLeft = 4;
  static constexpr int kExpectationFailed = 5;
  int Run(const std::function<void(Plugin&)>& body, const Lines& environment = {});
  // Places the package and installs it the way the package manager does: its metadata list, one call.
  int Install(const Package& package, const Lines& environment = {});

  // What the plug-in left behind; the rows of the plug-in table by name, as Query gives them.
  Lines Rows() const;
  std::string ResultFile() const;  // "" when missing
  bool ResultFileExists() const;
  std::string ResultPath() const;
  std::string DatabasePath() const;
  std::string BackupPath() const;
  Lines Log() const;  // log messages since the last ClearLog, without prefixes
  void ClearLog() const;
  Lines Terminated() const;
  void SetForeground(const std::string& appid) const;

 private:
  wup_test::SandboxLayout layout_;
};

}  // namespace wup_e2e

#endif  // WUP_TESTS_E2E_DEVICE_H_
