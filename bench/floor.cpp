// The floor: the work that installing or uninstalling one plug-in package cannot do without, written
// straight on SQLite and POSIX, to measure the plug-in against. It leaves the same database rows, the
// same backup, the same result file bytes and the same terminations as the plug-in on a healthy
// device, and makes the same platform calls (the same number of log lines, the same package-information,
// path and application-service queries), so that plug-in / floor is the price of the plug-in's own code.
// With --bare it makes no platform call at all: the package's facts come from the command line and
// nothing is logged.
//
// Mandatory work, in the plug-in's order: three open checks of the database (access, size, open,
// integrity check, table list), two full reads of the plug-in table, one write inside BEGIN EXCLUSIVE
// and COMMIT followed by a whole-file copy over the backup and its fsync, the result document built and
// written with JsonCpp, and the result file staged with open/write/fsync, renamed over, and its directory
// fsync'ed.
//
//   bench_floor install PKGID [--bare VERSION KIND ROOT APPLIST]
//   bench_floor uninstall PKGID [--bare]
//
// Only the healthy path is covered: a damaged database or a failed write ends the program with status 1.
#include <dirent.h>
#include <dlog.h>
#include <fcntl.h>
#include <json/json.h>
#include <pkgmgr-info.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <tzplatform_config.h>
#include <unistd.h>
#include <vex_app_service.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "hostkit/layout.h"

namespace {

bool g_bare = false;

#define FLOOR_LOG(fmt, ...)                                                                            \
  do {                                                                                                 \
    if (!g_bare) {                                                                                     \
      __dlog_print(LOG_ID_MAIN, DLOG_INFO, "KelvoManager", "%s: %s(%d) > " fmt, "floor.cpp", __func__, \
                   __LINE__, ##__VA_ARGS__);                                                           \
    }                                                                                                  \
  } while (0)

[[noreturn]] void Fail(const char* what) {
  std::fprintf(stderr, "bench_floor: %s\n", what);
  std::exit(1);
}

struct Record {
  std::string name, version, path, pkgid, entryPoints;
  int kind = 1, force = 0, location = 0;
  std::string appList, systemPath;
};

struct Paths {
  std::string rwApp, roApp, database, backup, resultDir, resultFile, staging;
};

const char* PlatformPath(tzplatform_variable id, const char* name) {
  const char* value = g_bare ? std::getenv(name) : tzplatform_getenv(id);
  if (value == nullptr) Fail("no platform path");
  return value;
}

Paths DevicePaths() {
  Paths paths;
  paths.rwApp = std::string(PlatformPath(TZ_SYS_RW_APP, "TZ_SYS_RW_APP")) + "/";
  paths.roApp = std::string(PlatformPath(TZ_SYS_RO_APP, "TZ_SYS_RO_APP")) + "/";
  const std::string db = PlatformPath(TZ_SYS_DB, "TZ_SYS_DB");
  paths.database = db + "/" + hostkit::kDatabaseFile;
  paths.backup = db + "/" + hostkit::kBackupFile;
  paths.resultFile = paths.rwApp + hostkit::kResultFile;
  paths.resultDir = paths.resultFile.substr(0, paths.resultFile.rfind('/'));
  paths.staging = paths.resultFile + "_bak";
  return paths;
}

// ---- database ---------------------------------------------------------------------------------------------

struct Closer {
  void operator()(sqlite3* db) const { sqlite3_close(db); }
};
struct Finalizer {
  void operator()(sqlite3_stmt* stmt) const { sqlite3_finalize(stmt); }
};
using Db = std::unique_ptr<sqlite3, Closer>;
using Stmt = std::unique_ptr<sqlite3_stmt, Finalizer>;

int Busy(void*, int count) { return count < 5 ? (usleep(50000), 1) : 0; }

Db Open(const std::string& path, int flags) {
  sqlite3* raw = nullptr;
  const int ret = sqlite3_open_v2(path.c_str(), &raw, flags, nullptr);
  Db db(raw);
  if (ret != SQLITE_OK) Fail("cannot open the database");
  sqlite3_busy_handler(db.get(), Busy, nullptr);
  return db;
}

Stmt Prepare(sqlite3* db, const char* sql) {
  sqlite3_stmt* raw = nullptr;
  if (sqlite3_prepare_v2(db, sql, -1, &raw, nullptr) != SQLITE_OK) Fail(sqlite3_errmsg(db));
  return Stmt(raw);
}

void OpenCheck(const Paths& paths) {
  struct stat st;
  if (access(paths.database.c_str(), F_OK) != 0 || stat(paths.database.c_str(), &st) != 0 ||
      st.st_size == 0) {
    Fail("no database");
  }
  Db db = Open(paths.database, SQLITE_OPEN_READWRITE);
  FLOOR_LOG("busy handler set");
  Stmt integrity = Prepare(db.get(), "PRAGMA integrity_check;");
  const unsigned char* verdict =
      sqlite3_step(integrity.get()) == SQLITE_ROW ? sqlite3_column_text(integrity.get(), 0) : nullptr;
  if (verdict == nullptr || std::strcmp(reinterpret_cast<const char*>(verdict), "ok") != 0)
    Fail("damaged database");
  Stmt tables = Prepare(db.get(), "select name from sqlite_master where type = 'table';");
  int found = 0;
  while (sqlite3_step(tables.get()) == SQLITE_ROW) {
    const char* name = reinterpret_cast<const char*>(sqlite3_column_text(tables.get(), 0));
    if (name != nullptr && (std::strcmp(name, "pluginTable") == 0 || std::strcmp(name, "versionTable") == 0))
      ++found;
  }
  FLOOR_LOG("%s: tables listed", paths.database.c_str());
  if (found != 2) Fail("tables missing");
  FLOOR_LOG("database checked");
}

std::string Text(sqlite3_stmt* stmt, int column) {
  const unsigned char* text = sqlite3_column_text(stmt, column);
  return text != nullptr ? reinterpret_cast<const char*>(text) : "";
}

// The whole table, by name.
std::vector<Record> ReadTable(const Paths& paths) {
  FLOOR_LOG("reading the table");
  FLOOR_LOG("reading the plug-in records");
  OpenCheck(paths);
  Db db = Open(paths.database, SQLITE_OPEN_READONLY);
  Stmt stmt = Prepare(db.get(), "select * from pluginTable;");
  std::vector<Record> records;
  while (sqlite3_step(stmt.get()) == SQLITE_ROW) {
    Record r;
    r.name = Text(stmt.get(), 0);
    r.version = Text(stmt.get(), 1);
    r.path = Text(stmt.get(), 2);
    r.pkgid = Text(stmt.get(), 3);
    r.entryPoints = Text(stmt.get(), 4);
    r.kind = sqlite3_column_int(stmt.get(), 5);
    r.force = sqlite3_column_int(stmt.get(), 6);
    r.location = sqlite3_column_int(stmt.get(), 7);
    r.appList = Text(stmt.get(), 8);
    r.systemPath = Text(stmt.get(), 9);
    records.push_back(std::move(r));
  }
  std::sort(records.begin(), records.end(), [](const Record& a, const Record& b) { return a.name < b.name; });
  FLOOR_LOG("records read");
  return records;
}

void CopyFile(const std::string& source, const std::string& dest) {
  FLOOR_LOG("copying the database");
  const int in = open(source.c_str(), O_RDONLY | O_CLOEXEC);
  const int out = open(dest.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (in < 0 || out < 0) Fail("cannot copy the database");
  char buffer[65536];
  ssize_t count = 0;
  off_t total = 0;
  while ((count = read(in, buffer, sizeof buffer)) > 0) {
    if (write(out, buffer, static_cast<size_t>(count)) != count) Fail("short copy");
    total += count;
  }
  if (count < 0 || fsync(out) != 0) Fail("copy failed");
  close(in);
  close(out);
  FLOOR_LOG("copied [%lld]", static_cast<long long>(total));
}

void Write(const Paths& paths, char* sql) {
  FLOOR_LOG("sql:[%s]", sql);
  OpenCheck(paths);
  {
    Db db = Open(paths.database, SQLITE_OPEN_READWRITE);
    for (const char* step : {"BEGIN EXCLUSIVE", static_cast<const char*>(sql), "COMMIT"}) {
      if (sqlite3_exec(db.get(), step, nullptr, nullptr, nullptr) != SQLITE_OK) Fail("write failed");
    }
    FLOOR_LOG("committed");
  }
  sqlite3_free(sql);
  CopyFile(paths.database, paths.backup);
  FLOOR_LOG("written");
}

// ---- the result document ----------------------------------------------------------------------------------

// The plug-in must build and write the document with JsonCpp at its default settings (the web runtime
// reads that layout), so the floor does the same: the library's work is part of what an install cannot
// do without.

// The entry points as the web runtime reads them: split at commas, a trailing comma yields nothing.
void AppendEntryPoints(Json::Value& entry, const std::string& joined) {
  for (size_t start = 0; start < joined.size();) {
    const size_t comma = std::min(joined.find(',', start), joined.size());
    entry["entry_points"].append(Json::Value(joined.substr(start, comma - start)));
    start = comma + 1;
  }
}

// A plug-in entry (`full`) or an application entry.
Json::Value Entry(const Record& r, bool full) {
  Json::Value entry;
  entry["name"] = r.name;
  entry["path"] = r.path;
  if (full) {
    entry["forceupdate"] = r.force == 1;
    entry["systempath"] = r.systemPath;
    entry["system"] = r.location != 1;
  }
  if (r.kind == 0) AppendEntryPoints(entry, r.entryPoints);
  return entry;
}

const char* KindName(int kind) { return kind == 0 ? "xwalk" : (kind == 1 || kind == 2) ? "pepper" : nullptr; }

// The running copy of an upgraded plug-in's allow-listed application goes, unless it is in the foreground.
void Terminate(const std::string& appId) {
  if (g_bare) return;
  char* shown = nullptr;
  if (vex_get_current_showing_app(&shown) != 0 || shown == nullptr) {
    FLOOR_LOG("no foreground");
    return;
  }
  const std::string foreground = shown;
  std::free(shown);
  if (!foreground.empty()) {
    vex_app_info_t info;
    if (vex_get_app_info(foreground.c_str(), &info) != 0) return;
    if (appId == info.bytes + VEX_APP_INFO_APPID_OFFSET) {
      FLOOR_LOG("%s in the foreground", appId.c_str());
      return;
    }
  }
  FLOOR_LOG("terminating");
  const int ret = vex_terminate_app(appId.c_str());
  FLOOR_LOG("terminated [%s]: %d", appId.c_str(), ret);
}

// Terminates the allow-listed applications, in record order, while it builds the document.
std::string ResultDocument(const std::vector<Record>& records) {
  Json::Value document;
  for (const Record& r : records) {
    const char* kind = KindName(r.kind);
    if (kind != nullptr) document["forceupdate_webapi"][kind].append(Entry(r, true));
    if (r.appList.empty() || r.location == 0) {
      FLOOR_LOG("[%s] no applications", r.name.c_str());
      continue;
    }
    FLOOR_LOG("applications %s", r.appList.c_str());
    std::string list = r.appList;
    list.erase(std::remove(list.begin(), list.end(), ' '), list.end());
    FLOOR_LOG("applications without spaces %s", list.c_str());
    for (size_t start = 0; start < list.size();) {
      const size_t comma = std::min(list.find(',', start), list.size());
      const std::string appId = list.substr(start, comma - start);
      start = comma + 1;
      FLOOR_LOG("[%s] application [%s]", r.name.c_str(), appId.c_str());
      Terminate(appId);
      if (kind != nullptr) document["upgradable_webapi_applist"][kind][appId].append(Entry(r, false));
    }
  }
  std::ostringstream text;
  const std::unique_ptr<Json::StreamWriter> writer(Json::StreamWriterBuilder().newStreamWriter());
  writer->write(document, &text);
  return text.str();
}

void SyncDirectory(const std::string& path) {
  const int dir = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir < 0 || fsync(dir) != 0) Fail("cannot sync the result directory");
  close(dir);
}

void PublishResult(const Paths& paths, const std::vector<Record>& records) {
  const std::string text = ResultDocument(records);
  if (access(paths.resultDir.c_str(), F_OK) != 0 && mkdir(paths.resultDir.c_str(), 0775) != 0)
    Fail("no result directory");
  const int out =
      open(paths.staging.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0644);
  FLOOR_LOG("[%s] opened", paths.staging.c_str());
  if (out < 0 || write(out, text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
      fsync(out) != 0 || close(out) != 0) {
    Fail("cannot write the result");
  }
  FLOOR_LOG("[%s] written", paths.staging.c_str());
  if (rename(paths.staging.c_str(), paths.resultFile.c_str()) != 0) Fail("cannot rename the result");
  SyncDirectory(paths.resultDir);
}

// ---- package facts ----------------------------------------------------------------------------------------

struct Facts {
  std::string version, kind, root, appList;
};

struct AppInfoDestroyer {
  void operator()(void* handle) const { pkgmgrinfo_appinfo_destroy_appinfo(handle); }
};

// One application query: a fresh handle, one read of it, released at once, as the plug-in does.
std::string AppQuery(const std::string& id, const char* key) {
  pkgmgrinfo_appinfo_h raw = nullptr;
  if (pkgmgrinfo_appinfo_get_appinfo(id.c_str(), &raw) != PMINFO_R_OK) Fail("unknown application");
  std::unique_ptr<void, AppInfoDestroyer> app(raw);
  char* text = nullptr;
  const int ret = key != nullptr ? pkgmgrinfo_appinfo_get_metadata_value(raw, key, &text)
                                 : pkgmgrinfo_appinfo_get_root_path(raw, &text);
  if (ret != PMINFO_R_OK || text == nullptr) return "";
  return text;
}

std::string PackageVersion(const std::string& pkgid) {
  pkgmgrinfo_pkginfo_h package = nullptr;
  if (pkgmgrinfo_pkginfo_get_pkginfo(pkgid.c_str(), &package) != PMINFO_R_OK) Fail("unknown package");
  char* text = nullptr;
  const int ret = pkgmgrinfo_pkginfo_get_version(package, &text);
  const std::string version = ret == PMINFO_R_OK && text != nullptr ? text : "";
  pkgmgrinfo_pkginfo_destroy_pkginfo(package);
  return version;
}

const std::string kNamespace = METADATA_NAMESPACE;

std::string PluginName(const std::string& pkgid) {
  for (const char* fragment : {"pepper.", "xwalk."}) {
    const size_t at = pkgid.find(fragment);
    if (at != std::string::npos) return pkgid.substr(at + std::strlen(fragment));
  }
  Fail("not a plug-in package id");
}

int KindValue(const std::string& kind) {
  return kind == "pepperplugin" ? 1 : kind == "xwalkplugin" ? 0 : kind == "b2bpepperplugin" ? 2 : 99;
}

void BuiltInExtensions() {
  FLOOR_LOG("built-in extensions");
  DIR* dir = opendir("/usr/lib/tizen-extensions-crosswalk/");
  if (dir == nullptr) {
    FLOOR_LOG("no built-in extensions");
    return;
  }
  closedir(dir);  // the benchmark's machine has none; the plug-in's result would differ otherwise
}

void Install(const Paths& paths, const std::string& pkgid, const char* const* bareFacts) {
  FLOOR_LOG("install");
  FLOOR_LOG("pkgid(%s)", pkgid.c_str());
  FLOOR_LOG("key(%s)", (kNamespace + "upgradable_webapi_type").c_str());
  FLOOR_LOG("handler");
  FLOOR_LOG("handler created");
  FLOOR_LOG("first read");
  const std::vector<Record> before = ReadTable(paths);
  BuiltInExtensions();

  Facts facts;
  if (bareFacts != nullptr) {
    facts = {bareFacts[0], bareFacts[1], bareFacts[2], bareFacts[3]};
  } else {
    facts.version = PackageVersion(pkgid);
    FLOOR_LOG("version [%s]", facts.version.c_str());
    facts.kind = AppQuery(pkgid, (kNamespace + "upgradable_webapi_type").c_str());
    FLOOR_LOG("kind [%s]", facts.kind.c_str());
    FLOOR_LOG("kind %d", KindValue(facts.kind));
  }
  Record r;
  r.name = PluginName(pkgid);
  FLOOR_LOG("name [%s]", r.name.c_str());
  const auto recorded =
      std::lower_bound(before.begin(), before.end(), r.name,
                       [](const Record& a, const std::string& name) { return a.name < name; });
  const bool known = recorded != before.end() && recorded->name == r.name;
  FLOOR_LOG("versions [%s] [%s]", facts.version.c_str(), known ? recorded->version.c_str() : "0.0.0");
  if (known && recorded->version == facts.version)
    Fail("nothing to store: the benchmark installs a new version");

  if (bareFacts == nullptr) {
    facts.root = AppQuery(pkgid, nullptr);
    FLOOR_LOG("root [%s]", facts.root.c_str());
  }
  const std::string roResources = paths.roApp + pkgid + "/shared/res/";
  const bool writable = facts.root.find(paths.rwApp) != std::string::npos;
  r.location = !writable ? 0 : access(roResources.c_str(), F_OK) != 0 ? 1 : 2;
  FLOOR_LOG("location %d", r.location);
  if (bareFacts == nullptr) {
    facts.appList = AppQuery(pkgid, (kNamespace + "upgradable_webapi_applist").c_str());
    FLOOR_LOG("applications [%s]", facts.appList.c_str());
  }
  r.kind = KindValue(facts.kind);
  if (r.kind != 1 && r.kind != 2) Fail("the floor stores pepper plug-ins only");
  r.version = facts.version;
  r.path = facts.root + "/shared/res/";
  r.pkgid = pkgid;
  r.appList = facts.appList;
  r.systemPath = r.location == 1 ? "" : roResources;
  FLOOR_LOG("record [%s][%s][%s][%s][%s][%d][%d][%d][%s][%s]", r.name.c_str(), r.version.c_str(),
            r.path.c_str(), r.pkgid.c_str(), r.entryPoints.c_str(), r.kind, r.force, r.location,
            r.appList.c_str(), r.systemPath.c_str());
  Write(paths, sqlite3_mprintf("insert or replace into pluginTable values(%Q,%Q,%Q,%Q,%Q,%d,%d,%d,%Q,%Q)",
                               r.name.c_str(), r.version.c_str(), r.path.c_str(), r.pkgid.c_str(),
                               r.entryPoints.c_str(), r.kind, r.force, r.location, r.appList.c_str(),
                               r.systemPath.c_str()));
  PublishResult(paths, ReadTable(paths));
  FLOOR_LOG("done");
}

void Uninstall(const Paths& paths, const std::string& pkgid) {
  FLOOR_LOG("uninstall");
  FLOOR_LOG("pkgid(%s)", pkgid.c_str());
  FLOOR_LOG("handler");
  FLOOR_LOG("first read");
  ReadTable(paths);
  BuiltInExtensions();
  const std::string name = PluginName(pkgid);
  FLOOR_LOG("name [%s]", name.c_str());
  Write(paths, sqlite3_mprintf("delete from %Q where name=%Q", "pluginTable", name.c_str()));
  PublishResult(paths, ReadTable(paths));
  FLOOR_LOG("done");
}

}  // namespace

int main(int argc, char** argv) {
  const std::string operation = argc >= 3 ? argv[1] : "";
  g_bare = argc >= 4 && std::strcmp(argv[3], "--bare") == 0;
  const bool install = operation == "install" && (g_bare ? argc == 8 : argc == 3);
  const bool uninstall = operation == "uninstall" && argc == (g_bare ? 4 : 3);
  if (!install && !uninstall) {
    std::fprintf(stderr,
                 "usage: %s install PKGID [--bare VERSION KIND ROOT APPLIST]\n"
                 "       %s uninstall PKGID [--bare]\n",
                 argv[0], argv[0]);
    return 2;
  }
  const Paths paths = DevicePaths();
  if (install) {
    Install(paths, argv[2], g_bare ? argv + 4 : nullptr);
  } else {
    Uninstall(paths, argv[2]);
  }
  return 0;
}
