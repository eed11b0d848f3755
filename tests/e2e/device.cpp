#include "device.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

namespace wup_e2e {

MetadataList MetadataOf(const Package& package) {
  MetadataList items;
  if (!package.kind.empty()) items.emplace_back(kTypeKey.c_str(), package.kind.c_str());
  if (!package.appList.empty()) items.emplace_back(kAppListKey.c_str(), package.appList.c_str());
  if (!package.force.empty()) items.emplace_back(kForceKey.c_str(), package.force.c_str());
  return items;
}

Plugin::Plugin(void* library) : entries_(library, WUP_PLUGIN_LIBRARY) {}

int Plugin::Call(hostkit::Operation operation, const char* pkgid, const char* appid,
                 const MetadataList& items) {
  hostkit::MetadataNodes nodes;
  for (const auto& [key, value] : items)
    nodes.push_back(key != nullptr || value != nullptr ? hostkit::MetadataNode({key, value}) : std::nullopt);
  return hostkit::CallEntryPoint(entries_[operation], pkgid, appid, nodes);
}

Device::Device() : layout_(wup_test::SandboxLayout::At(wup_test::MakeTempDir("wup-e2e"))) {
  layout_.Create();
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
    int status = 0;
    try {
      Plugin plugin(library);
      body(plugin);
    } catch (const std::exception& error) {
      std::fprintf(stderr, "exception left the plug-in: %s\n", error.what());
      status = kExceptionLeft;
    }
    // The body's expectations were judged in this process only: a failure must reach the parent's verdict.
    std::exit(::testing::Test::HasFailure() ? kExpectationFailed : status);  // not _exit: leak checkers
  }
  int status = 0;
  waitpid(child, &status, 0);
  status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  if (status == kExpectationFailed)
    ADD_FAILURE() << "an expectation failed in the scenario's process (above)";
  return status;
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

std::string Device::ResultPath() const { return layout_.ResultFile(); }
std::string Device::ResultFile() const { return wup_test::ReadFile(ResultPath()); }
bool Device::ResultFileExists() const { return wup_test::PathExists(ResultPath()); }
std::string Device::DatabasePath() const { return layout_.Database(); }
std::string Device::BackupPath() const { return layout_.Backup(); }

Lines Device::Log() const { return wup_test::ReadLog(layout_.log); }

void Device::ClearLog() const { wup_test::RemoveTree(layout_.log); }

Lines Device::Terminated() const { return wup_test::ReadLines(layout_.TerminatedFile()); }

void Device::SetForeground(const std::string& appid) const {
  wup_test::WriteFile(layout_.ForegroundFile(), appid);
}

}  // namespace wup_e2e
