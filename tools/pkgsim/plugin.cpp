#include "plugin.h"

#include <dlfcn.h>

#include <memory>
#include <stdexcept>

namespace pkgsim {
namespace {

struct ListFreer {
  void operator()(GList* list) const { g_list_free(list); }
};
using ListHandle = std::unique_ptr<GList, ListFreer>;

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

}  // namespace

MetadataItems ItemsOfNamespace(const host::ManifestApp& app, const std::string& ns) {
  MetadataItems items;
  for (const auto& item : app.metadata) {
    if (item.first.compare(0, ns.size(), ns) == 0) items.push_back(item);
  }
  return items;
}

Plugin Plugin::Load(const std::string& path) {
  // RTLD_GLOBAL is not wanted: the plug-in must resolve the platform calls from the platform libraries,
  // and nothing else may resolve against the plug-in.
  void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) throw std::runtime_error("cannot load the plug-in: " + std::string(dlerror()));
  Plugin plugin;
  const std::pair<EntryPoint*, Operation> slots[] = {{&plugin.install_, Operation::kInstall},
                                                     {&plugin.upgrade_, Operation::kUpgrade},
                                                     {&plugin.uninstall_, Operation::kUninstall}};
  for (const auto& [slot, operation] : slots) {
    *slot = reinterpret_cast<EntryPoint>(dlsym(library, EntryPointName(operation)));
    if (*slot == nullptr) {
      throw std::runtime_error(path + " is not a metadata-parser plug-in: no " + EntryPointName(operation));
    }
  }
  return plugin;
}

int Plugin::CallForPackage(Operation operation, const host::Manifest& manifest, const std::string& ns,
                           std::ostream& out) const {
  const EntryPoint entry = operation == Operation::kInstall   ? install_
                           : operation == Operation::kUpgrade ? upgrade_
                                                              : uninstall_;
  int calls = 0;
  for (const host::ManifestApp& app : manifest.apps) {
    const MetadataItems items = ItemsOfNamespace(app, ns);
    if (items.empty()) continue;
    // The package manager publishes the items and keeps them alive for the duration of the call.
    std::vector<__metadata_t> published;
    published.reserve(items.size());
    for (const auto& [key, value] : items) published.push_back({key.c_str(), value.c_str()});
    GList* list = nullptr;
    for (__metadata_t& item : published) list = g_list_append(list, &item);
    const ListHandle owned(list);

    out << "calling " << EntryPointName(operation) << "(" << manifest.package << ", " << app.appid << ", "
        << items.size() << (items.size() == 1 ? " item" : " items") << ")\n";
    const int result = entry(manifest.package.c_str(), app.appid.c_str(), owned.get());
    if (result != 0) out << "  returned " << result << "\n";
    ++calls;
  }
  if (calls == 0) out << "no application of " << manifest.package << " has metadata of " << ns << "\n";
  return calls;
}

}  // namespace pkgsim
