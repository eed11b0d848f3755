#include "traps.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <set>

#include "plugin.h"

namespace pkgsim {
namespace {

bool SameIgnoringCase(const std::string& a, const std::string& b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
         });
}

void VersionTraps(const std::string& version, std::vector<std::string>& traps) {
  if (version.empty()) traps.push_back("the package has no version: the plug-in never stores it");
  if (version == "0.0.0") {
    traps.push_back(
        "version 0.0.0 is what the plug-in assumes for an unknown version: a plug-in it has no "
        "record of is not stored");
  }
}

void KeyTraps(const Package& package, std::vector<std::string>& traps) {
  const std::string known[] = {kTypeKey, kAllowListKey, kForceKey};
  for (const hostkit::ManifestApp& app : package.manifest.apps) {
    for (const auto& [key, value] : ItemsOfNamespace(app)) {
      if (std::find(std::begin(known), std::end(known), key) == std::end(known)) {
        const auto near = std::find_if(std::begin(known), std::end(known),
                                       [&](const std::string& k) { return SameIgnoringCase(k, key); });
        traps.push_back(near == std::end(known)
                            ? "unknown key " + key + " in the plug-in's namespace"
                            : key + " differs from " + *near + " in case: the plug-in matches keys exactly");
      }
      if (key == kTypeKey && app.appid != package.Id()) {
        traps.push_back("application " + app.appid + " carries " + key +
                        ", but the plug-in reads the application whose id is the package id");
      }
    }
  }
}

std::set<std::string> ApplicationsOn(const Device& device) {
  std::set<std::string> ids;
  for (const auto& [pkgid, state] : device.Packages()) {
    for (bool readOnly : {false, true}) {
      hostkit::Manifest manifest;
      std::string reason;
      if (!hostkit::ReadManifest(device.Manifest(pkgid, readOnly), manifest, reason)) continue;
      for (const hostkit::ManifestApp& app : manifest.apps) ids.insert(app.appid);
    }
  }
  return ids;
}

// The allow-list as the package-information service gives it to the plug-in: from the application whose
// id is the package id, the key matched ignoring case.
std::string AllowList(const Package& package) {
  for (const hostkit::ManifestApp& app : package.manifest.apps) {
    if (app.appid != package.Id()) continue;
    for (const auto& [key, value] : app.metadata) {
      if (SameIgnoringCase(key, kAllowListKey)) return value;
    }
  }
  return "";
}

void AllowListTraps(const Package& package, const Device& device, std::vector<std::string>& traps) {
  std::string list = AllowList(package);
  list.erase(std::remove(list.begin(), list.end(), ' '), list.end());
  if (list.empty()) return;
  const std::set<std::string> applications = ApplicationsOn(device);
  bool emptyId = false;
  for (std::size_t from = 0; from < list.size();) {
    const std::size_t comma = std::min(list.find(',', from), list.size());
    const std::string id = list.substr(from, comma - from);
    emptyId = emptyId || id.empty();
    if (!id.empty() && applications.count(id) == 0) {
      traps.push_back("allow-listed " + id + " is no application on the device");
    }
    from = comma + 1;
  }
  if (emptyId) {
    traps.push_back("the allow-list \"" + AllowList(package) +
                    "\" holds an empty id (a stray comma): every rewrite terminates \"\"");
  }
}

void FileTraps(const Package& package, const Device& device, const Snapshot& installed,
               std::vector<std::string>& traps) {
  const PackageState state = device.StateOf(package.Id());
  const std::string root = device.AppRoot(package.Id(), !state.rw) + "/";
  for (const auto& [name, row] : installed.RowsOf(package.Id())) {
    if (std::filesystem::exists(row[kPath])) continue;
    const std::string& path = row[kPath];
    const std::string shown = path.compare(0, root.size(), root) == 0 ? path.substr(root.size()) : path;
    traps.push_back("record " + name + " points at " + shown + ", which the package does not have");
  }
}

}  // namespace

std::vector<std::string> PackageTraps(const Package& package, const Device& device,
                                      const Snapshot& installed) {
  std::vector<std::string> traps;
  VersionTraps(package.manifest.version, traps);
  const std::string& pkgid = package.Id();
  if (pkgid.find("pepper.") == std::string::npos && pkgid.find("xwalk.") == std::string::npos) {
    traps.push_back(
        "the package id has neither \"pepper.\" nor \"xwalk.\" in it: the plug-in can neither "
        "store nor remove it");
  }
  KeyTraps(package, traps);
  AllowListTraps(package, device, traps);
  FileTraps(package, device, installed, traps);
  return traps;
}

}  // namespace pkgsim
