// A sandbox device: a directory laid out like the TV's file system, on which pkgsim places and removes
// packages and in which the plug-in and the host stand-ins keep their state. Placing and removing never
// leaves a half-copied package behind: files are staged beside their destination and renamed into place.
// Failures are reported as std::runtime_error with a one-line message for the user.
#ifndef PKGSIM_DEVICE_H_
#define PKGSIM_DEVICE_H_

#include <string>
#include <vector>

#include "hostkit/layout.h"

namespace pkgsim {

// Where a package is on the device: the writable area (installed or updated), the read-only image
// (preloaded), or both (a preloaded package with an update).
struct PackageState {
  bool rw = false;
  bool ro = false;
  bool Present() const { return rw || ro; }
};

// The paths are those of the sandbox layout (hostkit/layout.h) under the device's root.
class Device {
 public:
  explicit Device(std::string root) : layout_(hostkit::Layout::At(root)) {}

  const std::string& Root() const { return layout_.root; }
  std::string DbDir() const { return layout_.db; }
  std::string RwAppDir() const { return layout_.rwApp; }
  std::string RoAppDir() const { return layout_.roApp; }
  std::string RwPackagesDir() const { return layout_.rwPackages; }
  std::string RoPackagesDir() const { return layout_.roPackages; }
  std::string VexDir() const { return layout_.vex; }
  std::string LogFile() const { return layout_.log; }

  std::string DbFile() const { return layout_.Database(); }
  std::string BackupFile() const { return layout_.Backup(); }
  // The application that owns the plug-in's result; the plug-in makes only the last directory level.
  std::string ManagerDir() const { return layout_.ManagerDir(); }
  std::string ResultFile() const { return layout_.ResultFile(); }
  std::string ForegroundFile() const { return layout_.ForegroundFile(); }
  std::string TerminatedFile() const { return layout_.TerminatedFile(); }

  std::string Manifest(const std::string& pkgid, bool readOnly) const {
    return layout_.Manifest(pkgid, readOnly);
  }
  std::string AppRoot(const std::string& pkgid, bool readOnly) const {
    return layout_.AppRoot(pkgid, readOnly);
  }

  // A device is a directory that has every directory of the layout.
  bool Exists() const;
  void Create() const { layout_.Create(); }
  // Points the host stand-ins (and so the plug-in, which builds its paths when it is loaded) at the device.
  void Export() const { layout_.Export(); }

  PackageState StateOf(const std::string& pkgid) const;
  // Copies a package directory into the chosen area: its files to the application root, its manifest to
  // the manifest directory, replacing an earlier copy in that area.
  void Place(const std::string& packageDir, const std::string& manifestPath, const std::string& pkgid,
             bool readOnly) const;
  void Remove(const std::string& pkgid, bool readOnly) const;

  // Ids of the packages on the device, sorted, with where they are.
  std::vector<std::pair<std::string, PackageState>> Packages() const;

  std::string Foreground() const;
  void SetForeground(const std::string& appid) const;

 private:
  hostkit::Layout layout_;
};

// The device named on the command line, or PKGSIM_DEVICE, or ./pkgsim-device.
std::string DefaultDeviceRoot();

// A package id that can safely become a file name on the device.
bool IsSafePackageId(const std::string& pkgid);

}  // namespace pkgsim

#endif  // PKGSIM_DEVICE_H_
