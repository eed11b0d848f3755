// A package as the user names it on the command line: a directory with a tizen-manifest.xml and the
// package's files. It is read and checked before the device is touched.
#ifndef PKGSIM_PACKAGE_H_
#define PKGSIM_PACKAGE_H_

#include <string>

#include "device.h"
#include "hostkit/manifest.h"

namespace pkgsim {

struct Package {
  std::string dir;  // absolute
  std::string manifestPath;
  hostkit::Manifest manifest;

  const std::string& Id() const { return manifest.package; }
};

// Throws std::runtime_error with one line for the user when `dir` is no usable package.
Package ReadPackage(const std::string& dir);

// Throws std::runtime_error with `what` and the reader's reason when the manifest cannot be read.
hostkit::Manifest ReadManifestOrFail(const std::string& path, const std::string& what);

// Why a package that is on the device, or twice in one request, cannot be preloaded.
std::string NotPreloadable(const std::string& pkgid);

// The version of the package on the device, in the writable area or the read-only image.
std::string VersionOnDevice(const Device& device, const std::string& pkgid, bool readOnly);

}  // namespace pkgsim

#endif  // PKGSIM_PACKAGE_H_
