// What the plug-in has made of a device at one moment: its plug-in records (read straight from its SQLite
// database, read-only), its result file, and how far the termination record and the log have grown.
// Two snapshots, taken around one package-manager operation, tell what that operation changed.
#ifndef PKGSIM_SNAPSHOT_H_
#define PKGSIM_SNAPSHOT_H_

#include <sys/types.h>
#include <time.h>

#include <array>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "device.h"

namespace pkgsim {

// One row of the plug-in table, every column as text, in the table's column order.
constexpr std::size_t kColumnCount = 10;
using PluginRow = std::array<std::string, kColumnCount>;
extern const std::array<const char*, kColumnCount> kColumnNames;

struct Snapshot {
  std::map<std::string, PluginRow> rows;  // by plug-in name
  std::string dbError;                    // set when the database exists but cannot be read

  bool resultExists = false;
  // The plug-in renames a fresh file over the result, so a rewrite shows as a new inode or, when the
  // inode number is reused within one operation, as a new modification time.
  ino_t resultInode = 0;
  struct timespec resultModified {};
  std::string resultText;

  off_t terminatedSize = 0;
  off_t logSize = 0;

  static Snapshot Take(const Device& device);
};

// Prints what happened between two snapshots: rows added, replaced, removed; whether the result file was
// rewritten; the applications terminated; and, unless quiet, the plug-in's log lines.
void ReportChanges(const Device& device, const Snapshot& before, const Snapshot& after, bool quiet,
                   std::ostream& out);

// The plug-in records as a table, followed by the details of each record.
void PrintRecords(const Snapshot& snapshot, std::ostream& out);

// Lines of a file from a byte offset on (the part a process appended since a snapshot).
std::vector<std::string> LinesFrom(const std::string& path, off_t offset);

}  // namespace pkgsim

#endif  // PKGSIM_SNAPSHOT_H_
