// End-to-end harness: a sandbox device with plug-in packages on it, and the package manager's calls into
// the real plug-in library, each run in a fresh process as on the TV (the plug-in builds its constants
// when loaded and keeps its instances for the life of the process).
#ifndef WUP_TESTS_E2E_DEVICE_H_
#define WUP_TESTS_E2E_DEVICE_H_

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "sandbox.h"

namespace wup_e2e {

enum class Location { kReadOnly, kWritable, kBoth };

struct Extension {
  std::string name;
  std::string lib;
  std::string version;
  std::vector<std::string> entryPoints;
};

struct Package {
  std::string pkgid;
  std::string version = "1.0.0";
  std::string kind;  // value of the type metadata; empty: no type metadata at all
  std::string appList;
  Location location = Location::kWritable;
  std::string roVersion = "1.0.0";  // the preloaded copy's version when the package is in both places
  // Description files of an xwalk package: file name to content.
  std::map<std::string, std::string> descriptions;
};

using MetadataList = std::vector<std::pair<const char*, const char*>>;

// The three entry points as loaded from the library, called with a metadata list built from `items`.
class Plugin {
 public:
  explicit Plugin(void* library);
  int Install(const char* pkgid, const char* appid, const MetadataList& items);
  int Upgrade(const char* pkgid, const char* appid, const MetadataList& items);
  int Uninstall(const char* pkgid, const char* appid, const MetadataList& items);

 private:
  using EntryPoint = int (*)(const char*, const char*, void*);
  int Call(EntryPoint entry, const char* pkgid, const char* appid, const MetadataList& items);
  EntryPoint install_;
  EntryPoint upgrade_;
  EntryPoint uninstall_;
};

struct Row {
  std::string name, version, path, pkgid, entryPoints;
  int pluginType, hasForceMetaData, isUpdate;
  std::string appWhiteList, systemPath;
};

class Device {
 public:
  Device();
  ~Device();

  const wup_test::SandboxLayout& layout() const { return layout_; }

  // Places a package as the package manager would before calling the plug-in.
  void Place(const Package& package);
  // Runs `body` with the plug-in loaded in a fresh process; `environment` entries "NAME=VALUE" are set
  // in that process only. The process's exit status: 0 when it ran through, kExceptionLeft when an
  // exception left the plug-in, 128 + signal when it was killed.
  static constexpr int kExceptionLeft = 4;
  int Run(const std::function<void(Plugin&)>& body, const std::vector<std::string>& environment = {});
  // Installs a placed package the way the package manager does: its metadata list, one call.
  int InstallPlaced(const Package& package);

  // What the plug-in left behind.
  std::vector<Row> Rows() const;          // every row of the plug-in table, by name
  std::string ResultFile() const;         // "" when missing
  bool ResultFileExists() const;
  std::string ResultPath() const;
  std::string DatabasePath() const;
  std::string BackupPath() const;
  std::vector<std::string> Log() const;   // log messages since the last ClearLog, without prefixes
  void ClearLog() const;
  std::vector<std::string> Terminated() const;
  void SetForeground(const std::string& appid) const;

 private:
  wup_test::SandboxLayout layout_;
};

// The metadata list that a package of `kind` carries (the type key, and the allow-list when given).
MetadataList MetadataOf(const Package& package);
const std::string& TypeKey();
const std::string& AppListKey();

// Number of log messages equal to `message`.
int Count(const std::vector<std::string>& log, const std::string& message);
bool Has(const std::vector<std::string>& log, const std::string& message);

}  // namespace wup_e2e

#endif  // WUP_TESTS_E2E_DEVICE_H_
