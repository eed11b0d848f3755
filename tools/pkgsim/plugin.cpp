#include "plugin.h"

#include <dlfcn.h>

#include <stdexcept>

namespace pkgsim {
namespace {

struct ListFreer {
  void operator()(GList* list) const { g_list_free(list); }
};
using ListHandle = std::unique_ptr<GList, ListFreer>;

const Operation kOperations[] = {Operation::kInstall, Operation::kUpgrade, Operation::kUninstall};

}  // namespace

const char* EntryPointName(Operation operation) {
  switch (operation) {
    case Operation::kInstall:
      return "PKGMGR_MDPARSER_PLUGIN_INSTALL";
    case Operation::kUpgrade:
      return "PKGMGR_MDPARSER_PLUGIN_UPGRADE";
    case Operation::kUninstall:
      return "PKGMGR_MDPARSER_PLUGIN_UNINSTALL";
  }
  return "";
}

MetadataItems ItemsWithPrefix(const host::ManifestApp& app, const std::string& name) {
  MetadataItems items;
  for (const auto& item : app.metadata) {
    if (item.first.compare(0, name.size(), name) == 0) items.push_back(item);
  }
  return items;
}

void PluginStep::Closer::operator()(void* library) const { dlclose(library); }

PluginStep::PluginStep(const std::string& path) {
  // RTLD_LOCAL: the plug-in resolves the platform calls from the platform libraries, and nothing else
  // resolves against the plug-in.
  library_.reset(dlopen(path.c_str(), RTLD_LAZY | RTLD_LOCAL));
  if (!library_) throw std::runtime_error("cannot load the plug-in: " + std::string(dlerror()));
  for (Operation operation : kOperations) {
    void* symbol = dlsym(library_.get(), EntryPointName(operation));
    if (symbol == nullptr) {
      throw std::runtime_error(path + " is not a metadata-parser plug-in: no " + EntryPointName(operation));
    }
    entries_[static_cast<int>(operation)] = reinterpret_cast<EntryPoint>(symbol);
  }
}

int PluginStep::Call(Operation operation, const std::string& pkgid, const std::string& appid,
                     const MetadataItems& items) const {
  // The package manager publishes the items and keeps them alive for the duration of the call only.
  std::vector<__metadata_t> published;
  published.reserve(items.size());
  for (const auto& [key, value] : items) published.push_back({key.c_str(), value.c_str()});
  GList* list = nullptr;
  for (__metadata_t& item : published) list = g_list_append(list, &item);
  const ListHandle owned(list);
  return entries_[static_cast<int>(operation)](pkgid.c_str(), appid.c_str(), owned.get());
}

std::string PluginStep::Policy() const {
  const void* name = dlsym(library_.get(), "WUP_POLICY_NAME");
  return name != nullptr ? static_cast<const char*>(name) : "";
}

}  // namespace pkgsim
