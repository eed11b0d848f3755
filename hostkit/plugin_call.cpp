#include "hostkit/plugin_call.h"

#include <stdexcept>

namespace hostkit {

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

std::optional<Operation> OperationNamed(const std::string& word) {
  if (word == "install") return Operation::kInstall;
  if (word == "upgrade") return Operation::kUpgrade;
  if (word == "uninstall") return Operation::kUninstall;
  return std::nullopt;
}

MetadataNodes NodesOf(const MetadataItems& items) {
  MetadataNodes nodes;
  nodes.reserve(items.size());
  for (const auto& [key, value] : items) nodes.push_back(__metadata_t{key.c_str(), value.c_str()});
  return nodes;
}

int CallEntryPoint(EntryPoint entry, const char* pkgid, const char* appid, const MetadataNodes& nodes) {
  // Each node points at an item of this call's own, as the package manager's do.
  std::vector<__metadata_t> items;
  items.reserve(nodes.size());
  std::unique_ptr<GList, decltype(&g_list_free)> list(nullptr, g_list_free);  // freed also on an exception
  for (const MetadataNode& node : nodes) {
    list.reset(g_list_append(list.release(), node ? &items.emplace_back(*node) : nullptr));
  }
  return entry(pkgid, appid, list.get());
}

EntryPoints::EntryPoints(void* library, const std::string& path) {
  for (Operation operation : kOperations) {
    void* symbol = dlsym(library, EntryPointName(operation));
    if (symbol == nullptr) {
      throw std::runtime_error(path + " is not a metadata-parser plug-in: no " + EntryPointName(operation));
    }
    entries_[static_cast<int>(operation)] = reinterpret_cast<EntryPoint>(symbol);
  }
}

void* PluginLibrary::Load(const std::string& path, int flags) {
  void* library = dlopen(path.c_str(), flags);
  if (library == nullptr) throw std::runtime_error("cannot load the plug-in: " + std::string(dlerror()));
  return library;
}

PluginLibrary::PluginLibrary(const std::string& path, int flags)
    : library_(Load(path, flags)), entries_(library_.get(), path) {}

std::string PolicyName(void* library) {
  const void* name = library != nullptr ? dlsym(library, "WUP_POLICY_NAME") : nullptr;
  return name != nullptr ? static_cast<const char*>(name) : "";
}

}  // namespace hostkit
