#include "device.h"

#include <dlfcn.h>
#include <glib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>

#include "plugin_parser_interface.h"

namespace wup_e2e {

MetadataList MetadataOf(const Package& package) {
  MetadataList items;
  if (!package.kind.empty()) items.emplace_back(kTypeKey.c_str(), package.kind.c_str());
  if (!package.appList.empty()) items.emplace_back(kAppListKey.c_str(), package.appList.c_str());
  if (!package.force.empty()) items.emplace_back(kForceKey.c_str(), package.force.c_str());
  return items;
}

Plugin::Plugin(void* library)
    : install_(reinterpret_cast<EntryPoint>(dlsym(library, "PKGMGR_MDPARSER_PLUGIN_INSTALL"))),
      upgrade_(reinterpret_cast<EntryPoint>(dlsym(library, "PKGMGR_MDPARSER_PLUGIN_UPGRADE"))),
      uninstall_(reinterpret_cast<EntryPoint>(dlsym(library, "PKGMGR_MDPARSER_PLUGIN_UNINSTALL"))) {
  if (install_ == nullptr || upgrade_ == nullptr || uninstall_ == nullptr) {
    throw std::runtime_error("the library lacks an entry point");
  }
}

int Plugin::Call(EntryPoint entry, const char* pkgid, const char* appid, const MetadataList& items) {
  std::vector<__metadata_t> storage;
  storage.reserve(items.size());
  std::unique_ptr<GList, decltype(&g_list_free)> list(nullptr, g_list_free);  // freed also on an exception
  for (const auto& [key, value] : items) {
    void* data = nullptr;
    if (key != nullptr || value != nullptr) data = &storage.emplace_back(__metadata_t{key, value});
    list.reset(g_list_append(list.release(), data));
  }
  return entry(pkgid, appid, list.get());
}

Device::Device() : layout_(wup_test::SandboxLayout::At(wup_test::MakeTempDir("wup-e2e"))) {
  layout_.Create();
  // The application manager's directory exists on every device; the plug-in creates only its result one.
  wup_test::MakeDirs(layout_.rwApp + "/appbinarymanager");
}

Device::~Device() {
  if (std::getenv("WUP_E2E_KEEP") == nullptr) wup_test::RemoveTree(layout_.root);
}

void Device::Place(const Package& package) {
  wup_test::Metadata metadata;
  for (const auto& [key, value] : MetadataOf(package)) metadata.emplace_back(key, value);
  wup_test::WriteManifest(layout_.rwPackages, package.pkgid, package.version, {package.pkgid}, metadata);
  const std::string res = layout_.rwApp + "/" + package.pkgid + "/shared/res/";
  wup_test::MakeDirs(res);
  for (const auto& [file, content] : package.descriptions) wup_test::WriteFile(res + file, content);
}

int Device::Run(const std::function<void(Plugin&)>& body, const Lines& environment) {
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    layout_.Export();
    wup_test::SetEnvironment(environment);
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

int Device::Install(const Package& package, const Lines& environment) {
  Place(package);
  return Run(
      [&package](Plugin& plugin) {
        plugin.Install(package.pkgid.c_str(), package.pkgid.c_str(), MetadataOf(package));
      },
      environment);
}

Lines Device::Rows() const {
  return wup_test::Query(DatabasePath(), "select * from pluginTable order by name");
}

std::string Device::ResultPath() const {
  return layout_.rwApp + "/appbinarymanager/webapi_result/upgrade_webapi_result.json";
}
std::string Device::ResultFile() const { return wup_test::ReadFile(ResultPath()); }
bool Device::ResultFileExists() const { return wup_test::PathExists(ResultPath()); }
std::string Device::DatabasePath() const { return layout_.db + "/.AppBinaryManager.db"; }
std::string Device::BackupPath() const { return layout_.db + "/.AppBinaryManager_Backup.db"; }

Lines Device::Log() const { return wup_test::ReadLog(layout_.log); }

void Device::ClearLog() const { wup_test::RemoveTree(layout_.log); }

Lines Device::Terminated() const { return wup_test::ReadLines(layout_.vex + "/terminated"); }

void Device::SetForeground(const std::string& appid) const {
  wup_test::WriteFile(layout_.vex + "/foreground", appid);
}

}  // namespace wup_e2e
