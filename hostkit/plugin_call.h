// The package manager's side of the metadata-parser interface: the plug-in loaded with dlopen, its three
// entry points, and one call with a metadata list built the way the package manager builds it (a GList
// of items it owns, alive for the duration of the call only).
#ifndef WUP_HOSTKIT_PLUGIN_CALL_H_
#define WUP_HOSTKIT_PLUGIN_CALL_H_

#include <dlfcn.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "plugin_parser_interface.h"

namespace hostkit {

enum class Operation { kInstall, kUpgrade, kUninstall };
inline constexpr Operation kOperations[] = {Operation::kInstall, Operation::kUpgrade, Operation::kUninstall};

const char* EntryPointName(Operation operation);  // "PKGMGR_MDPARSER_PLUGIN_INSTALL" ...
// "install", "upgrade" or "uninstall"; nullopt for any other word.
std::optional<Operation> OperationNamed(const std::string& word);

using EntryPoint = decltype(&PKGMGR_MDPARSER_PLUGIN_INSTALL);

// A node of the metadata list: an item (its key and value may each be null) or, when empty, a node
// whose data is null.
using MetadataNode = std::optional<__metadata_t>;
using MetadataNodes = std::vector<MetadataNode>;
// Items as a manifest gives them: every node has an item, every item a key and a value.
using MetadataItems = std::vector<std::pair<std::string, std::string>>;
MetadataNodes NodesOf(const MetadataItems& items);  // pointing into `items`

// Calls `entry` once with a list of `nodes`; the list is freed after the call, also on an exception.
int CallEntryPoint(EntryPoint entry, const char* pkgid, const char* appid, const MetadataNodes& nodes);

// The entry points of a loaded library; throws std::runtime_error when one is missing.
class EntryPoints {
 public:
  EntryPoints(void* library, const std::string& path);
  EntryPoint operator[](Operation operation) const { return entries_[static_cast<int>(operation)]; }

 private:
  EntryPoint entries_[3] = {};
};

// The plug-in as the package manager holds it during one installation step: loaded when the step starts
// (RTLD_LAZY | RTLD_LOCAL: it resolves the platform calls from the platform libraries, nothing resolves
// against it) and unloaded when it ends. Throws std::runtime_error with dlerror's text when the library
// cannot be loaded.
// Which build of the plug-in a loaded library is ("default", "hardened"): its exported WUP_POLICY_NAME, or
// "" for a library that does not say (or none).
std::string PolicyName(void* library);

class PluginLibrary {
 public:
  explicit PluginLibrary(const std::string& path, int flags = RTLD_LAZY | RTLD_LOCAL);

  int Call(Operation operation, const char* pkgid, const char* appid, const MetadataNodes& nodes) const {
    return CallEntryPoint(entries_[operation], pkgid, appid, nodes);
  }
  int Call(Operation operation, const std::string& pkgid, const std::string& appid,
           const MetadataItems& items) const {
    return Call(operation, pkgid.c_str(), appid.c_str(), NodesOf(items));
  }

  std::string PolicyName() const { return hostkit::PolicyName(library_.get()); }

 private:
  struct Closer {
    void operator()(void* library) const { dlclose(library); }
  };
  static void* Load(const std::string& path, int flags);

  std::unique_ptr<void, Closer> library_;
  EntryPoints entries_;
};

}  // namespace hostkit

#endif  // WUP_HOSTKIT_PLUGIN_CALL_H_
