// A sandbox device: a directory laid out like the TV's file system, on which pkgsim places and removes
// packages and in which the plug-in and the host stand-ins keep their state. Placing and removing never
// leaves a half-copied package behind: files are staged beside their destination and renamed into place.
// Failures are reported as std::runtime_error with a one-line message for the user.
#ifndef PKGSIM_DEVICE_H_
#define PKGSIM_DEVICE_H_

#include <string>
#include <vector>

namespace pkgsim {

// Where a package is on the device: the writable area (installed or updated), the read-only image
// (preloaded), or both (a preloaded package with an update).
struct PackageState {
  bool rw = false;
  bool ro = false;
  bool Present() const { return rw || ro; }
};

// The first uid of the regular users' range; below it (root: the installer) no user's own packages are seen.
constexpr unsigned kFirstRegularUid = 5000;

class Device {
 public:
  explicit Device(std::string root) : root_(std::move(root)) {}

  // The device as installations for one regular user see it: that user's home takes the place of the
  // writable area for the package's files and manifest (Manifest, AppRoot, StateOf, Place, Remove).
  Device ForUser(unsigned uid) const {
    Device device(root_);
    device.user_ = uid;
    return device;
  }
  unsigned User() const { return user_; }  // 0: installations for all users

  const std::string& Root() const { return root_; }
  std::string DbDir() const { return root_ + "/opt/dbspace"; }
  std::string RwAppDir() const { return root_ + "/opt/usr/apps"; }
  std::string RoAppDir() const { return root_ + "/usr/apps"; }
  std::string RwPackagesDir() const { return root_ + "/opt/share/packages"; }
  std::string RoPackagesDir() const { return root_ + "/usr/share/packages"; }
  std::string VexDir() const { return root_ + "/run/vex"; }
  std::string LogFile() const { return root_ + "/var/log/dlog.log"; }
  // Where the installer finds its metadata plug-ins: the registrations, and the libraries they name.
  std::string RegistrationDir() const { return root_ + "/usr/share/parser-plugins"; }
  std::string MetadataPluginDir() const { return root_ + "/etc/package-manager/parserlib/metadata"; }
  // A regular user's home (TZ_SYS_HOME/<user>; uid 5001 is the TV's one user, "owner"), the user's
  // packages' files under apps_rw/ (TZ_USER_APP) and their manifests under .applications/packages/.
  std::string UserHome(unsigned uid) const;
  std::string UserAppDir(unsigned uid) const { return UserHome(uid) + "/apps_rw"; }
  std::string UserPackagesDir(unsigned uid) const { return UserHome(uid) + "/.applications/packages"; }

  std::string DbFile() const { return DbDir() + "/.AppBinaryManager.db"; }
  std::string BackupFile() const { return DbDir() + "/.AppBinaryManager_Backup.db"; }
  // The application that owns the plug-in's result; the plug-in makes only the last directory level.
  std::string ManagerDir() const { return RwAppDir() + "/appbinarymanager"; }
  std::string ResultFile() const { return ManagerDir() + "/webapi_result/upgrade_webapi_result.json"; }
  std::string ForegroundFile() const { return VexDir() + "/foreground"; }
  std::string TerminatedFile() const { return VexDir() + "/terminated"; }

  std::string Manifest(const std::string& pkgid, bool readOnly) const {
    return (readOnly     ? RoPackagesDir()
            : user_ != 0 ? UserPackagesDir(user_)
                         : RwPackagesDir()) +
           "/" + pkgid + ".xml";
  }
  std::string AppRoot(const std::string& pkgid, bool readOnly) const {
    return (readOnly ? RoAppDir() : user_ != 0 ? UserAppDir(user_) : RwAppDir()) + "/" + pkgid;
  }

  // Every directory of the layout; a device is a directory that has all of them.
  std::vector<std::string> LayoutDirs() const;
  bool Exists() const;
  void Create() const;
  // Points the host stand-ins (and so the plug-in, which builds its paths when it is loaded) at the device.
  void Export() const;

  PackageState StateOf(const std::string& pkgid) const;
  // Copies a package directory into the chosen area: its files to the application root, its manifest to
  // the manifest directory, replacing an earlier copy in that area.
  void Place(const std::string& packageDir, const std::string& manifestPath, const std::string& pkgid,
             bool readOnly) const;
  void Remove(const std::string& pkgid, bool readOnly) const;

  // Ids of the packages on the device, sorted, with where they are.
  std::vector<std::pair<std::string, PackageState>> Packages() const;
  // The packages installed for one user: (uid, package id), by uid and id.
  using UserPackageList = std::vector<std::pair<unsigned, std::string>>;
  UserPackageList UserPackages() const;

  std::string Foreground() const;
  void SetForeground(const std::string& appid) const;

 private:
  std::string root_;
  unsigned user_ = 0;
};

// The device named on the command line, or PKGSIM_DEVICE, or ./pkgsim-device.
std::string DefaultDeviceRoot();

// A package id that can safely become a file name on the device.
bool IsSafePackageId(const std::string& pkgid);

}  // namespace pkgsim

#endif  // PKGSIM_DEVICE_H_
