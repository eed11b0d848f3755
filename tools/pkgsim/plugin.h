// The metadata-parser plug-in as the package manager holds it during one installation step: loaded with
// dlopen(RTLD_LAZY | RTLD_LOCAL) when the step starts and unloaded with dlclose when it ends. glibc never
// really unloads this library (its template statics are STB_GNU_UNIQUE symbols), so its process-wide
// instances and the paths it fixed at its first load live on between steps, as on the device.
#ifndef PKGSIM_PLUGIN_H_
#define PKGSIM_PLUGIN_H_

#include <string>

#include "hostkit/manifest.h"
#include "hostkit/plugin_call.h"

namespace pkgsim {

// The metadata namespace the plug-in is registered for, and the key it is handled by.
inline const std::string kNamespace = METADATA_NAMESPACE;
inline const std::string kTypeKey = kNamespace + "upgradable_webapi_type";
inline const std::string kAllowListKey = kNamespace + "upgradable_webapi_applist";
inline const std::string kForceKey = kNamespace + "forceupdate_webapi";

using hostkit::EntryPointName;
using hostkit::MetadataItems;
using hostkit::Operation;

// The items of an application that the package manager hands to the plug-in: those whose key starts
// with the namespace, in manifest order. The manifest reader leaves out a <metadata> without a key and
// reads a missing value as the empty string, so every item it gives has both set.
MetadataItems ItemsOfNamespace(const hostkit::ManifestApp& app);

// One plug-in step: the plug-in loaded when it starts and unloaded when it ends; loading throws
// std::runtime_error with dlerror's text when the library or an entry point is missing. The device must
// already be exported, since the plug-in fixes its paths at its first load.
using PluginStep = hostkit::PluginLibrary;

}  // namespace pkgsim

#endif  // PKGSIM_PLUGIN_H_
