#include "VersionSqliteDB.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include "PluginPolicy.h"

// The database paths exist once, exported, so that tools can name the same files as the plug-in.
const std::string strTZ_SYS_DB = tzplatform_getenv(TZ_SYS_DB);
const std::string strVERSION_DB = strTZ_SYS_DB + "/.AppBinaryManager.db";
const std::string strVERSION_DB_BAKUP = strTZ_SYS_DB + "/.AppBinaryManager_Backup.db";
const char* VERSION_DB = strVERSION_DB.c_str();
const char* VERSION_DB_BAKUP = strVERSION_DB_BAKUP.c_str();

namespace {

struct ConnectionCloser {
  void operator()(sqlite3* db) const { sqlite3_close(db); }
};
// A connection must be declared before the statements prepared on it, so that they are finalized first:
// sqlite3_close refuses a connection that still has statements.
using Connection = std::unique_ptr<sqlite3, ConnectionCloser>;

struct StatementFinalizer {
  void operator()(sqlite3_stmt* stmt) const { sqlite3_finalize(stmt); }
};
using Statement = std::unique_ptr<sqlite3_stmt, StatementFinalizer>;

// Texts that SQLite allocated: statements from sqlite3_mprintf and error messages from sqlite3_exec.
struct SqliteFree {
  void operator()(char* text) const { sqlite3_free(text); }
};
using SqliteText = std::unique_ptr<char, SqliteFree>;

// The TAB after pkgid is part of the schema text that existing files carry; the statement stays
// byte-identical to it.
// clang-format off
const char kPluginTableSchema[] = "create table if not exists pluginTable(name TEXT PRIMARY KEY, version TEXT, path TEXT, pkgid\tTEXT, entryPoints TEXT, pluginType INTEGER, hasForceMetaData INTEGER, isUpdate INTEGER, appWhiteList TEXT, systemPath TEXT)";
// clang-format on
const char kVersionTableSchema[] =
    "create table if not exists versionTable(name TEXT PRIMARY KEY, version TEXT, size TEXT)";

// The busy loops of the validity check give another process at most three seconds.
constexpr int kMaxBusyRetries = 2;

// The plug-in table's columns, in order: a table of that name with others is not the plug-in's.
const char* const kPluginColumns[] = {
    "name",       "version",          "path",     "pkgid",        "entryPoints",
    "pluginType", "hasForceMetaData", "isUpdate", "appWhiteList", "systemPath"};

// Calls in which the busy handler gave up: the hardened open check tells a busy file from a damaged one
// by whether this moved during the check.
int g_busyGiveUps = 0;

// How long, in all, the hardened build waits for a database that another process holds, across the checks
// and writes of a call; it is spent by waits that end busy and refilled once the database is found free.
constexpr int kBusyBudgetMs = 8000;
int g_busyBudgetMs = kBusyBudgetMs;

// The staging file of a database copy, beside its destination.
const char kCopyStagingSuffix[] = ".copy";

// sqlite3_open_v2 hands out a handle even when it fails; it is owned from that moment on.
int Open(const char* path, int flags, Connection& db) {
  sqlite3* raw = nullptr;
  const int ret = sqlite3_open_v2(path, &raw, flags, nullptr);
  db.reset(raw);
  return ret;
}

int Prepare(sqlite3* db, const char* sql, Statement& stmt) {
  sqlite3_stmt* raw = nullptr;
  const int ret = sqlite3_prepare_v2(db, sql, -1, &raw, nullptr);
  stmt.reset(raw);
  return ret;
}

int Exec(sqlite3* db, const char* sql, SqliteText& error) {
  char* raw = nullptr;
  const int ret = sqlite3_exec(db, sql, nullptr, nullptr, &raw);
  error.reset(raw);
  return ret;
}

void InstallBusyHandler(sqlite3* db) { sqlite3_busy_handler(db, callback_db, db); }

// Runs `sql` with SQLite waiting for the lock for at most what is left of the busy budget.
int ExecWaiting(sqlite3* db, const char* sql, SqliteText& error) {
  const auto start = std::chrono::steady_clock::now();
  sqlite3_busy_timeout(db, g_busyBudgetMs);
  const int ret = Exec(db, sql, error);
  if (ret != SQLITE_BUSY) {
    g_busyBudgetMs = kBusyBudgetMs;
    return ret;
  }
  const auto waited =
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
  g_busyBudgetMs = std::max(0, g_busyBudgetMs - static_cast<int>(waited));
  return ret;
}

// False while another connection holds `path` after the wait. Only a regular file with content is looked
// at: anything else is the validity check's to judge (opening a FIFO would block).
bool WaitWhileHeld(const char* path) {
  struct stat st;
  if (stat(path, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size == 0) return true;
  Connection db;  // opened as the validity check opens it; it only reads
  if (Open(path, SQLITE_OPEN_READWRITE, db) != SQLITE_OK) return true;
  SqliteText error;
  return ExecWaiting(db.get(), "select count(*) from sqlite_master", error) != SQLITE_BUSY;
}

bool HasPluginColumns(sqlite3* db) {
  Statement stmt;
  if (Prepare(db, "PRAGMA table_info(pluginTable);", stmt) != SQLITE_OK) return false;
  size_t column = 0;
  while (sqlite3_step(stmt.get()) == SQLITE_ROW) {
    const unsigned char* name = sqlite3_column_text(stmt.get(), 1);
    if (column == std::size(kPluginColumns) || name == nullptr ||
        std::strcmp(reinterpret_cast<const char*>(name), kPluginColumns[column]) != 0) {
      return false;
    }
    ++column;
  }
  return column == std::size(kPluginColumns);
}

// Log arguments that may be null print as the C library would print them.
const char* Printable(const char* text) { return text != nullptr ? text : "(null)"; }
const char* Printable(const SqliteText& text) { return Printable(text.get()); }

std::string ColumnText(sqlite3_stmt* stmt, int column) {
  // Nothing here writes NULL; a foreign or damaged file may, and such a field reads as empty.
  const unsigned char* text = sqlite3_column_text(stmt, column);
  return text != nullptr ? reinterpret_cast<const char*>(text) : "";
}

SqliteText InsertStatement(const _PluginData& record) {
  SqliteText sql(sqlite3_mprintf("insert or replace into pluginTable values(%Q,%Q,%Q,%Q,%Q,%d,%d,%d,%Q,%Q)",
                                 record.name.c_str(), record.version.c_str(), record.path.c_str(),
                                 record.pkgid.c_str(), record.entryPoints.c_str(),
                                 static_cast<int>(record.pluginType), record.hasForceMetaData,
                                 record.isUpdate, record.appWhiteList.c_str(), record.systemPath.c_str()));
  return sql;
}

_PluginData RecordFromRow(sqlite3_stmt* stmt) {
  _PluginData record;
  record.name = ColumnText(stmt, 0);
  record.version = ColumnText(stmt, 1);
  record.path = ColumnText(stmt, 2);
  record.pkgid = ColumnText(stmt, 3);
  record.entryPoints = ColumnText(stmt, 4);
  record.pluginType = static_cast<PLUGIN_TYPE>(sqlite3_column_int(stmt, 5));
  record.hasForceMetaData = sqlite3_column_int(stmt, 6);
  record.isUpdate = sqlite3_column_int(stmt, 7);
  record.appWhiteList = ColumnText(stmt, 8);
  record.systemPath = ColumnText(stmt, 9);
  return record;
}

// A read that stops early (busy for too long, or an error) still counts: the caller gets what was read.
void ReadRows(sqlite3_stmt* stmt, PluginDataMap& map) {
  while (sqlite3_step(stmt) == SQLITE_ROW) {
    _PluginData record = RecordFromRow(stmt);
    std::string name = record.name;
    map.emplace(std::move(name), std::move(record));
  }
}

// A row of the integrity check vouches for the file only when it reads exactly "ok".
bool IsOkRow(sqlite3_stmt* stmt) {
  const unsigned char* text = sqlite3_column_text(stmt, 0);
  return text != nullptr && std::strcmp(reinterpret_cast<const char*>(text), "ok") == 0;
}

struct TablesFound {
  bool version = false;
  bool plugin = false;
};

void NoteTable(sqlite3_stmt* stmt, TablesFound& found) {
  const unsigned char* text = sqlite3_column_text(stmt, 0);
  if (text == nullptr) return;
  const char* name = reinterpret_cast<const char*>(text);
  if (strVERSION_TABLE == name) {
    found.version = true;
  } else if (strPLUGIN_TABLE == name) {
    found.plugin = true;
  }
}

// A copy replaces the whole file, so a rollback journal left beside it (by a process killed in a
// write) belongs to other content: played back onto the copy, it would damage it.
void RemoveStaleJournal(const char* path) { unlink((std::string(path) + "-journal").c_str()); }

// Copies at most `size` bytes; the copy goes on as far as reading and writing do. True when all of them
// were copied.
bool CopyContent(int in, int out, long long size) {
  char buffer[64 * 1024];
  while (size > 0) {
    const ssize_t got = read(in, buffer, sizeof(buffer) < static_cast<size_t>(size) ? sizeof(buffer)
                                                                                      : static_cast<size_t>(size));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0 || !PluginWriteAll(out, buffer, static_cast<size_t>(got))) return false;
    size -= got;
  }
  return true;
}

std::string DirectoryOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

// Writes the whole copy to a staging file beside `dest`, syncs it and renames it over `dest`: the
// destination is either the complete copy or what it was. A staging file left by a killed process goes
// first (unlinking a link there removes only the link).
bool CopyStaged(int in, const char* dest, long long size) {
  const std::string staging = std::string(dest) + kCopyStagingSuffix;
  unlink(staging.c_str());
  PluginFd out(PluginOpenForWriting(staging.c_str()));
  bool copied = out && CopyContent(in, out.get(), size) && fsync(out.get()) == 0 && out.Close();
  if (copied) {
    RemoveStaleJournal(dest);
    copied = rename(staging.c_str(), dest) == 0;
  }
  if (!copied) {
    unlink(staging.c_str());
    return false;
  }
  PluginSyncDirectory(DirectoryOf(dest));
  return true;
}

// m_recoverDBExecute works on a plain handle: ownership goes into it and the connection it leaves in the
// handle comes back to `db`.
bool RecoverWith(VersionSqliteDB& versionDb, Connection& db, const char* sql) {
  sqlite3* raw = db.release();
  const bool recovered = versionDb.m_recoverDBExecute(raw, sql);
  db.reset(raw);
  return recovered;
}

}  // namespace

int callback_db(void* /*arg*/, int count) {
  if (count < 5) {
    usleep(50000);
    PLUGIN_LOG("database is lock now,can not write/read.count is [%d]\n", count);
    return 1;
  }
  ++g_busyGiveUps;
  PLUGIN_LOG("wait count is [%d], not keep waiting..\n", count);
  return 0;
}

VersionSqliteDB::VersionSqliteDB() {}

VersionSqliteDB::~VersionSqliteDB() {}

bool VersionSqliteDB::InsertPluginData(_PluginData& record) {
  const SqliteText sql = InsertStatement(record);
  PLUGIN_LOG("insert sql:[%s]", Printable(sql));
  const bool inserted = m_modifyTable(sql.get());
  if (inserted) {
    PLUGIN_LOG("insert into pluginTable successfully");
  } else {
    PLUGIN_LOG("insert into pluginTable fail!!");
  }
  return inserted;
}

// The savepoint makes the statements one transaction also where recovery runs them again outside the
// write's own: a failure part-way leaves it open, and closing the connection rolls all of it back.
bool VersionSqliteDB::InsertPluginDataList(PluginDataMap& records) {
  if (records.empty()) return true;
  std::string script = "SAVEPOINT package;";
  for (const auto& entry : records) {
    const SqliteText sql = InsertStatement(entry.second);
    PLUGIN_LOG("insert sql:[%s]", Printable(sql));
    script.append(Printable(sql)).append(";");
  }
  script += "RELEASE package;";
  const bool inserted = m_modifyTable(script.data());
  if (inserted) {
    PLUGIN_LOG("insert into pluginTable successfully, %zu records in one write", records.size());
  } else {
    PLUGIN_LOG("insert into pluginTable fail!! none of the %zu records stored", records.size());
  }
  return inserted;
}

bool VersionSqliteDB::DeletePackageData(const std::string& pkgid) {
  SqliteText sql(sqlite3_mprintf("delete from pluginTable where pkgid=%Q", pkgid.c_str()));
  PLUGIN_LOG("remove every record of package [%s]: [%s]", pkgid.c_str(), Printable(sql));
  const bool removed = m_modifyTable(sql.get());
  PLUGIN_LOG("remove the records of [%s] %s", pkgid.c_str(), removed ? "successfully" : "fail!!");
  return removed;
}

bool VersionSqliteDB::TakeRecordsLost() { return std::exchange(m_recordsLost, false); }

bool VersionSqliteDB::DeletePluginData(const std::string& name) {
  SqliteText sql(sqlite3_mprintf("delete from pluginTable where name=%Q", name.c_str()));
  PLUGIN_LOG("Current remove sql is [%s]", Printable(sql));
  const bool removed = m_modifyTable(sql.get());
  if (removed) {
    PLUGIN_LOG("remove successfully");
  } else {
    PLUGIN_LOG("remove fail!!");
  }
  return removed;
}

// The table name goes through %Q on purpose: SQLite reads a quoted word where only a table name can
// stand as that table's name.
bool VersionSqliteDB::DeleteDBRecord(const std::string& name, bool all, const std::string& table) {
  SqliteText sql(all ? sqlite3_mprintf("delete from %Q", table.c_str())
                     : sqlite3_mprintf("delete from %Q where name=%Q", table.c_str(), name.c_str()));
  PLUGIN_LOG("Current remove sql is [%s]", Printable(sql));
  const bool removed = m_modifyTable(sql.get());
  if (removed) {
    PLUGIN_LOG("remove successfully");
  } else {
    PLUGIN_LOG("remove fail!!");
  }
  return removed;
}

bool VersionSqliteDB::GetPluginList(PluginDataMap& map) {
  PLUGIN_LOG("GetPluginList");
  SqliteText sql(sqlite3_mprintf("select * from pluginTable;"));
  const bool read = m_getPluginDataFromPluginTable(sql.get(), map);
  if (read) {
    PLUGIN_LOG("get plugin list success");
  } else {
    PLUGIN_LOG("get plugin list fail");
  }
  return read;
}

bool VersionSqliteDB::m_getPluginDataFromPluginTable(char* sql, PluginDataMap& map) {
  if (!m_openDBCheck()) {
    PLUGIN_LOG("db valid check fail");
    return false;
  }
  Connection db;
  int ret = Open(VERSION_DB, SQLITE_OPEN_READONLY, db);
  if (ret != SQLITE_OK) {
    PLUGIN_LOG("database %s open failed! return [%d]\n", VERSION_DB, ret);
    return false;
  }
  InstallBusyHandler(db.get());

  // The file can be damaged between the check and this read (another process, power loss); then it is
  // restored from the backup and read once more, the connection to the damaged file closed first.
  Statement stmt;
  ret = Prepare(db.get(), sql, stmt);
  if (ret == SQLITE_NOTADB) {
    PLUGIN_LOG(
        ".AppBinaryManager.db is broken! Recover .AppBinaryManager.db from .AppBinaryManager_Backup.db\n");
    stmt.reset();
    db.reset();
    m_versionCpBakUp(VERSION_DB_BAKUP, VERSION_DB);
    ret = Open(VERSION_DB, SQLITE_OPEN_READONLY, db);
    if (ret != SQLITE_OK) {
      PLUGIN_LOG("Open .AppBinaryManager.db fail again. return %d\n", ret);
      return false;
    }
    ret = Prepare(db.get(), sql, stmt);
    if (ret != SQLITE_OK) {
      PLUGIN_LOG("build prepare object fail again : %d", ret);
      return false;
    }
  } else if (ret != SQLITE_OK) {
    PLUGIN_LOG("prepare object fail : %d", ret);
    return false;
  }
  ReadRows(stmt.get(), map);
  return true;
}

bool VersionSqliteDB::m_openDBCheck() {
  // Another process may hold the file for longer than the check's own waits. The default build then finds
  // it invalid and restores it from the backup, losing what that process wrote since; the hardened build
  // waits for it (within the busy budget) and, if it stays held, gives up leaving both files as they are.
  const int busyGiveUps = g_busyGiveUps;
  bool held = false;
  if constexpr (kPluginPolicy.waitForBusyDatabase) held = !WaitWhileHeld(VERSION_DB);
  if (!held && m_validCheck(VERSION_DB)) {
    PLUGIN_LOG("db valid check pass");
    return true;
  }
  if constexpr (kPluginPolicy.waitForBusyDatabase) {
    if (held || g_busyGiveUps != busyGiveUps) {
      PLUGIN_LOG("database [%s] stays busy: neither file restored nor created, the call gives up",
                 VERSION_DB);
      return false;
    }
  }
  // The backup is looked at only now: a bad backup beside a good main file waits for the next write.
  if (m_validCheck(VERSION_DB_BAKUP)) return m_versionCpBakUp(VERSION_DB_BAKUP, VERSION_DB);

  if (access(VERSION_DB, F_OK) == 0) remove(VERSION_DB);
  RemoveStaleJournal(VERSION_DB);  // it would be played back onto the new file
  PLUGIN_LOG("db and backup db are not valid, now create db");
  if (!m_createDataBase(VERSION_DB)) return false;
  m_versionCpBakUp(VERSION_DB, VERSION_DB_BAKUP);
  if constexpr (kPluginPolicy.rebuildLostRecords) m_recordsLost = true;
  return true;
}

bool VersionSqliteDB::m_validCheck(const char* path) {
  if (access(path, F_OK) != 0) {
    PLUGIN_LOG("Database %s is not exist", path);
    return false;
  }
  if (GetFileSize(path) == 0) {
    PLUGIN_LOG("database %s's size is 0", path);
    return false;
  }
  Connection db;
  int ret = Open(path, SQLITE_OPEN_READWRITE, db);
  if (ret != SQLITE_OK) {
    // Names the main file also while the backup is checked; field logs have always read so.
    PLUGIN_LOG("Failed to open database [%s], errcode [%d].\n", VERSION_DB, ret);
    return false;
  }
  PLUGIN_LOG("set DB busy");
  InstallBusyHandler(db.get());

  // Each loop gives another process that holds the file at most three one-second waits.
  int integrityVerified = 0;
  Statement stmt;
  ret = Prepare(db.get(), "PRAGMA integrity_check;", stmt);
  if (ret != SQLITE_OK) {
    PLUGIN_LOG("valid check, dbPath : [%s], PRAGMA integrity_check error: [%d]", path, ret);
  } else {
    // The error rows of a damaged file are passed over: only an "ok" row vouches for it.
    for (int busyCount = 0; busyCount <= kMaxBusyRetries;) {
      ret = sqlite3_step(stmt.get());
      if (ret == SQLITE_ROW) {
        if (IsOkRow(stmt.get())) {
          integrityVerified = 1;
          break;
        }
      } else if (ret == SQLITE_BUSY) {
        PLUGIN_LOG("sqlite3 busy, wait 1 sec and try again. count is %d", busyCount);
        sleep(1);
        ++busyCount;
      } else {
        PLUGIN_LOG("database integrity_check failed with error %d!", ret);
        break;
      }
    }
  }

  TablesFound found;
  stmt.reset();
  if (integrityVerified &&
      Prepare(db.get(), "select name from sqlite_master where type = 'table';", stmt) == SQLITE_OK) {
    for (int busyCount = 0; busyCount <= kMaxBusyRetries;) {
      ret = sqlite3_step(stmt.get());
      if (ret == SQLITE_ROW) {
        NoteTable(stmt.get(), found);
      } else if (ret == SQLITE_BUSY) {
        PLUGIN_LOG("sqlite3 busy, wait 1 sec and try again. count is %d", busyCount);
        sleep(1);
        ++busyCount;
      } else {
        if (ret == SQLITE_DONE) {
          PLUGIN_LOG("%s DB : table check end", path);
        } else {
          PLUGIN_LOG("table not exist with r:%d!", ret);
        }
        break;
      }
    }
  }
  if constexpr (kPluginPolicy.checkPluginColumns) {
    // A table of that name with other columns takes no record of the plug-in's: every write would fail.
    if (found.plugin && !HasPluginColumns(db.get())) {
      PLUGIN_LOG("%s DB : pluginTable has other columns than the plug-in's own, counted as damaged", path);
      found.plugin = false;
    }
  }
  if (found.version && found.plugin) return true;
  PLUGIN_LOG("valid check failed, integrity_verify[%d], version table check[%d], plugin table check[%d]",
             integrityVerified, found.version, found.plugin);
  return false;
}

bool VersionSqliteDB::m_createDataBase(const char* path) {
  Connection db;
  int ret = Open(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, db);
  if (ret != SQLITE_OK) {
    PLUGIN_LOG("Create [%s] failed! return [%d]\n", path, ret);
    return false;
  }
  PLUGIN_LOG("set SQLITE_BUSY callback!\n");
  InstallBusyHandler(db.get());

  PLUGIN_LOG("BEGIN EXCLUSIVE!\n");
  SqliteText error;
  SqliteText sql(sqlite3_mprintf("BEGIN EXCLUSIVE"));
  ret = Exec(db.get(), sql.get(), error);
  if (ret != SQLITE_OK) {
    PLUGIN_LOG("ret = %d, BEGIN EXCLUSIVE: %s", ret, Printable(error));
    return false;
  }
  sql.reset(sqlite3_mprintf(kVersionTableSchema));
  ret = Exec(db.get(), sql.get(), error);
  if (ret != SQLITE_OK) {
    PLUGIN_LOG("Create [versionTable] failed! [%d, %s]\n", ret, Printable(error));
    return false;
  }
  PLUGIN_LOG("Create [versionTable] successfully!\n");
  sql.reset(sqlite3_mprintf(kPluginTableSchema));
  ret = Exec(db.get(), sql.get(), error);
  if (ret != SQLITE_OK) {
    PLUGIN_LOG("Create [pluginTable] failed! [%d, %s]\n", ret, Printable(error));
    return false;
  }
  PLUGIN_LOG("Create [pluginTable] successfully!\n");

  // Both tables exist once their statements ran; a failed COMMIT does not undo that in the result.
  sql.reset(sqlite3_mprintf("COMMIT"));
  ret = Exec(db.get(), sql.get(), error);
  if (ret != SQLITE_OK) {
    PLUGIN_LOG("Database write COMMIT failed, ret = %d, %s\n", ret, Printable(error));
  } else {
    PLUGIN_LOG("Database write COMMIT Success!\n");
  }
  return true;
}

bool VersionSqliteDB::m_versionCpBakUp(const char* source, const char* dest) {
  PLUGIN_LOG("Backup versionDB.\n");
  if (source == nullptr || dest == nullptr) {
    PLUGIN_LOG("source [%s] or Dest [%s] path is NULL! .\n", Printable(source), Printable(dest));
    return false;
  }
  if (access(source, F_OK) != 0) {
    PLUGIN_LOG("source [%s] not exist. .\n", source);
    return false;
  }
  // A link planted at the destination would make a root process write wherever it points.
  struct stat destStat;
  if (lstat(dest, &destStat) == 0 && S_ISLNK(destStat.st_mode)) {
    PLUGIN_LOG("path [%s] is a symb link! there's security risk!", dest);
    return false;
  }

  // The default build truncates the destination when it opens it, before the source size is known, so
  // an empty source leaves an empty destination: one that the open check refuses, never a stale copy
  // that passes for current. The hardened build touches the destination only with a complete copy.
  // Neither side may block: a FIFO at either path is refused or copied from as an empty file.
  if constexpr (!kPluginPolicy.stagedCopies) RemoveStaleJournal(dest);
  const PluginFd in(open(source, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  PluginFd out(kPluginPolicy.stagedCopies ? -1 : PluginOpenForWriting(dest));
  const long long size = in ? static_cast<long long>(lseek(in.get(), 0, SEEK_END)) : -1;
  if (size <= 0) {
    PLUGIN_LOG("The copy Size is [%lld], invalid!\n", size);
    return false;
  }
  PLUGIN_LOG("The copy Size is [%lld]\n", size);
  // Streamed rather than read into one buffer of the reported size: a source that is not a regular
  // file may report a size no allocation could satisfy. The copy is synced, since the pair is what
  // survives a power cut.
  lseek(in.get(), 0, SEEK_SET);
  if constexpr (kPluginPolicy.stagedCopies) {
    if (CopyStaged(in.get(), dest, size)) return true;
    PLUGIN_LOG("copy of [%s] to [%s] not completed, [%s] left as it was", source, dest, dest);
    return false;
  }
  if (out) {
    CopyContent(in.get(), out.get(), size);
    fsync(out.get());
  }
  return true;
}

bool VersionSqliteDB::m_recoverDBExecute(sqlite3*& db, const char* sql) {
  PLUGIN_LOG(
      ".AppBinaryManager.db is broken! Recover .AppBinaryManager.db from .AppBinaryManager_Backup.db\n");
  // The failed connection goes first, its transaction rolled back by the close: it holds the lock the
  // retry needs, and a rollback played any later would write its journal over the restored file.
  Connection(db).reset();
  db = nullptr;
  if (!m_versionCpBakUp(VERSION_DB_BAKUP, VERSION_DB)) {
    PLUGIN_LOG("Copy data from backup db to db failed!");
    return false;
  }
  const int ret = sqlite3_open_v2(VERSION_DB, &db, SQLITE_OPEN_READWRITE, nullptr);
  if (ret != SQLITE_OK) {
    PLUGIN_LOG("Open .AppBinaryManager.db fail again. return %d\n", ret);
    return false;
  }
  SqliteText error;
  const int executed = Exec(db, sql, error);
  if (executed != SQLITE_OK) {
    PLUGIN_LOG("%s failed:[%d, %s]\n", sql, executed, Printable(error));
    return false;
  }
  return true;
}

bool VersionSqliteDB::m_modifyTable(char* sql) {
  if (!m_openDBCheck()) return false;
  Connection db;
  int ret = Open(VERSION_DB, SQLITE_OPEN_READWRITE, db);
  if (ret != SQLITE_OK) {
    PLUGIN_LOG("database  %s open failed! return [%d]\n", VERSION_DB, ret);
    return false;
  }
  InstallBusyHandler(db.get());

  SqliteText error;
  SqliteText begin(sqlite3_mprintf("BEGIN EXCLUSIVE"));
  ret = Exec(db.get(), begin.get(), error);
  if constexpr (kPluginPolicy.waitForBusyDatabase) {
    // Held by another process: waited for within the busy budget, never taken for damage.
    if (ret == SQLITE_BUSY) ret = ExecWaiting(db.get(), begin.get(), error);
    if (ret == SQLITE_BUSY) {
      PLUGIN_LOG("database [%s] stays busy: nothing written, nothing restored", VERSION_DB);
      return false;
    }
  }
  if (ret != SQLITE_OK) {
    PLUGIN_LOG("begin a transaction fail, ret = %d, errormsg: %s", ret, Printable(error));
    if (!RecoverWith(*this, db, begin.get())) return false;
  }
  ret = Exec(db.get(), sql, error);
  if (ret != SQLITE_OK) {
    PLUGIN_LOG("[%s] failed! ret = [%d],error msg = [%s]\n", Printable(sql), ret, Printable(error));
    // Restores the file as the last complete write left it and runs the statement once more, outside
    // any transaction.
    if (!RecoverWith(*this, db, sql)) return false;
  }

  SqliteText commit(sqlite3_mprintf("COMMIT"));
  ret = Exec(db.get(), commit.get(), error);
  if (ret != SQLITE_OK) {
    PLUGIN_LOG("Database write COMMIT failed, ret = %d, %s\n", ret, Printable(error));
  } else {
    PLUGIN_LOG("Database write COMMIT Success!\n");
  }
  // Closed before the copy, so that the backup is taken from the file as this write left it.
  db.reset();
  m_versionCpBakUp(VERSION_DB, VERSION_DB_BAKUP);
  return true;
}
