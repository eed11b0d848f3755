#include "package.h"

#include <filesystem>
#include <stdexcept>

#include "options.h"

namespace fs = std::filesystem;

namespace pkgsim {

Package ReadPackage(const std::string& dir) {
  Package package;
  package.dir = Absolute(dir);
  if (!fs::is_directory(package.dir)) throw std::runtime_error(dir + " is not a package directory");
  package.manifestPath = package.dir + "/tizen-manifest.xml";
  if (!fs::is_regular_file(package.manifestPath)) throw std::runtime_error("no tizen-manifest.xml in " + dir);
  package.manifest = ReadManifestOrFail(package.manifestPath, "malformed manifest");
  if (!IsSafePackageId(package.Id())) {
    throw std::runtime_error(package.manifestPath + ": unusable package id [" + package.Id() + "]");
  }
  return package;
}

hostkit::Manifest ReadManifestOrFail(const std::string& path, const std::string& what) {
  hostkit::Manifest manifest;
  std::string reason;
  if (!hostkit::ReadManifest(path, manifest, reason)) throw std::runtime_error(what + ": " + reason);
  return manifest;
}

std::string NotPreloadable(const std::string& pkgid) {
  return pkgid + " is already on the device; only a package that is not there can be preloaded";
}

std::string VersionOnDevice(const Device& device, const std::string& pkgid, bool readOnly) {
  hostkit::Manifest manifest;
  std::string reason;
  if (!hostkit::ReadManifest(device.Manifest(pkgid, readOnly), manifest, reason))
    return "(unreadable manifest)";
  return manifest.version;
}

}  // namespace pkgsim
