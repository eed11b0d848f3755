// Host stand-in for the package-information service, answered from Tizen manifests on the sandbox device.
//
// Environment, read at every call (so a test may change it between calls):
//   TZ_SYS_RW_PACKAGES  manifests of installed or updated packages   (default /opt/share/packages)
//   TZ_SYS_RO_PACKAGES  manifests of preloaded packages              (default /usr/share/packages)
//   TZ_SYS_RW_APP       root of installed packages' directories      (default /opt/usr/apps)
//   TZ_SYS_RO_APP       root of preloaded packages' directories      (default /usr/apps)
//   HOST_PKGMGRINFO_UID  the calling process's user (default: its real uid). From 5000 on (regular users)
//                        the user's own packages are seen too: manifests in TZ_USER_PACKAGES, directories
//                        in TZ_USER_APP; below (root: the installer, and the plug-in it runs) they are not.
//   HOST_PKGMGRINFO_FAIL  comma-separated pkgmgrinfo function names (blanks around them ignored); those
//                         calls answer -1 (error) before looking at their arguments. A forced failure of
//                         a destroy call still releases the handle, so that provoking it never leaks.
// An empty variable counts as unset.
//
// Package P is described by $TZ_SYS_RW_PACKAGES/P.xml, or, when there is none, by $TZ_SYS_RO_PACKAGES/P.xml
// (an update shadows the preloaded manifest, even when the update's manifest is broken). Its version is the
// manifest's version attribute. An application is looked up by appid in every manifest: writable ones
// first, then the read-only ones not shadowed, each directory in name order; its root path is
// $TZ_SYS_RW_APP/P or $TZ_SYS_RO_APP/P by where the manifest lies. Metadata keys match ignoring case; the
// first match in manifest order answers.
//
// Results: 0 success, -1 error (forced, or the manifest needed could not be read), -2 invalid argument
// (null pointers, a handle that is not open, a metadata key the application lacks), -3 not found.
// Handles are heap records; strings handed out point into them and live until the handle is destroyed.
// The manifests are read once per process and kept current as they change (manifest_index.h).
#include <pkgmgr-info-host.h>
#include <pkgmgr-info.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "hostkit/fail_list.h"
#include "hostkit/layout.h"
#include "manifest_index.h"

namespace {

struct AppInfo {
  std::string appid;
  std::string rootPath;
  std::vector<std::pair<std::string, std::string>> metadata;
  std::string pkgid;  // filled by pkgmgrinfo_appinfo_get_pkgid
};

struct PkgInfo {
  std::string version;
};

// Every handle handed out stays in one of these sets until it is destroyed, so that a handle destroyed
// twice, or one of the wrong kind, is caught instead of freed again.
struct Bookkeeping {
  std::mutex mutex;
  std::set<void*> appinfos;
  std::set<void*> pkginfos;
  std::set<void*> filters;
  std::map<std::string, int> calls;
  int badDestroys = 0;
};

Bookkeeping& Books() {
  static Bookkeeping books;
  return books;
}

// Counts the call; true when the test asked for it to fail.
bool Enter(const char* function) {
  {
    std::lock_guard<std::mutex> lock(Books().mutex);
    ++Books().calls[function];
  }
  return hostkit::Listed("HOST_PKGMGRINFO_FAIL", function);
}

void* Register(std::set<void*> Bookkeeping::*kind, void* handle) {
  std::lock_guard<std::mutex> lock(Books().mutex);
  (Books().*kind).insert(handle);
  return handle;
}

bool IsOpen(std::set<void*> Bookkeeping::*kind, void* handle) {
  std::lock_guard<std::mutex> lock(Books().mutex);
  return (Books().*kind).count(handle) != 0;
}

// Removes the handle from the open set; false (and counted) when it was not open.
bool Unregister(std::set<void*> Bookkeeping::*kind, void* handle) {
  std::lock_guard<std::mutex> lock(Books().mutex);
  if ((Books().*kind).erase(handle) != 0) return true;
  ++Books().badDestroys;
  return false;
}

// A destroy that is forced to fail still frees the record, so tests that provoke it leak nothing.
template <class Record>
int Destroy(const char* function, std::set<void*> Bookkeeping::*kind, void* handle) {
  const bool forced = Enter(function);
  if (!Unregister(kind, handle)) return forced ? PMINFO_R_ERROR : PMINFO_R_EINVAL;
  delete static_cast<Record*>(handle);
  return forced ? PMINFO_R_ERROR : PMINFO_R_OK;
}

std::string EnvDir(const char* name, const char* device_default) {
  const char* value = std::getenv(name);
  return (value != nullptr && *value != '\0') ? value : device_default;
}

struct Area {
  std::string packages;  // where the manifests lie
  std::string apps;      // where the packages' directories lie
};

Area Writable() {
  return {EnvDir("TZ_SYS_RW_PACKAGES", "/opt/share/packages"), EnvDir("TZ_SYS_RW_APP", "/opt/usr/apps")};
}

Area ReadOnly() {
  return {EnvDir("TZ_SYS_RO_PACKAGES", "/usr/share/packages"), EnvDir("TZ_SYS_RO_APP", "/usr/apps")};
}

// The packages installed for the calling process's user alone, when it is a regular user that has any.
std::optional<Area> ForUser() {
  const char* uid = std::getenv("HOST_PKGMGRINFO_UID");
  const unsigned long caller = uid != nullptr && *uid != '\0' ? std::strtoul(uid, nullptr, 10) : getuid();
  const Area user = {EnvDir("TZ_USER_PACKAGES", ""), EnvDir("TZ_USER_APP", "")};
  if (caller < hostkit::kFirstRegularUid || user.packages.empty()) return std::nullopt;
  return user;
}

std::string ManifestPath(const Area& area, const std::string& package) {
  return area.packages + "/" + package + ".xml";
}

// Look-ups hold this while they use the index.
std::mutex& IndexMutex() {
  static std::mutex mutex;
  return mutex;
}

host::ManifestDirectory& ManifestsOf(const Area& area) { return host::ManifestIndex::Instance().Current(area.packages); }

// The manifest of `package` in one area. A listed name that is no regular file counts only when it leads
// to something, as a path that exists.
host::ManifestEntry* FindManifest(const Area& area, const std::string& package) {
  host::ManifestDirectory& manifests = ManifestsOf(area);
  const auto found = manifests.find(package);
  if (found == manifests.end()) return nullptr;
  struct stat status;
  if (!found->second.regular() && stat(ManifestPath(area, package).c_str(), &status) != 0) return nullptr;
  return &found->second;
}

enum class Search { kFound, kNotFound, kBroken };

// Looks for `appid` in the manifests of one area; packages that `shadowed` lists are not looked at.
// Only manifests that may declare the id are parsed; every one is when the id is declared nowhere, since an
// application not found next to a broken manifest may well be in it.
Search FindApp(const Area& area, const host::ManifestDirectory* shadowed, const std::string& appid, AppInfo& found) {
  host::ManifestDirectory& manifests = ManifestsOf(area);
  auto visible = [shadowed](const std::string& package) {
    return shadowed == nullptr || shadowed->count(package) == 0;
  };
  for (auto& [package, entry] : manifests) {
    if (!visible(package) || !entry.MayDeclare(appid)) continue;
    const hostkit::Manifest* manifest = entry.Parsed();
    if (manifest == nullptr) continue;
    for (const hostkit::ManifestApp& app : manifest->apps) {
      if (app.appid != appid) continue;
      found.appid = app.appid;
      found.rootPath = area.apps + "/" + package;
      found.metadata = app.metadata;
      return Search::kFound;
    }
  }
  for (auto& [package, entry] : manifests) {
    if (visible(package) && entry.Parsed() == nullptr) return Search::kBroken;
  }
  return Search::kNotFound;
}

// A package id names a file; one that could reach outside the manifest directory names no package.
bool IsPackageName(const std::string& package) {
  return !package.empty() && package.find('/') == std::string::npos && package != "." && package != "..";
}

int ToResult(Search search) {
  switch (search) {
    case Search::kFound:
      return PMINFO_R_OK;
    case Search::kBroken:
      return PMINFO_R_ERROR;
    case Search::kNotFound:
      break;
  }
  return PMINFO_R_ENOENT;
}

}  // namespace

extern "C" {

int pkgmgrinfo_appinfo_get_appinfo(const char* appid, pkgmgrinfo_appinfo_h* handle) {
  if (Enter(__func__)) return PMINFO_R_ERROR;
  if (appid == nullptr || handle == nullptr) return PMINFO_R_EINVAL;
  auto app = std::make_unique<AppInfo>();
  const Area writable = Writable();
  const std::optional<Area> user = ForUser();
  const std::lock_guard<std::mutex> lock(IndexMutex());
  const Search own = user ? FindApp(*user, nullptr, appid, *app) : Search::kNotFound;
  Search search = own == Search::kFound ? own : FindApp(writable, nullptr, appid, *app);
  if (search != Search::kFound) {
    // An application not found next to a broken manifest may well be in it: that is an error, not absence.
    const Search preloaded = FindApp(ReadOnly(), &ManifestsOf(writable), appid, *app);
    if (preloaded != Search::kNotFound) search = preloaded;
  }
  if (search == Search::kNotFound) search = own;
  if (search != Search::kFound) return ToResult(search);
  *handle = Register(&Bookkeeping::appinfos, app.release());
  return PMINFO_R_OK;
}

int pkgmgrinfo_appinfo_get_root_path(pkgmgrinfo_appinfo_h handle, char** path) {
  if (Enter(__func__)) return PMINFO_R_ERROR;
  if (path == nullptr || !IsOpen(&Bookkeeping::appinfos, handle)) return PMINFO_R_EINVAL;
  *path = static_cast<AppInfo*>(handle)->rootPath.data();
  return PMINFO_R_OK;
}

int pkgmgrinfo_appinfo_get_metadata_value(pkgmgrinfo_appinfo_h handle, const char* metadata_key,
                                          char** metadata_value) {
  if (Enter(__func__)) return PMINFO_R_ERROR;
  if (metadata_key == nullptr || metadata_value == nullptr || !IsOpen(&Bookkeeping::appinfos, handle)) {
    return PMINFO_R_EINVAL;
  }
  for (auto& [key, value] : static_cast<AppInfo*>(handle)->metadata) {
    if (strcasecmp(key.c_str(), metadata_key) != 0) continue;
    *metadata_value = value.data();
    return PMINFO_R_OK;
  }
  return PMINFO_R_EINVAL;
}

int pkgmgrinfo_appinfo_destroy_appinfo(pkgmgrinfo_appinfo_h handle) {
  return Destroy<AppInfo>(__func__, &Bookkeeping::appinfos, handle);
}

int pkgmgrinfo_pkginfo_get_pkginfo(const char* pkgid, pkgmgrinfo_pkginfo_h* handle) {
  if (Enter(__func__)) return PMINFO_R_ERROR;
  if (pkgid == nullptr || handle == nullptr) return PMINFO_R_EINVAL;
  if (!IsPackageName(pkgid)) return PMINFO_R_ENOENT;
  const std::lock_guard<std::mutex> lock(IndexMutex());
  const std::optional<Area> user = ForUser();
  host::ManifestEntry* entry = user ? FindManifest(*user, pkgid) : nullptr;
  if (entry == nullptr) entry = FindManifest(Writable(), pkgid);
  if (entry == nullptr) entry = FindManifest(ReadOnly(), pkgid);
  if (entry == nullptr) return PMINFO_R_ENOENT;
  const hostkit::Manifest* manifest = entry->Parsed();
  if (manifest == nullptr) return PMINFO_R_ERROR;
  auto package = std::make_unique<PkgInfo>();
  package->version = manifest->version;
  *handle = Register(&Bookkeeping::pkginfos, package.release());
  return PMINFO_R_OK;
}

int pkgmgrinfo_pkginfo_get_version(pkgmgrinfo_pkginfo_h handle, char** version) {
  if (Enter(__func__)) return PMINFO_R_ERROR;
  if (version == nullptr || !IsOpen(&Bookkeeping::pkginfos, handle)) return PMINFO_R_EINVAL;
  *version = static_cast<PkgInfo*>(handle)->version.data();
  return PMINFO_R_OK;
}

int pkgmgrinfo_pkginfo_destroy_pkginfo(pkgmgrinfo_pkginfo_h handle) {
  return Destroy<PkgInfo>(__func__, &Bookkeeping::pkginfos, handle);
}

int host_pkgmgrinfo_open_appinfo_handles(void) {
  std::lock_guard<std::mutex> lock(Books().mutex);
  return static_cast<int>(Books().appinfos.size());
}

int host_pkgmgrinfo_open_pkginfo_handles(void) {
  std::lock_guard<std::mutex> lock(Books().mutex);
  return static_cast<int>(Books().pkginfos.size());
}

int host_pkgmgrinfo_open_handles(void) {
  return host_pkgmgrinfo_open_appinfo_handles() + host_pkgmgrinfo_open_pkginfo_handles() +
         host_pkgmgrinfo_open_filter_handles();
}

int host_pkgmgrinfo_bad_destroys(void) {
  std::lock_guard<std::mutex> lock(Books().mutex);
  return Books().badDestroys;
}

int host_pkgmgrinfo_calls(const char* function_name) {
  if (function_name == nullptr) return 0;
  std::lock_guard<std::mutex> lock(Books().mutex);
  const auto found = Books().calls.find(function_name);
  return found != Books().calls.end() ? found->second : 0;
}

void host_pkgmgrinfo_reset_counters(void) {
  std::lock_guard<std::mutex> lock(Books().mutex);
  Books().calls.clear();
  Books().badDestroys = 0;
}

}  // extern "C"

// ---------------------------------------------------------------------------------------------------
// Metadata filters. The walk finds the applications whose manifests carry a filter's key (and value, when
// the filter names one), then looks each one up through pkgmgrinfo_appinfo_get_appinfo, so that it sees
// exactly the applications that call would show this process (and counts as such calls); the handle
// handed to the callback is destroyed when the callback returns.

namespace {

struct MetadataFilter {
  std::vector<std::pair<std::string, const std::string*>> items;  // key, value (null: any value)
  std::vector<std::unique_ptr<std::string>> values;
};

bool Matches(const MetadataFilter& filter, const std::vector<std::pair<std::string, std::string>>& metadata) {
  for (const auto& [key, value] : metadata) {
    for (const auto& [wantedKey, wantedValue] : filter.items) {
      if (key == wantedKey && (wantedValue == nullptr || value == *wantedValue)) return true;
    }
  }
  return false;
}

// Application ids declared with matching metadata in the manifests of every area the caller may see,
// without repeats.
std::vector<std::string> CandidateApps(const MetadataFilter& filter) {
  std::vector<std::string> appids;
  std::set<std::string> seen;
  const std::lock_guard<std::mutex> lock(IndexMutex());
  std::vector<Area> areas = {Writable(), ReadOnly()};
  if (const std::optional<Area> user = ForUser()) areas.push_back(*user);  // a regular user's own packages
  for (const Area& area : areas) {
    for (auto& [package, entry] : ManifestsOf(area)) {
      const host::Manifest* manifest = entry.Parsed();
      if (manifest == nullptr) continue;
      for (const host::ManifestApp& app : manifest->apps) {
        if (Matches(filter, app.metadata) && seen.insert(app.appid).second) appids.push_back(app.appid);
      }
    }
  }
  return appids;
}

}  // namespace

extern "C" {

int pkgmgrinfo_appinfo_metadata_filter_create(pkgmgrinfo_appinfo_metadata_filter_h* handle) {
  if (Enter(__func__)) return PMINFO_R_ERROR;
  if (handle == nullptr) return PMINFO_R_EINVAL;
  *handle = Register(&Bookkeeping::filters, new MetadataFilter());
  return PMINFO_R_OK;
}

int pkgmgrinfo_appinfo_metadata_filter_add(pkgmgrinfo_appinfo_metadata_filter_h handle, const char* key,
                                           const char* value) {
  if (Enter(__func__)) return PMINFO_R_ERROR;
  if (key == nullptr || !IsOpen(&Bookkeeping::filters, handle)) return PMINFO_R_EINVAL;
  auto& filter = *static_cast<MetadataFilter*>(handle);
  const std::string* wanted = nullptr;
  if (value != nullptr) wanted = filter.values.emplace_back(std::make_unique<std::string>(value)).get();
  filter.items.emplace_back(key, wanted);
  return PMINFO_R_OK;
}

int pkgmgrinfo_appinfo_metadata_filter_foreach(pkgmgrinfo_appinfo_metadata_filter_h handle,
                                               pkgmgrinfo_app_list_cb app_cb, void* user_data) {
  if (Enter(__func__)) return PMINFO_R_ERROR;
  if (app_cb == nullptr || !IsOpen(&Bookkeeping::filters, handle)) return PMINFO_R_EINVAL;
  const auto& filter = *static_cast<MetadataFilter*>(handle);
  for (const std::string& appid : CandidateApps(filter)) {
    pkgmgrinfo_appinfo_h app = nullptr;
    if (pkgmgrinfo_appinfo_get_appinfo(appid.c_str(), &app) != PMINFO_R_OK) continue;
    // The id may resolve to another manifest (an update shadowing the preloaded one) without the metadata.
    const bool matches = Matches(filter, static_cast<AppInfo*>(app)->metadata);
    const int stop = matches ? app_cb(app, user_data) : 0;
    pkgmgrinfo_appinfo_destroy_appinfo(app);
    if (stop < 0) break;
  }
  return PMINFO_R_OK;
}

int pkgmgrinfo_appinfo_metadata_filter_destroy(pkgmgrinfo_appinfo_metadata_filter_h handle) {
  return Destroy<MetadataFilter>(__func__, &Bookkeeping::filters, handle);
}

int pkgmgrinfo_appinfo_get_pkgid(pkgmgrinfo_appinfo_h handle, char** pkgid) {
  if (Enter(__func__)) return PMINFO_R_ERROR;
  if (pkgid == nullptr || !IsOpen(&Bookkeeping::appinfos, handle)) return PMINFO_R_EINVAL;
  auto& app = *static_cast<AppInfo*>(handle);
  // An application's root path is its package's directory, named by the package id.
  app.pkgid = app.rootPath.substr(app.rootPath.rfind('/') + 1);
  *pkgid = app.pkgid.data();
  return PMINFO_R_OK;
}

int host_pkgmgrinfo_open_filter_handles(void) {
  std::lock_guard<std::mutex> lock(Books().mutex);
  return static_cast<int>(Books().filters.size());
}

}  // extern "C"
