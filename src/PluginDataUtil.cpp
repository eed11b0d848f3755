#include "PluginDataUtil.h"

#include <dirent.h>
#include <json/json.h>

#include <fstream>
#include <memory>

namespace {

struct DirCloser {
  void operator()(DIR* dir) const { closedir(dir); }
};
using DirHandle = std::unique_ptr<DIR, DirCloser>;

const std::string kDescriptionSuffix = ".json";

bool IsDescriptionFileName(const std::string& name) {
  if (name == "." || name == "..") return false;
  if (name.size() <= kDescriptionSuffix.size()) return false;
  return name.compare(name.size() - kDescriptionSuffix.size(), kDescriptionSuffix.size(),
                      kDescriptionSuffix) == 0;
}

// A description element must be an object (or null, which describes an extension with every field
// absent) whose fields convert to text; anything else would make JsonCpp throw out of the plug-in.
bool IsStringLike(const Json::Value& value) { return value.isConvertibleTo(Json::stringValue); }

bool IsExtensionDescription(const Json::Value& element) {
  if (element.isNull()) return true;
  if (!element.isObject()) return false;
  if (!IsStringLike(element["name"]) || !IsStringLike(element["lib"]) || !IsStringLike(element["version"])) {
    return false;
  }
  // Entry points are read by index: an object with members cannot be, and a plain value has none.
  const Json::Value& entryPoints = element["entry_points"];
  if (entryPoints.isObject()) return entryPoints.empty();
  if (!entryPoints.isArray()) return true;
  for (const Json::Value& entryPoint : entryPoints) {
    if (!IsStringLike(entryPoint)) return false;
  }
  return true;
}

}  // namespace

PluginDataUtil::PluginDataUtil() {
  m_builtInExtensions.clear();
  GetXwalkInfo(strXWALK_EXTENSION_DIR, m_builtInExtensions);  // no directory: no built-in extensions
}

PluginDataUtil::~PluginDataUtil() = default;

bool PluginDataUtil::GetXwalkInfo(const std::string& directory, PluginDataMap& map) {
  PLUGIN_LOG("GetXwalkInfo,path = %s", directory.c_str());
  if (directory.empty()) {
    PLUGIN_LOG("path is empty!");
    return false;
  }
  DirHandle dir(opendir(directory.c_str()));
  if (!dir) {
    PLUGIN_LOG("open [%s] fail!", directory.c_str());
    return false;
  }
  while (const dirent* entry = readdir(dir.get())) {
    const std::string name = entry->d_name;
    if (!IsDescriptionFileName(name)) continue;
    const std::string file = directory + name;
    PLUGIN_LOG("strFile = %s", file.c_str());
    m_ParseXwalkJsonFile(file, map);  // a bad file never stops the walk
  }
  return true;
}

bool PluginDataUtil::m_ParseXwalkJsonFile(const std::string& path, PluginDataMap& map) {
  PLUGIN_LOG("m_ParseXwalkJsonFile, path = %s", path.c_str());
  if (path.empty()) {
    PLUGIN_LOG("strPath is empty!");
    return false;
  }
  std::ifstream file(path, std::ios::binary);
  if (!file.is_open()) {
    PLUGIN_LOG("open %s fail", path.c_str());
    return false;
  }
  Json::CharReaderBuilder builder;
  Json::Value root;
  std::string errors;
  if (!Json::parseFromStream(builder, file, &root, &errors)) {
    PLUGIN_LOG("file:[%s],err:[%s]", path.c_str(), errors.c_str());
    return false;
  }
  file.close();

  const Json::ArrayIndex count = root.size();
  if (count < 1) return true;
  if (!root.isArray()) {
    PLUGIN_LOG("file:[%s] holds no array of extensions, skipped", path.c_str());
    return true;
  }
  for (Json::ArrayIndex i = 0; i < count; ++i) {
    const Json::Value& element = root[i];
    if (!IsExtensionDescription(element)) {
      PLUGIN_LOG("file:[%s] element %u is not an extension description, skipped", path.c_str(), i);
      continue;
    }
    _PluginData record;
    record.name = element["name"].asString();
    record.path = element["lib"].asString();
    record.version = element["version"].asString();
    Json::Value entryPoints = element["entry_points"];
    record.entryPoints = m_GetEntryPoints(entryPoints);
    if (record.version.empty()) record.version = strDEFAULT_VERSION;
    record.pkgid = strXWALK_PKG_PREFIX + record.name;
    record.pluginType = XWALK_PLUGIN;
    map.insert(std::make_pair(record.name, record));
  }
  return true;
}

std::string PluginDataUtil::m_GetEntryPoints(Json::Value& array) {
  std::string joined;
  for (Json::ArrayIndex i = 0; i < array.size(); ++i) {
    joined += array[i].asString();
    joined += ",";
  }
  if (!joined.empty()) joined.pop_back();
  return joined;
}
