// What the plug-in has made of a device at one moment: its plug-in records (read straight from its SQLite
// database, read-only), its result file, and how far the termination record and the log have grown.
// Two snapshots, taken around one call or one operation, tell what it changed.
#ifndef PKGSIM_SNAPSHOT_H_
#define PKGSIM_SNAPSHOT_H_

#include <sys/types.h>
#include <time.h>

#include <array>
#include <map>
#include <string>
#include <vector>

#include "device.h"

namespace pkgsim {

// One row of the plug-in table, every column as text, in the table's column order.
enum Column {
  kName,
  kVersion,
  kPath,
  kPkgid,
  kEntryPoints,
  kType,
  kForce,
  kLocation,
  kAllowList,
  kSystemPath
};
constexpr std::size_t kColumnCount = 10;
using PluginRow = std::array<std::string, kColumnCount>;
using PluginRows = std::map<std::string, PluginRow>;  // by plug-in name
extern const std::array<const char*, kColumnCount> kColumnNames;

struct Snapshot {
  bool dbExists = false;
  PluginRows rows;
  std::string dbError;  // set when the database exists but cannot be read
  // When the database is missing or unreadable: the records of its backup, which the plug-in's next
  // open check restores if the backup is sound.
  PluginRows backupRows;

  bool resultExists = false;
  // The plug-in renames a fresh file over the result, so a rewrite shows as a new inode or, when the
  // inode number is reused within one operation, as a new modification time.
  ino_t resultInode = 0;
  struct timespec resultModified {};
  std::string resultText;

  off_t terminatedSize = 0;
  off_t logSize = 0;

  static Snapshot Take(const Device& device);

  bool ResultRewrittenSince(const Snapshot& before) const;
  // The records whose pkgid is `pkgid`.
  PluginRows RowsOf(const std::string& pkgid) const;
};

// Lines of a file from a byte offset on (the part a process appended since a snapshot).
std::vector<std::string> LinesFrom(const std::string& path, off_t offset);

}  // namespace pkgsim

#endif  // PKGSIM_SNAPSHOT_H_
