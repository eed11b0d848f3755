#include "device.h"

#include <dlfcn.h>
#include <glib.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>

#include "plugin_parser_interface.h"
#include "sample_packages.h"

namespace wup_e2e {

const std::string& TypeKey() {
  static const std::string key = METADATA_NAMESPACE "upgradable_webapi_type";
  return key;
}

const std::string& AppListKey() {
  static const std::string key = METADATA_NAMESPACE "upgradable_webapi_applist";
  return key;
}

MetadataList MetadataOf(const Package& package) {
  MetadataList items;
  if (!package.kind.empty()) items.emplace_back(TypeKey().c_str(), package.kind.c_str());
  if (!package.appList.empty()) items.emplace_back(AppListKey().c_str(), package.appList.c_str());
  return items;
}

int Count(const std::vector<std::string>& log, const std::string& message) {
  return static_cast<int>(std::count(log.begin(), log.end(), message));
}

bool Has(const std::vector<std::string>& log, const std::string& message) { return Count(log, message) > 0; }

// ---------------------------------------------------------------------------------------------------

Plugin::Plugin(void* library)
    : install_(reinterpret_cast<EntryPoint>(dlsym(library, "PKGMGR_MDPARSER_PLUGIN_INSTALL"))),
      upgrade_(reinterpret_cast<EntryPoint>(dlsym(library, "PKGMGR_MDPARSER_PLUGIN_UPGRADE"))),
      uninstall_(reinterpret_cast<EntryPoint>(dlsym(library, "PKGMGR_MDPARSER_PLUGIN_UNINSTALL"))) {
  if (install_ == nullptr || upgrade_ == nullptr || uninstall_ == nullptr) {
    throw std::runtime_error("the library lacks an entry point");
  }
}

int Plugin::Install(const char* pkgid, const char* appid, const MetadataList& items) {
  return Call(install_, pkgid, appid, items);
}

int Plugin::Upgrade(const char* pkgid, const char* appid, const MetadataList& items) {
  return Call(upgrade_, pkgid, appid, items);
}

int Plugin::Uninstall(const char* pkgid, const char* appid, const MetadataList& items) {
  return Call(uninstall_, pkgid, appid, items);
}

// The list holds the package manager's items; a null pair (both pointers null) stands for a node without
// data, a null key for an item without a key.
int Plugin::Call(EntryPoint entry, const char* pkgid, const char* appid, const MetadataList& items) {
  struct ListFree {
    void operator()(GList* list) const { g_list_free(list); }
  };
  std::vector<__metadata_t> storage;
  storage.reserve(items.size());
  std::unique_ptr<GList, ListFree> list;  // freed also when an exception leaves the plug-in
  for (const auto& item : items) {
    void* data = nullptr;
    if (item.first != nullptr || item.second != nullptr) {
      storage.push_back({item.first, item.second});
      data = &storage.back();
    }
    GList* head = g_list_append(list.release(), data);
    list.reset(head);
  }
  return entry(pkgid, appid, list.get());
}

// ---------------------------------------------------------------------------------------------------

Device::Device() : layout_(wup_test::SandboxLayout::At(wup_test::MakeTempDir("wup-e2e"))) {
  layout_.Create();
  // The application manager's own directory exists on every device; the plug-in creates only the
  // result directory inside it.
  wup_test::MakeDirs(layout_.rwApp + "/appbinarymanager");
}

Device::~Device() {
  if (std::getenv("WUP_E2E_KEEP") == nullptr) wup_test::RemoveTree(layout_.root);
}

namespace {

void PlaceCopy(const Package& package, const std::string& packagesDir, const std::string& appsDir,
               const std::string& version) {
  wup_test::Metadata metadata;
  for (const auto& item : MetadataOf(package)) metadata.emplace_back(item.first, item.second);
  wup_test::WriteManifest(packagesDir, package.pkgid, version, {package.pkgid}, metadata);
  const std::string res = appsDir + "/" + package.pkgid + "/shared/res";
  wup_test::MakeDirs(res);
  for (const auto& description : package.descriptions) {
    wup_test::WriteFile(res + "/" + description.first, description.second);
  }
}

}  // namespace

void Device::Place(const Package& package) {
  if (package.location != Location::kWritable) {
    PlaceCopy(package, layout_.roPackages, layout_.roApp,
              package.location == Location::kBoth ? package.roVersion : package.version);
  }
  if (package.location != Location::kReadOnly) {
    PlaceCopy(package, layout_.rwPackages, layout_.rwApp, package.version);
  }
}

int Device::Run(const std::function<void(Plugin&)>& body, const std::vector<std::string>& environment) {
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    layout_.Export();
    for (const std::string& entry : environment) {
      const size_t equals = entry.find('=');
      setenv(entry.substr(0, equals).c_str(), entry.substr(equals + 1).c_str(), 1);
    }
    void* library = dlopen(WUP_PLUGIN_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
      std::fprintf(stderr, "dlopen: %s\n", dlerror());
      _exit(3);
    }
    try {
      Plugin plugin(library);
      body(plugin);
    } catch (const std::exception& error) {
      std::fprintf(stderr, "exception left the plug-in: %s\n", error.what());
      std::exit(kExceptionLeft);
    }
    std::exit(0);  // not _exit: leak checkers report at a normal exit
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int Device::InstallPlaced(const Package& package) {
  return Run([&package](Plugin& plugin) {
    plugin.Install(package.pkgid.c_str(), package.pkgid.c_str(), MetadataOf(package));
  });
}

std::vector<Row> Device::Rows() const {
  std::vector<Row> rows;
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(DatabasePath().c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
    sqlite3_close(db);
    return rows;
  }
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v2(db, "select * from pluginTable order by name", -1, &statement, nullptr) == SQLITE_OK) {
    auto text = [statement](int column) {
      const unsigned char* value = sqlite3_column_text(statement, column);
      return std::string(value != nullptr ? reinterpret_cast<const char*>(value) : "");
    };
    while (sqlite3_step(statement) == SQLITE_ROW) {
      rows.push_back({text(0), text(1), text(2), text(3), text(4), sqlite3_column_int(statement, 5),
                      sqlite3_column_int(statement, 6), sqlite3_column_int(statement, 7), text(8), text(9)});
    }
  }
  sqlite3_finalize(statement);
  sqlite3_close(db);
  return rows;
}

std::string Device::ResultPath() const {
  return layout_.rwApp + "/appbinarymanager/webapi_result/upgrade_webapi_result.json";
}
std::string Device::ResultFile() const { return wup_test::ReadFile(ResultPath()); }
bool Device::ResultFileExists() const { return wup_test::PathExists(ResultPath()); }
std::string Device::DatabasePath() const { return layout_.db + "/.AppBinaryManager.db"; }
std::string Device::BackupPath() const { return layout_.db + "/.AppBinaryManager_Backup.db"; }

// Lines read "I/KelvoManager(pid): file: function(line) > message".
std::vector<std::string> Device::Log() const {
  std::vector<std::string> messages;
  for (const std::string& line : wup_test::ReadLines(layout_.log)) {
    const size_t separator = line.find(" > ");
    messages.push_back(separator == std::string::npos ? line : line.substr(separator + 3));
  }
  return messages;
}

void Device::ClearLog() const { wup_test::RemoveTree(layout_.log); }

std::vector<std::string> Device::Terminated() const { return wup_test::ReadLines(layout_.vex + "/terminated"); }

void Device::SetForeground(const std::string& appid) const {
  wup_test::WriteFile(layout_.vex + "/foreground", appid);
}

}  // namespace wup_e2e
