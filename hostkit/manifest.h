// Reader of Tizen package manifests (the tizen-manifest.xml format) for the host side of the project:
// the package-information stand-in answers its queries from them, and the package-manager stand-in
// learns from them which applications of a package carry which metadata.
//
// Only what those two need is read: the package id and version from the <manifest> root, and every
// application (a child of <manifest> whose element name ends in "-application") with its appid and its
// <metadata key=".." value=".."/> children. Everything else in the file is ignored.
#ifndef WUP_HOSTKIT_MANIFEST_H_
#define WUP_HOSTKIT_MANIFEST_H_

#include <string>
#include <utility>
#include <vector>

namespace hostkit {

struct ManifestApp {
  std::string appid;
  std::vector<std::pair<std::string, std::string>> metadata;  // key, value; in manifest order
};

struct Manifest {
  std::string package;
  std::string version;  // empty when the manifest gives none
  std::vector<ManifestApp> apps;
};

// Reads a tizen-manifest.xml; false with a one-line reason in `error` when the file is missing or malformed
// (not XML, root not <manifest>, no package attribute). `out` is written only on success.
// Applications without an appid cannot be named by anyone and are left out; a <metadata> element without
// a key is left out; a missing value reads as the empty string.
bool ReadManifest(const std::string& path, Manifest& out, std::string& error);

}  // namespace hostkit

#endif  // WUP_HOSTKIT_MANIFEST_H_
