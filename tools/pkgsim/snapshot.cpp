#include "snapshot.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>

namespace pkgsim {

const std::array<const char*, kColumnCount> kColumnNames = {
    "name",       "version",          "path",     "pkgid",        "entryPoints",
    "pluginType", "hasForceMetaData", "isUpdate", "appWhiteList", "systemPath"};

namespace {

enum Column {
  kName = 0,
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

struct DbCloser {
  void operator()(sqlite3* db) const { sqlite3_close(db); }
};
struct StmtFinalizer {
  void operator()(sqlite3_stmt* stmt) const { sqlite3_finalize(stmt); }
};
using DbHandle = std::unique_ptr<sqlite3, DbCloser>;
using StmtHandle = std::unique_ptr<sqlite3_stmt, StmtFinalizer>;

std::string ColumnText(sqlite3_stmt* stmt, int column) {
  const unsigned char* text = sqlite3_column_text(stmt, column);
  return text != nullptr ? reinterpret_cast<const char*>(text) : "";
}

// Reads the plug-in table without taking part in the plug-in's own checks: read-only, never creating the
// file, so looking at a device does not change it.
void ReadRows(const std::string& path, Snapshot& snapshot) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0) return;
  sqlite3* raw = nullptr;
  const int opened = sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READONLY, nullptr);
  DbHandle db(raw);
  if (opened != SQLITE_OK) {
    snapshot.dbError = raw != nullptr ? sqlite3_errmsg(raw) : sqlite3_errstr(opened);
    return;
  }
  std::string sql = "SELECT ";
  for (std::size_t i = 0; i < kColumnCount; ++i) sql += std::string(i ? ", " : "") + kColumnNames[i];
  sql += " FROM pluginTable ORDER BY name";
  sqlite3_stmt* rawStmt = nullptr;
  const int prepared = sqlite3_prepare_v2(db.get(), sql.c_str(), -1, &rawStmt, nullptr);
  StmtHandle stmt(rawStmt);
  if (prepared != SQLITE_OK) {
    const std::string error = sqlite3_errmsg(db.get());
    // A database the plug-in has not set up yet simply has no records.
    if (error.rfind("no such table", 0) != 0) snapshot.dbError = error;
    return;
  }
  int step = SQLITE_ROW;
  while ((step = sqlite3_step(stmt.get())) == SQLITE_ROW) {
    PluginRow row;
    for (std::size_t i = 0; i < kColumnCount; ++i) row[i] = ColumnText(stmt.get(), static_cast<int>(i));
    snapshot.rows.emplace(row[kName], row);
  }
  if (step != SQLITE_DONE) snapshot.dbError = sqlite3_errmsg(db.get());
}

off_t SizeOf(const std::string& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 ? info.st_size : 0;
}

std::string ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string KindName(const std::string& type) {
  if (type == "0") return "xwalk";
  if (type == "1") return "pepper";
  if (type == "2") return "b2b pepper";
  return "kind " + type;
}

std::string LocationName(const std::string& location) {
  if (location == "0") return "0 read-only image";
  if (location == "1") return "1 writable area";
  if (location == "2") return "2 both";
  return location;
}

std::string Summary(const PluginRow& row) {
  return row[kName] + " " + row[kVersion] + " (" + KindName(row[kType]) + ", isUpdate " +
         LocationName(row[kLocation]) + ", " + row[kPkgid] + ")";
}

void ReportRows(const Snapshot& before, const Snapshot& after, std::ostream& out) {
  if (!after.dbError.empty()) out << "  database unreadable: " << after.dbError << "\n";
  bool changed = false;
  for (const auto& [name, row] : after.rows) {
    const auto old = before.rows.find(name);
    if (old == before.rows.end()) {
      out << "  + " << Summary(row) << "\n";
      changed = true;
    } else if (old->second != row) {
      out << "  ~ " << name << " replaced\n";
      for (std::size_t i = 0; i < kColumnCount; ++i) {
        if (old->second[i] == row[i]) continue;
        out << "      " << kColumnNames[i] << ": [" << old->second[i] << "] -> [" << row[i] << "]\n";
      }
      changed = true;
    }
  }
  for (const auto& [name, row] : before.rows) {
    if (after.rows.count(name) != 0) continue;
    out << "  - " << Summary(row) << "\n";
    changed = true;
  }
  if (!changed) out << "  plug-in records: no change\n";
}

std::string ResultFileChange(const Snapshot& before, const Snapshot& after) {
  if (!before.resultExists && !after.resultExists) return "absent";
  if (!before.resultExists) return "created";
  if (!after.resultExists) return "removed";
  const bool sameFile = before.resultInode == after.resultInode &&
                        before.resultModified.tv_sec == after.resultModified.tv_sec &&
                        before.resultModified.tv_nsec == after.resultModified.tv_nsec;
  if (sameFile && before.resultText == after.resultText) return "not rewritten";
  return before.resultText == after.resultText ? "rewritten (same content)" : "rewritten";
}

// Termination order matters to whoever reads it, so runs of the same id are counted, not merged.
std::string Joined(const std::vector<std::string>& items) {
  std::string text;
  for (std::size_t i = 0; i < items.size();) {
    std::size_t run = 1;
    while (i + run < items.size() && items[i + run] == items[i]) ++run;
    text += (text.empty() ? "" : ", ") + (items[i].empty() ? std::string("\"\"") : items[i]);
    if (run > 1) text += " (" + std::to_string(run) + " times)";
    i += run;
  }
  return text;
}

}  // namespace

Snapshot Snapshot::Take(const Device& device) {
  Snapshot snapshot;
  ReadRows(device.DbFile(), snapshot);
  struct stat info {};
  if (stat(device.ResultFile().c_str(), &info) == 0) {
    snapshot.resultExists = true;
    snapshot.resultInode = info.st_ino;
    snapshot.resultModified = info.st_mtim;
    snapshot.resultText = ReadAll(device.ResultFile());
  }
  snapshot.terminatedSize = SizeOf(device.TerminatedFile());
  snapshot.logSize = SizeOf(device.LogFile());
  return snapshot;
}

std::vector<std::string> LinesFrom(const std::string& path, off_t offset) {
  std::ifstream in(path, std::ios::binary);
  in.seekg(offset);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

void ReportChanges(const Device& device, const Snapshot& before, const Snapshot& after, bool quiet,
                   std::ostream& out) {
  out << "changes:\n";
  ReportRows(before, after, out);
  out << "  result file: " << ResultFileChange(before, after) << "\n";
  const std::vector<std::string> terminated = LinesFrom(device.TerminatedFile(), before.terminatedSize);
  out << "  terminated: " << (terminated.empty() ? "none" : Joined(terminated)) << "\n";
  if (quiet) return;
  const std::vector<std::string> log = LinesFrom(device.LogFile(), before.logSize);
  out << "plug-in log (" << log.size() << " lines):\n";
  for (const std::string& line : log) out << "  " << line << "\n";
}

void PrintRecords(const Snapshot& snapshot, std::ostream& out) {
  if (!snapshot.dbError.empty()) out << "database unreadable: " << snapshot.dbError << "\n";
  out << "plug-in records (" << snapshot.rows.size() << "):\n";
  if (snapshot.rows.empty()) return;
  const std::vector<std::string> headings = {"NAME", "VERSION", "KIND", "ISUPDATE", "FORCE", "PKGID"};
  std::vector<std::vector<std::string>> table = {headings};
  for (const auto& [name, row] : snapshot.rows) {
    table.push_back(
        {name, row[kVersion], KindName(row[kType]), LocationName(row[kLocation]), row[kForce], row[kPkgid]});
  }
  std::vector<std::size_t> widths(headings.size(), 0);
  for (const auto& line : table) {
    for (std::size_t i = 0; i < line.size(); ++i) widths[i] = std::max(widths[i], line[i].size());
  }
  for (const auto& line : table) {
    std::string text = " ";
    for (std::size_t i = 0; i < line.size(); ++i) {
      text += " " + line[i];
      if (i + 1 < line.size()) text += std::string(widths[i] - line[i].size() + 1, ' ');
    }
    out << text << "\n";
  }
  for (const auto& [name, row] : snapshot.rows) {
    out << "  " << name << ":\n"
        << "      path         " << row[kPath] << "\n"
        << "      systemPath   " << row[kSystemPath] << "\n"
        << "      entryPoints  " << row[kEntryPoints] << "\n"
        << "      appWhiteList " << row[kAllowList] << "\n";
  }
}

}  // namespace pkgsim
