// What the campaigns share, on top of the end-to-end harness's sandbox device: the plug-in called as the
// device's installer calls it (bench_call_plugin, one process per call, so that the write shim can be
// preloaded) under a watchdog; the version database judged as the open check judges it; and the line
// that notes one outcome, which run.sh tallies by class.
#ifndef WUP_TESTS_CAMPAIGNS_CAMPAIGN_H_
#define WUP_TESTS_CAMPAIGNS_CAMPAIGN_H_

#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <tuple>

#include "device.h"

namespace campaign {

namespace fs = std::filesystem;
using Rows = std::vector<std::vector<std::string>>;

inline wup_e2e::Package MakePackage(std::string pkgid, std::string version, std::string kind,
                                    std::string appList = "") {
  wup_e2e::Package package;
  std::tie(package.pkgid, package.version, package.kind, package.appList) =
      std::tie(pkgid, version, kind, appList);
  return package;
}

// The packages of the crash and endurance campaigns: a pepper plug-in, a b2b one, and an xwalk one with two
// extensions, the first named as the plug-in (a cut between their records shows what the version
// comparison makes of a half-stored package, and its uninstall, by the name cut from the id, keeps one).
inline wup_e2e::Package Player(const std::string& version) {
  return MakePackage("com.korvane.tv.pepper.player", version, "pepperplugin", "Ab3Cd5Ef7G.SportsLive");
}
inline wup_e2e::Package Signage(const std::string& version) {
  return MakePackage("com.korvane.tv.pepper.signage", version, "b2bpepperplugin", "Rs8Tu1Vw3X.MovieBox");
}
inline wup_e2e::Package Ambient(const std::string& version) {
  auto package = MakePackage("com.korvane.tv.xwalk.ambient", version, "xwalkplugin", "Hj2Kl4Mn6P.TvGuide");
  auto extension = [&version](const std::string& name) {
    return R"({"name": ")" + name + R"(", "lib": "lib)" + name + R"(.so", "version": ")" + version +
           R"(", "entry_points": ["tizen.)" + name + R"("]})";
  };
  package.descriptions["ambient.json"] = "[" + extension("ambient") + ", " + extension("ambient.light") + "]";
  return package;
}

// Runs `sql` on the database at `path`, created if missing.
inline bool Exec(const std::string& path, const std::string& sql) {
  sqlite3* db = nullptr;
  sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  const std::unique_ptr<sqlite3, int (*)(sqlite3*)> closer(db, sqlite3_close);
  return sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
}

inline Rows Query(sqlite3* db, const char* sql) {
  Rows rows;
  auto collect = [](void* out, int n, char** values, char**) {
    auto& row = static_cast<Rows*>(out)->emplace_back();
    for (int i = 0; i < n; ++i) row.emplace_back(values[i] != nullptr ? values[i] : "");
    return 0;
  };
  sqlite3_exec(db, sql, collect, &rows, nullptr);
  return rows;
}

struct Database {
  std::string bytes;
  bool valid = false;    // non-empty, integrity_check "ok" and both tables: the open check keeps it
  bool accepts = false;  // the plug-in's insert of a record succeeds on it
  Rows rows;             // of the plug-in table, by name, when valid
};

struct Step {
  std::string name, operation;  // install, upgrade or uninstall
  wup_e2e::Package package;
  std::function<void(const wup_e2e::Device&)> damage = nullptr;  // done to the device before the call
};

// The operations of the crash campaign, which the endurance run repeats: installs, an upgrade, a downgrade,
// reinstalls, uninstalls and two recoveries.
inline std::vector<Step> Sequence() {
  auto damageMain = [](const wup_e2e::Device& device) {
    wup_test::WriteFile(device.DatabasePath(), std::string(4096, 'x'));
  };
  auto removeResult = [](const wup_e2e::Device& device) { fs::remove(device.ResultPath()); };
  // The main file stays valid, but every insert into it fails inside the write transaction.
  auto refuseInserts = [](const wup_e2e::Device& device) {
    Exec(device.DatabasePath(),
         "create trigger refuse before insert on pluginTable begin select raise(abort, 'x'); end");
  };
  return {
      {"first install", "install", Player("1.0.0")},
      {"b2b install", "install", Signage("1.0.0")},
      {"xwalk install", "install", Ambient("1.0.0")},
      {"upgrade", "upgrade", Player("1.1.0")},
      {"downgrade", "upgrade", Player("1.0.0")},
      {"same-version reinstall", "install", Player("1.0.0")},
      {"same-version reinstall, result file missing", "install", Player("1.0.0"), removeResult},
      {"uninstall", "uninstall", Signage("1.0.0")},
      {"damaged main file", "install", Signage("1.1.0"), damageMain},
      {"statement failing in the transaction", "upgrade", Ambient("1.1.0"), refuseInserts},
      {"xwalk uninstall", "uninstall", Ambient("1.1.0")},
  };
}

// Judged on a scratch copy (with its journal, which SQLite plays back as the plug-in's next open would),
// opened read-write as the plug-in opens it, so that looking changes nothing at the path.
inline Database Inspect(const std::string& path, const std::string& scratch) {
  Database database;
  database.bytes = wup_test::ReadFile(path);
  wup_test::RemoveTree(scratch + "-journal");
  if (fs::exists(path + "-journal")) fs::copy_file(path + "-journal", scratch + "-journal");
  wup_test::WriteFile(scratch, database.bytes);
  if (database.bytes.empty()) return database;
  sqlite3* db = nullptr;
  sqlite3_open_v2(scratch.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr);
  const std::unique_ptr<sqlite3, int (*)(sqlite3*)> closer(db, sqlite3_close);
  database.valid = Query(db, "PRAGMA integrity_check") == Rows{{"ok"}} &&
                   Query(db,
                         "select 1 from sqlite_master where type = 'table' and "
                         "name in ('pluginTable', 'versionTable')")
                           .size() == 2;
  if (database.valid) database.rows = Query(db, "select * from pluginTable order by name");
  database.accepts = sqlite3_exec(db,
                                  "PRAGMA synchronous = OFF; insert or replace into pluginTable "
                                  "values('target', '3.0', '', '', '', 1, 0, 1, '', '')",
                                  nullptr, nullptr, nullptr) == SQLITE_OK;
  return database;
}

// One package-manager call in a fresh process, with `environment` ("NAME=VALUE") added to the device's;
// the watchdog turns a hang into SIGALRM. Returns the exit status, or 128 + the signal.
inline int Call(const std::string& operation, const wup_e2e::Package& package,
                const std::vector<std::string>& environment = {}, unsigned timeout = 60) {
  std::vector<std::string> args = {WUP_CALL_PLUGIN, WUP_PLUGIN_LIBRARY, operation, package.pkgid,
                                   package.pkgid};
  for (const auto& [key, value] : wup_e2e::MetadataOf(package))
    args.push_back(std::string(key) + "=" + value);
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    for (const std::string& entry : environment) putenv(const_cast<char*>(entry.c_str()));
    dup2(STDERR_FILENO, STDOUT_FILENO);  // standard output carries the notes
    alarm(timeout);                      // survives the exec
    execv(argv[0], argv.data());
    _exit(127);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// One outcome of one aspect at one point; a finding is an outcome that must never happen.
inline void Note(const std::string& aspect, const std::string& outcome, const std::string& where,
                 bool finding = false) {
  std::printf("%s\t%s\t%s\t%d\n", aspect.c_str(), outcome.c_str(), where.c_str(), finding ? 1 : 0);
}

}  // namespace campaign

#endif  // WUP_TESTS_CAMPAIGNS_CAMPAIGN_H_
