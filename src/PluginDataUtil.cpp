#include "PluginDataUtil.h"

#include <dirent.h>
#include <json/json.h>
#include <pkgmgr-info.h>
#include <unistd.h>

#include <exception>
#include <memory>
#include <sstream>
#include <type_traits>

#include "PluginPolicy.h"

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

// JsonCpp refuses some documents by throwing (nesting deeper than its limit, for one) rather than by
// reporting an error; either way the file does not parse, and the exception's text is its error.
bool ParseDescription(int fd, Json::Value& root, std::string& errors) {
  try {
    std::string text;
    PluginReadAll(fd, text);  // a read that fails part-way leaves a text that does not parse, as a rule
    std::istringstream in(text);
    Json::CharReaderBuilder builder;
    return Json::parseFromStream(builder, in, &root, &errors);
  } catch (const std::exception& error) {
    errors = error.what();
    return false;
  }
}

// Records of the package-information service are released the moment they go out of scope, on every path.
struct AppInfoDestroyer {
  void operator()(pkgmgrinfo_appinfo_h handle) const { pkgmgrinfo_appinfo_destroy_appinfo(handle); }
};
using AppInfoHandle = std::unique_ptr<std::remove_pointer_t<pkgmgrinfo_appinfo_h>, AppInfoDestroyer>;

struct PkgInfoDestroyer {
  void operator()(pkgmgrinfo_pkginfo_h handle) const { pkgmgrinfo_pkginfo_destroy_pkginfo(handle); }
};
using PkgInfoHandle = std::unique_ptr<std::remove_pointer_t<pkgmgrinfo_pkginfo_h>, PkgInfoDestroyer>;

struct MetadataFilterDestroyer {
  void operator()(pkgmgrinfo_appinfo_metadata_filter_h handle) const {
    pkgmgrinfo_appinfo_metadata_filter_destroy(handle);
  }
};
using MetadataFilterHandle =
    std::unique_ptr<std::remove_pointer_t<pkgmgrinfo_appinfo_metadata_filter_h>, MetadataFilterDestroyer>;

// The application handle of a walk belongs to the walk: only the package id is kept, copied. Inline, so
// that a build which never walks (the default one) does not carry it nor the platform call it makes.
inline int CollectPackageId(const pkgmgrinfo_appinfo_h app, void* pkgids) {
  char* pkgid = nullptr;
  if (pkgmgrinfo_appinfo_get_pkgid(app, &pkgid) == PMINFO_R_OK && pkgid != nullptr && *pkgid != '\0') {
    static_cast<std::set<std::string>*>(pkgids)->insert(pkgid);
  }
  return 0;
}

AppInfoHandle OpenAppInfo(const std::string& id) {
  pkgmgrinfo_appinfo_h handle = nullptr;
  if (pkgmgrinfo_appinfo_get_appinfo(id.c_str(), &handle) != PMINFO_R_OK) return AppInfoHandle();
  return AppInfoHandle(handle);
}

PkgInfoHandle OpenPkgInfo(const std::string& id) {
  pkgmgrinfo_pkginfo_h handle = nullptr;
  if (pkgmgrinfo_pkginfo_get_pkginfo(id.c_str(), &handle) != PMINFO_R_OK) return PkgInfoHandle();
  return PkgInfoHandle(handle);
}

// The service's strings belong to its handle; the copy must outlive it.
std::string CopyText(const char* text) { return text != nullptr ? text : ""; }

// The plug-in name follows one of these package-id fragments (the tails of the pepper and xwalk
// package-id prefixes), wherever in the id it stands.
const std::string kPepperFragment = "pepper.";
const std::string kXwalkFragment = "xwalk.";

// A package's plug-in files lie in its resource directory; a description names its library by the path
// it has in the image, of which only the file part counts.
std::string FilePart(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// Only a package that is in the read-only image as well has a system copy to fall back to.
std::string SystemPathFor(int location, const std::string& path) {
  return location == INSTALLED_ONLY_RW ? std::string() : path;
}

_PluginData MakePepperRecord(const std::string& pluginName, PLUGIN_TYPE kind, int location,
                             const std::string& resourceDir, const std::string& roResourceDir) {
  _PluginData record;
  record.name = pluginName;
  record.pluginType = kind;
  record.isUpdate = location;
  record.path = resourceDir;
  record.systemPath = SystemPathFor(location, roResourceDir);
  return record;
}

void RelocateExtension(_PluginData& record, int location, const std::string& resourceDir,
                       const std::string& roResourceDir) {
  const std::string file = FilePart(record.path);
  record.isUpdate = location;
  record.path = resourceDir + file;
  record.systemPath = SystemPathFor(location, roResourceDir + file);
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
  // A package may put anything under a description file's name: only a regular file is read.
  PluginFd file(PluginOpenRegularForReading(path.c_str()));
  if (!file) {
    PLUGIN_LOG("open %s fail", path.c_str());
    return false;
  }
  Json::Value root;
  std::string errors;
  if (!ParseDescription(file.get(), root, errors)) {
    PLUGIN_LOG("file:[%s],err:[%s]", path.c_str(), errors.c_str());
    return false;
  }
  file.Close();

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

bool PluginDataUtil::m_GetRootPath(const std::string& id, std::string& root) {
  AppInfoHandle app = OpenAppInfo(id);
  if (!app) return false;
  char* path = nullptr;
  if (pkgmgrinfo_appinfo_get_root_path(app.get(), &path) != PMINFO_R_OK) return false;
  root = CopyText(path);
  PLUGIN_LOG("[%s]'s root path:[%s]", id.c_str(), root.c_str());
  return true;
}

bool PluginDataUtil::m_CheckTPKByMetadata(const std::string& id, const std::string& key, std::string& value) {
  AppInfoHandle app = OpenAppInfo(id);
  if (!app) return false;
  char* text = nullptr;
  if (pkgmgrinfo_appinfo_get_metadata_value(app.get(), key.c_str(), &text) != PMINFO_R_OK) {
    PLUGIN_LOG("[%s] NO <%s> metadata", id.c_str(), key.c_str());
    return false;
  }
  value = CopyText(text);
  app.reset();
  PLUGIN_LOG("[%s]key:[%s]value:[%s]", id.c_str(), key.c_str(), value.c_str());
  return true;
}

PLUGIN_TYPE PluginDataUtil::GetPluginType(const std::string& id) {
  std::string value;
  if (!m_CheckTPKByMetadata(id, strMETADATA_TYPE_KEY, value)) {
    PLUGIN_LOG("get plugin type fail!");
    return UNKNOWN_PLUGIN;
  }
  PLUGIN_TYPE type = UNKNOWN_PLUGIN;
  if (value == strPEPPER_PLUGIN) {
    type = PEPPER_PLUGIN;
  } else if (value == strXWALK_PLUGIN) {
    type = XWALK_PLUGIN;
  } else if (value == strB2B_PEPPER_PLUGIN) {
    type = B2B_PEPPER_PLUGIN;
  }
  PLUGIN_LOG("[%s] type is [%d]", id.c_str(), type);
  return type;
}

bool PluginDataUtil::GetPluginNameByID(std::string& id, std::string& name) {
  if (id.empty()) {
    PLUGIN_LOG("empty id");
    return false;
  }
  const size_t pepper = id.find(kPepperFragment);
  const size_t xwalk = id.find(kXwalkFragment);
  if (pepper == std::string::npos && xwalk == std::string::npos) {
    PLUGIN_LOG("invalid pkgid:[%s]", id.c_str());
    return false;
  }
  std::string cut;
  if (pepper != std::string::npos) {
    cut = id.substr(pepper + kPepperFragment.size());  // wins over an "xwalk." in the same id
  } else {
    if (xwalk == std::string::npos) {  // cannot happen after the check above; kept against later edits
      PLUGIN_LOG("invalid pkgid[%s]", id.c_str());
      return false;
    }
    cut = id.substr(xwalk + kXwalkFragment.size());
  }
  name = cut;
  if (name.empty()) {
    PLUGIN_LOG("get plugin name fail");
    return false;
  }
  PLUGIN_LOG("pluginName[%s]", name.c_str());
  return true;
}

bool PluginDataUtil::CheckTPKofAppWhiteList(const std::string& id, std::string& list) {
  return m_CheckTPKByMetadata(id, strMETADATA_APPLIST_KEY, list);
}

bool PluginDataUtil::CheckTPKForceMetadata(const std::string& id) {
  std::string value;
  return m_CheckTPKByMetadata(id, strMETADATA_FORCE_KEY, value) && value == "true";
}

bool PluginDataUtil::GetTPKVersionByID(const std::string& id, std::string& version) {
  if (id.empty()) {
    PLUGIN_LOG("the param can't be empty!!");
    return false;
  }
  PkgInfoHandle package = OpenPkgInfo(id);
  if (!package) {
    PLUGIN_LOG("get [%s] info fail!!", id.c_str());
    return false;
  }
  char* text = nullptr;
  if (pkgmgrinfo_pkginfo_get_version(package.get(), &text) != PMINFO_R_OK) {
    PLUGIN_LOG("get [%s] version fail!!", id.c_str());
    return false;
  }
  version = CopyText(text);
  return true;
}

// Only the hardened build calls the metadata filter, so that the default one needs no platform call beyond
// those it always made.
bool PluginDataUtil::GetPackagesWithMetadata(const std::string& key, std::set<std::string>& pkgids) {
  if constexpr (kPluginPolicy.rebuildLostRecords) {
    pkgmgrinfo_appinfo_metadata_filter_h raw = nullptr;
    if (pkgmgrinfo_appinfo_metadata_filter_create(&raw) != PMINFO_R_OK) {
      PLUGIN_LOG("create metadata filter fail!!");
      return false;
    }
    const MetadataFilterHandle filter(raw);
    if (pkgmgrinfo_appinfo_metadata_filter_add(filter.get(), key.c_str(), nullptr) != PMINFO_R_OK ||
        pkgmgrinfo_appinfo_metadata_filter_foreach(filter.get(), CollectPackageId, &pkgids) != PMINFO_R_OK) {
      PLUGIN_LOG("list the applications with <%s> metadata fail!!", key.c_str());
      return false;
    }
    return true;
  } else {
    return false;
  }
}

bool PluginDataUtil::MakeInsertedMap(const std::string& id, const std::string& pluginName, PLUGIN_TYPE& kind,
                                     PluginDataMap& out) {
  std::string root;
  if (!m_GetRootPath(id, root) || root.empty()) return false;
  const std::string roResourceDir = strRO_APP_DIR + id + strSHARED_RES;

  // Where the package lives: an update in the writable area may shadow a copy in the read-only image.
  int location = INSTALLED_ONLY_RO;
  if (root.find(strRW_APP_DIR) != std::string::npos) {
    if (access(roResourceDir.c_str(), F_OK) != 0) {
      PLUGIN_LOG("INSTALLED_ONLY_RW!");
      location = INSTALLED_ONLY_RW;
    } else {
      PLUGIN_LOG("INSTALLED_BOTH_RO_RW!");
      location = INSTALLED_BOTH_RO_RW;
    }
  } else {
    PLUGIN_LOG("Can't find [%s] keywords in dest[%s]!", strRW_APP_DIR.c_str(), root.c_str());
    PLUGIN_LOG("INSTALLED_ONLY_RO!");
  }

  const std::string resourceDir = root + strSHARED_RES;
  switch (kind) {
    case PEPPER_PLUGIN:
    case B2B_PEPPER_PLUGIN:
      out.insert(std::make_pair(pluginName,
                                MakePepperRecord(pluginName, kind, location, resourceDir, roResourceDir)));
      return true;
    case XWALK_PLUGIN:
      if (!GetXwalkInfo(resourceDir, out)) {
        PLUGIN_LOG("get xwalk extension info fail, path = %s", resourceDir.c_str());
        return false;
      }
      for (auto& entry : out) RelocateExtension(entry.second, location, resourceDir, roResourceDir);
      return true;
    default:
      PLUGIN_LOG("unknown plugin type[%d]", kind);
      return false;
  }
}
