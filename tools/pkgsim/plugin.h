// The metadata-parser plug-in as the package manager holds it during one installation step: loaded with
// dlopen(RTLD_LAZY | RTLD_LOCAL) when the step starts and unloaded with dlclose when it ends. glibc never
// really unloads this library (its template statics are STB_GNU_UNIQUE symbols), so its process-wide
// instances and the paths it fixed at its first load live on between steps, as on the device.
#ifndef PKGSIM_PLUGIN_H_
#define PKGSIM_PLUGIN_H_

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "manifest.h"
#include "plugin_parser_interface.h"

namespace pkgsim {

// The metadata namespace the plug-in is registered for, and the key it is handled by.
inline const std::string kNamespace = METADATA_NAMESPACE;
inline const std::string kTypeKey = kNamespace + "upgradable_webapi_type";
inline const std::string kAllowListKey = kNamespace + "upgradable_webapi_applist";
inline const std::string kForceKey = kNamespace + "forceupdate_webapi";

enum class Operation { kInstall, kUpgrade, kUninstall };
const char* EntryPointName(Operation operation);

using MetadataItems = std::vector<std::pair<std::string, std::string>>;

// The items of an application that the package manager hands to a plug-in registered as `name`: those
// whose key starts with the name, in manifest order. The manifest reader leaves out a <metadata> without
// a key and reads a missing value as the empty string, so every item it gives has both set.
MetadataItems ItemsWithPrefix(const host::ManifestApp& app, const std::string& name);
// The items of the plug-in's own namespace.
inline MetadataItems ItemsOfNamespace(const host::ManifestApp& app) {
  return ItemsWithPrefix(app, kNamespace);
}

class PluginStep {
 public:
  // Loads the library; the device must already be exported, since the plug-in fixes its paths at its
  // first load. Throws std::runtime_error with dlerror's text when the library or an entry point is
  // missing.
  explicit PluginStep(const std::string& path);

  // Calls the entry point of `operation` once, with the items as the package manager publishes them.
  int Call(Operation operation, const std::string& pkgid, const std::string& appid,
           const MetadataItems& items) const;

  // Which build of the plug-in this is ("default", "hardened"): its exported WUP_POLICY_NAME, or ""
  // for a library that does not say.
  std::string Policy() const;

 private:
  struct Closer {
    void operator()(void* library) const;
  };
  using EntryPoint = decltype(&PKGMGR_MDPARSER_PLUGIN_INSTALL);

  std::unique_ptr<void, Closer> library_;
  EntryPoint entries_[3] = {};
};

}  // namespace pkgsim

#endif  // PKGSIM_PLUGIN_H_
