// PluginDataUtil: the one place where the plug-in asks about an installed package. It reads the
// package-information service (root path, metadata, version), cuts the plug-in name out of the package
// id, reads web-runtime extension description files, and builds the records that a package brings.
//
// Nothing here changes the device. Failures come back as false (99 for the kind) with one log line
// where the operation says so; platform handles are released inside the call that opened them.
#ifndef WEBAPI_UPGRADE_PLUGIN_DATA_UTIL_H_
#define WEBAPI_UPGRADE_PLUGIN_DATA_UTIL_H_

#include <set>
#include <string>

#include "PluginCommon.h"

namespace Json {
class Value;
}

class PluginDataUtil {
 public:
  // Loads the extensions built into the image from strXWALK_EXTENSION_DIR; a missing directory leaves
  // the built-in map empty.
  PluginDataUtil();
  ~PluginDataUtil();

  // Package metadata queries. `id` is the id the package manager handed over; application queries look
  // it up as an application id, the version query as a package id.
  PLUGIN_TYPE GetPluginType(const std::string& id);
  bool GetPluginNameByID(std::string& id, std::string& name);
  bool CheckTPKofAppWhiteList(const std::string& id, std::string& list);
  bool CheckTPKForceMetadata(const std::string& id);
  bool GetTPKVersionByID(const std::string& id, std::string& version);
  // Adds to `pkgids` the package of every installed application that carries metadata `key` (any
  // value), as the package-information service lists them for this process. Hardened build only: the
  // default build lists nothing and returns false.
  bool GetPackagesWithMetadata(const std::string& key, std::set<std::string>& pkgids);

  // Reads every "*.json" description file of `directory` (which ends in "/") into `map`, first
  // description of a name winning. True when the directory could be listed.
  bool GetXwalkInfo(const std::string& directory, PluginDataMap& map);

  // The records that package `id` brings, with install location and paths; `out` untouched on false.
  bool MakeInsertedMap(const std::string& id, const std::string& pluginName, PLUGIN_TYPE& kind,
                       PluginDataMap& out);

  const PluginDataMap& BuiltInExtensions() const { return m_builtInExtensions; }

  // Steps of the operations above, public so that each can be driven on its own.
  bool m_GetRootPath(const std::string& id, std::string& root);
  bool m_CheckTPKByMetadata(const std::string& id, const std::string& key, std::string& value);
  bool m_ParseXwalkJsonFile(const std::string& path, PluginDataMap& map);
  std::string m_GetEntryPoints(Json::Value& array);

 private:
  PluginDataMap m_builtInExtensions;
};

#endif  // WEBAPI_UPGRADE_PLUGIN_DATA_UTIL_H_
