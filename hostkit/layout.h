// The sandbox device: a directory laid out like the TV's file system, in which the plug-in and the host
// stand-ins keep their state, and the environment that points the stand-ins at it. pkgsim, the tests, the
// campaigns, the benchmark and the fuzz targets all lay their devices out this way.
//
// The file names below are those the plug-in gives its files. A program that has the product linked
// takes the full paths from the product itself (strVERSION_DB, strRESULT_FILE ...); these serve the
// programs that only load the plug-in, and they are the host's own reading of the device, not the
// product's.
#ifndef WUP_HOSTKIT_LAYOUT_H_
#define WUP_HOSTKIT_LAYOUT_H_

#include <string>
#include <vector>

namespace hostkit {

// In the database directory (TZ_SYS_DB).
inline constexpr char kDatabaseFile[] = ".AppBinaryManager.db";
inline constexpr char kBackupFile[] = ".AppBinaryManager_Backup.db";
// In the writable application directory (TZ_SYS_RW_APP): the application that owns the result; every
// device has its directory, the plug-in makes only the result's own.
inline constexpr char kManagerDir[] = "appbinarymanager";
inline constexpr char kResultFile[] = "appbinarymanager/webapi_result/upgrade_webapi_result.json";

// The plug-in's two tables as SQLite keeps their definitions (sqlite_master.sql); executing them builds a
// database of the plug-in's shape.
inline constexpr char kPluginTableSchema[] =
    "CREATE TABLE pluginTable(name TEXT PRIMARY KEY, version TEXT, path TEXT, pkgid\tTEXT, entryPoints TEXT, "
    "pluginType INTEGER, hasForceMetaData INTEGER, isUpdate INTEGER, appWhiteList TEXT, systemPath TEXT)";
inline constexpr char kVersionTableSchema[] =
    "CREATE TABLE versionTable(name TEXT PRIMARY KEY, version TEXT, size TEXT)";

struct Layout {
  std::string root;
  std::string db;          // TZ_SYS_DB
  std::string rwApp;       // TZ_SYS_RW_APP
  std::string roApp;       // TZ_SYS_RO_APP
  std::string rwPackages;  // TZ_SYS_RW_PACKAGES: <pkgid>.xml of installed packages
  std::string roPackages;  // TZ_SYS_RO_PACKAGES: <pkgid>.xml of preloaded packages
  std::string vex;         // HOST_VEX_DIR: the application service's state
  std::string log;         // HOST_DLOG_FILE

  // The layout under `root` ("" gives the device's own absolute paths).
  static Layout At(const std::string& root);

  std::string Database() const { return db + "/" + kDatabaseFile; }
  std::string Backup() const { return db + "/" + kBackupFile; }
  std::string ManagerDir() const { return rwApp + "/" + kManagerDir; }
  std::string ResultFile() const { return rwApp + "/" + kResultFile; }
  std::string ForegroundFile() const { return vex + "/foreground"; }
  std::string TerminatedFile() const { return vex + "/terminated"; }
  std::string Manifest(const std::string& pkgid, bool readOnly) const {
    return (readOnly ? roPackages : rwPackages) + "/" + pkgid + ".xml";
  }
  std::string AppRoot(const std::string& pkgid, bool readOnly) const {
    return (readOnly ? roApp : rwApp) + "/" + pkgid;
  }

  // Every directory of the layout; a device is a directory that has all of them.
  std::vector<std::string> Dirs() const;
  // Creates them; throws std::runtime_error naming the directory that cannot be made.
  void Create() const;
  // Removes everything under the root and creates the layout again.
  void Reset() const;
  // The variables ("NAME=VALUE") that point the stand-ins at the device; Export sets them in this process
  // (and so in the processes it starts). The plug-in fixes its paths when it is loaded: export first.
  std::vector<std::string> Environment() const;
  void Export() const;
};

}  // namespace hostkit

#endif  // WUP_HOSTKIT_LAYOUT_H_
