#include "snapshot.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <fstream>
#include <iterator>
#include <memory>

namespace pkgsim {

const std::array<const char*, kColumnCount> kColumnNames = {
    "name",       "version",          "path",     "pkgid",        "entryPoints",
    "pluginType", "hasForceMetaData", "isUpdate", "appWhiteList", "systemPath"};

namespace {

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

// Only regular files are read: a FIFO put where a file belongs would block the reader for ever.
bool IsRegularFile(const std::string& path, struct stat& info) {
  return stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

// Reads the plug-in table without taking part in the plug-in's own checks: read-only, never creating the
// file, so looking at a device does not change it.
// Returns "" or why the rows could not be read.
std::string ReadRows(const std::string& path, PluginRows& rows) {
  sqlite3* raw = nullptr;
  const int opened = sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READONLY, nullptr);
  DbHandle db(raw);
  if (opened != SQLITE_OK) return raw != nullptr ? sqlite3_errmsg(raw) : sqlite3_errstr(opened);
  std::string sql = "SELECT ";
  for (std::size_t i = 0; i < kColumnCount; ++i) sql += std::string(i ? ", " : "") + kColumnNames[i];
  sql += " FROM pluginTable ORDER BY name";
  sqlite3_stmt* rawStmt = nullptr;
  const int prepared = sqlite3_prepare_v2(db.get(), sql.c_str(), -1, &rawStmt, nullptr);
  StmtHandle stmt(rawStmt);
  if (prepared != SQLITE_OK) {
    const std::string error = sqlite3_errmsg(db.get());
    // A database the plug-in has not set up yet simply has no records.
    return error.rfind("no such table", 0) != 0 ? error : "";
  }
  int step = SQLITE_ROW;
  while ((step = sqlite3_step(stmt.get())) == SQLITE_ROW) {
    PluginRow row;
    for (std::size_t i = 0; i < kColumnCount; ++i) row[i] = ColumnText(stmt.get(), static_cast<int>(i));
    rows.emplace(row[kName], row);
  }
  return step != SQLITE_DONE ? sqlite3_errmsg(db.get()) : "";
}

off_t SizeOf(const std::string& path) {
  struct stat info {};
  return IsRegularFile(path, info) ? info.st_size : 0;
}

std::string ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace

Snapshot Snapshot::Take(const Device& device) {
  Snapshot snapshot;
  struct stat info {};
  snapshot.dbExists = IsRegularFile(device.DbFile(), info);
  if (snapshot.dbExists) snapshot.dbError = ReadRows(device.DbFile(), snapshot.rows);
  if ((!snapshot.dbExists || !snapshot.dbError.empty()) && IsRegularFile(device.BackupFile(), info)) {
    PluginRows backup;
    if (ReadRows(device.BackupFile(), backup).empty()) snapshot.backupRows = std::move(backup);
  }
  if (lstat(device.ResultFile().c_str(), &info) == 0) {
    snapshot.resultExists = true;
    snapshot.resultInode = info.st_ino;
    snapshot.resultModified = info.st_mtim;
    if (IsRegularFile(device.ResultFile(), info)) snapshot.resultText = ReadAll(device.ResultFile());
  }
  snapshot.terminatedSize = SizeOf(device.TerminatedFile());
  snapshot.logSize = SizeOf(device.LogFile());
  return snapshot;
}

bool Snapshot::ResultRewrittenSince(const Snapshot& before) const {
  if (!resultExists) return false;
  if (!before.resultExists) return true;
  return before.resultInode != resultInode || before.resultModified.tv_sec != resultModified.tv_sec ||
         before.resultModified.tv_nsec != resultModified.tv_nsec;
}

PluginRows Snapshot::RowsOf(const std::string& pkgid) const {
  PluginRows mine;
  for (const auto& [name, row] : rows) {
    if (row[kPkgid] == pkgid) mine.emplace(name, row);
  }
  return mine;
}

std::vector<std::string> LinesFrom(const std::string& path, off_t offset) {
  std::ifstream in(path, std::ios::binary);
  in.seekg(offset);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

}  // namespace pkgsim
