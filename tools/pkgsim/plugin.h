// The metadata-parser plug-in as the package manager sees it: a shared library loaded with dlopen whose
// three entry points are called once per application that carries metadata of the plug-in's namespace.
// The library stays loaded until the process ends, as in the package manager: its process-wide
// instances are never destroyed, and unloading it under them would only hide that.
#ifndef PKGSIM_PLUGIN_H_
#define PKGSIM_PLUGIN_H_

#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "manifest.h"
#include "plugin_parser_interface.h"

namespace pkgsim {

enum class Operation { kInstall, kUpgrade, kUninstall };

using MetadataItems = std::vector<std::pair<std::string, std::string>>;

// The items of an application that the package manager hands to a plug-in registered for `ns`: those
// whose key starts with it, in manifest order.
MetadataItems ItemsOfNamespace(const host::ManifestApp& app, const std::string& ns);

class Plugin {
 public:
  // Loads the library; the device must already be exported, since the plug-in fixes its paths at load.
  // Throws std::runtime_error with dlerror's text when the library or an entry point is missing.
  static Plugin Load(const std::string& path);

  // Calls the entry point of `operation` for every application of the manifest that has items of the
  // namespace, and says so on `out`. Returns the number of calls.
  int CallForPackage(Operation operation, const host::Manifest& manifest, const std::string& ns,
                     std::ostream& out) const;

 private:
  using EntryPoint = decltype(&PKGMGR_MDPARSER_PLUGIN_INSTALL);
  EntryPoint install_ = nullptr;
  EntryPoint upgrade_ = nullptr;
  EntryPoint uninstall_ = nullptr;
};

}  // namespace pkgsim

#endif  // PKGSIM_PLUGIN_H_
