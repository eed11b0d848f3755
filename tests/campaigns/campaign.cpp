// The campaigns: the plug-in attacked the way nobody lists, driven as the device's installer drives it.
//   campaign crash kill|powercut|enospc [EVERY [ONLY]]   each operation of a sequence cut short at each of
//                                                        its write-side calls, then called again
//   campaign corrupt [FIRST:END [TIMEOUT]]               seeded damaged database pairs, one install each
//   campaign endurance [OPERATIONS]                      the sequence again and again in one process
// They stand on the end-to-end harness's sandbox device, call the plug-in through wup_call_plugin (a
// process per call, so that the write shim can be preloaded) under a watchdog, judge the version database
// as the open check judges it, and note each outcome for run.sh, which tallies them by class and tells
// the modes, options and classes.
//
// Inspect and Model are a deliberate second opinion: they judge the database files and predict the open
// check's decisions from what the device's installer would see, written apart from the plug-in's own code
// (only the file paths and the table definitions come from hostkit/layout.h), so that the two can
// disagree.
#include <dlfcn.h>
#include <json/json.h>
#include <malloc.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <valgrind/valgrind.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <regex>
#include <sstream>
#include <tuple>

#include "device.h"
#include "hostkit/layout.h"

namespace fs = std::filesystem;
using wup_e2e::Has;
using wup_e2e::Plugin;

namespace {

using Rows = std::vector<std::vector<std::string>>;

wup_e2e::Package MakePackage(std::string id, std::string version, std::string kind, std::string apps = "") {
  wup_e2e::Package package;
  std::tie(package.pkgid, package.version, package.kind, package.appList) = std::tie(id, version, kind, apps);
  return package;
}

// The packages of the crash and endurance campaigns: a pepper plug-in, a b2b one, and an xwalk one with two
// extensions, the first named as the plug-in (a cut between their records shows what the version
// comparison makes of a half-stored package, and its uninstall, by the name cut from the id, keeps one).
wup_e2e::Package Player(const std::string& version) {
  return MakePackage("com.korvane.tv.pepper.player", version, "pepperplugin", "Ab3Cd5Ef7G.SportsLive");
}
wup_e2e::Package Signage(const std::string& version) {
  return MakePackage("com.korvane.tv.pepper.signage", version, "b2bpepperplugin", "Rs8Tu1Vw3X.MovieBox");
}
wup_e2e::Package Ambient(const std::string& version) {
  auto package = MakePackage("com.korvane.tv.xwalk.ambient", version, "xwalkplugin", "Hj2Kl4Mn6P.TvGuide");
  auto extension = [&version](const std::string& name) {
    return R"({"name": ")" + name + R"(", "lib": "lib)" + name + R"(.so", "version": ")" + version +
           R"(", "entry_points": ["tizen.)" + name + R"("]})";
  };
  package.descriptions["ambient.json"] = "[" + extension("ambient") + ", " + extension("ambient.light") + "]";
  return package;
}

// Runs `sql` on the database at `path`, created if missing.
bool Exec(const std::string& path, const std::string& sql) {
  sqlite3* db = nullptr;
  sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  const std::unique_ptr<sqlite3, int (*)(sqlite3*)> closer(db, sqlite3_close);
  return sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
}

Rows Query(sqlite3* db, const char* sql) {
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
std::vector<Step> Sequence() {
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
Database Inspect(const std::string& path, const std::string& scratch) {
  Database database;
  database.bytes = wup_test::ReadFile(path);
  wup_test::RemoveTree(scratch + "-journal");
  if (fs::exists(path + "-journal")) fs::copy_file(path + "-journal", scratch + "-journal");
  wup_test::WriteFile(scratch, database.bytes);
  if (database.bytes.empty()) return database;
  sqlite3* db = nullptr;
  sqlite3_open_v2(scratch.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr);
  const std::unique_ptr<sqlite3, int (*)(sqlite3*)> closer(db, sqlite3_close);
  const char* const valid =
      "select (select * from pragma_integrity_check) = 'ok' and (select count(*) from "
      "sqlite_master where type = 'table' and name in ('pluginTable', 'versionTable')) = 2";
  database.valid = Query(db, valid) == Rows{{"1"}};
  if (database.valid) database.rows = Query(db, "select * from pluginTable order by name");
  database.accepts = Exec(scratch,
                          "PRAGMA synchronous = OFF; insert or replace into pluginTable values("
                          "'target', '3.0', '', '', '', 1, 0, 1, '', '')");
  return database;
}

// One package-manager call in a fresh process, with `environment` ("NAME=VALUE") added to the device's;
// the watchdog turns a hang into SIGALRM. Returns the exit status, or 128 + the signal.
int CallPlugin(const std::string& operation, const wup_e2e::Package& package,
               const std::vector<std::string>& environment = {}, unsigned timeout = 60) {
  std::vector<std::string> args = {WUP_CALL_PLUGIN, WUP_PLUGIN_LIBRARY, operation, package.pkgid,
                                   package.pkgid};
  for (const auto& [key, value] : wup_e2e::MetadataOf(package))
    args.push_back(std::string(key) + "=" + value);
  std::vector<char*> argv(args.size() + 1);  // null-terminated
  std::transform(args.begin(), args.end(), argv.begin(), [](std::string& arg) { return arg.data(); });
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
void NoteAt(const std::string& at, const std::string& aspect, const std::string& outcome, bool finding) {
  std::printf("%s\t%s\t%s\t%d\n", aspect.c_str(), outcome.c_str(), at.c_str(), finding ? 1 : 0);
}

// --- The crash campaign ---------------------------------------------------------------------------------

const char kCreateDb[] = "db and backup db are not valid, now create db";

struct State {
  std::optional<std::string> result;
  Database main, backup;
  std::vector<std::string> log;
};

// The rows of the package (own) or of every other package.
Rows RowsOf(const Rows& rows, const std::string& pkgid, bool own) {
  Rows selected;
  for (const auto& row : rows)
    if ((row[3] == pkgid) == own) selected.push_back(row);
  return selected;
}

bool IsJson(const std::string& text) {
  Json::Value document;
  std::istringstream in(text);
  return !text.empty() && Json::parseFromStream(Json::CharReaderBuilder(), in, &document, nullptr);
}

bool SaysWhatFailed(const std::vector<std::string>& log) {
  static const std::regex failure("fail|invalid|not valid|broken", std::regex::icase);
  return std::any_of(log.begin(), log.end(), [](auto& line) { return std::regex_search(line, failure); });
}

void Copy(const std::string& from, const std::string& to) {
  fs::remove_all(to);
  fs::copy(from, to, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
}

class Campaign {
 public:
  Campaign(std::string mode, long every, long at) : mode_(std::move(mode)), every_(every), at_(at) {
    device_.layout().Export();
  }
  ~Campaign() {
    if (std::getenv("WUP_E2E_KEEP") == nullptr) fs::remove_all(work_);  // else kept with the device
  }

  void Play(const std::vector<Step>& steps) {
    long points = 0;
    for (const Step& step : steps) {
      device_.Place(step.package);
      if (step.damage) step.damage(device_);
      Copy(root_, work_ + "/before");
      before_ = Observe();
      Shimmed(step, 0);
      calls_ = static_cast<long>(wup_test::ReadLines(work_ + "/trace").size());
      once_ = Observe();
      CallPlugin(step.operation, step.package);
      settled_ = Observe();
      where_ = step.name + ", uninterrupted";
      if (once_.main.rows != settled_.main.rows || once_.result != settled_.result)
        Note("uninterrupted operation", "needs a second run to reach its end", true);
      Copy(root_, work_ + "/after");
      const long last = calls_ + (mode_ == "powercut" ? 1 : 0);  // a power cut may come after the end too
      for (long k = 1; k <= last; ++k) {
        if (at_ != 0 ? k != at_ : (k - 1) % every_ != 0 && k + every_ <= last) continue;
        Copy(work_ + "/before", root_);
        Point(step, k);
        ++points;
      }
      std::printf("  %s: records %zu -> %zu, %ld write-side calls\n", step.name.c_str(),
                  before_.main.rows.size(), settled_.main.rows.size(), calls_);
      Copy(work_ + "/after", root_);
    }
    std::printf("mode %s: %ld points\n", mode_.c_str(), points);
  }

 private:
  // With the write shim preloaded, cutting at call k (none for k = 0); its trace numbers the calls.
  int Shimmed(const Step& step, long k) const {
    fs::remove(work_ + "/trace");
    return CallPlugin(step.operation, step.package,
                      {"LD_PRELOAD=" WUP_WRITE_SHIM, "WUP_SHIM_TRACE=" + work_ + "/trace",
                       (mode_ == "enospc" ? "WUP_SHIM_FULL_AT=" : "WUP_SHIM_KILL_AT=") + std::to_string(k),
                       std::string("WUP_SHIM_POWERCUT=") + (mode_ == "powercut" ? "1" : "0")});
  }

  State Observe() const {
    State state{std::nullopt, Inspect(device_.DatabasePath(), work_ + "/inspect.db"),
                Inspect(device_.BackupPath(), work_ + "/inspect.db"), device_.Log()};
    if (device_.ResultFileExists()) state.result = device_.ResultFile();
    device_.ClearLog();
    return state;
  }

  void Point(const Step& step, long k) {
    const int status = Shimmed(step, k);
    const std::vector<std::string> trace = wup_test::ReadLines(work_ + "/trace");  // names the call cut
    where_ =
        step.name + ", cut at call " +
        (k <= static_cast<long>(trace.size()) ? std::regex_replace(trace[k - 1], std::regex(root_ + "/"), "")
                                              : std::to_string(k) + " (after the last call)");
    if (status != (mode_ == "enospc" || k > calls_ ? 0 : 128 + SIGKILL))
      Note("cut run", "ended with status " + std::to_string(status), true);
    const State cut = Observe();

    // Right after the cut the result file is absent only if it was before, and else a whole document.
    const std::string result = !cut.result                    ? (before_.result ? "gone" : "absent")
                               : cut.result == before_.result ? "old"
                               : cut.result == once_.result || cut.result == settled_.result ? "new"
                               : cut.result->empty()                                         ? "empty"
                                                                                             : "partial";
    Note("result file after the cut", result, result != "absent" && result != "old" && result != "new");
    const bool says = SaysWhatFailed(cut.log);
    if (mode_ == "enospc" && (cut.main.rows != settled_.main.rows || cut.result != settled_.result))
      Note("log of a run that fell short", says ? "says what failed" : "silent", !says);
    Note("open check at the next call", !before_.main.valid && !before_.backup.valid
                                            ? "no database before the operation"
                                        : cut.main.valid   ? "main valid"
                                        : cut.backup.valid ? "main restored from the backup"
                                                           : "both invalid: database created afresh");

    // The next call works; the records are as the uninterrupted operation left them, or lost only the ways
    // the design keeps; the result file is current, or stale only the way the design keeps.
    const int next = CallPlugin(step.operation, step.package);
    Note("next call", next == 0 ? "ended normally" : next == 128 + SIGALRM ? "hung" : "failed", next != 0);
    const State after = Observe();
    Note("main file after the next call", after.main.valid ? "valid" : "invalid", !after.main.valid);
    const Rows& rows = after.main.rows;
    const std::string& pkgid = step.package.pkgid;
    // With every record lost, the next call stores the package's own again (an uninstall stores nothing).
    const bool allLost =
        rows == (step.operation == "uninstall" ? Rows{} : RowsOf(settled_.main.rows, pkgid, true));
    // On a full disk the backup refresh truncates the backup and then cannot write it, yet succeeds; once
    // the main file fails too, the open check finds both invalid and starts an empty database.
    const bool recreated = mode_ == "enospc" && (before_.main.valid || before_.backup.valid) &&
                           (Has(cut.log, kCreateDb) || Has(after.log, kCreateDb));
    std::string records = "lost";
    if (rows == settled_.main.rows) {
      records = "as uninterrupted";
    } else if (allLost && recreated) {
      records = "all lost: both files invalid, the backup emptied by its refresh (kept)";
    } else if (allLost && Has(cut.log, "update fail!clear DB for next boot")) {
      records = "all lost: cleared after the failed rewrite (kept)";
    } else if (RowsOf(rows, pkgid, false) == RowsOf(settled_.main.rows, pkgid, false) &&
               Has(after.log, "no need insert")) {
      records = "package half-stored: its version counts as recorded";
    }
    Note("records after the next call", records, records == "lost");
    std::string current = "other";
    if (after.result == settled_.result) {
      current = "current";
    } else if (after.result && (after.result == before_.result || after.result == once_.result)) {
      current = "stale until the next change (kept)";
    } else if (records.rfind("all lost", 0) == 0 && after.result && IsJson(*after.result)) {
      current = "rebuilt from the records left";
    }
    Note("result file after the next call", current, current == "other");
    Note("backup after the next call", !after.backup.valid         ? "invalid until the next write"
                                       : after.backup.rows == rows ? "equal to the main file"
                                                                   : "behind the main file");
  }

  void Note(const std::string& aspect, const std::string& outcome, bool finding = false) const {
    NoteAt(where_, aspect, outcome, finding);
  }

  std::string mode_;
  long every_, at_;  // at_: the one point to try, or 0
  wup_e2e::Device device_;
  std::string root_ = device_.layout().root, work_ = wup_test::MakeTempDir("wup-crash"), where_;
  State before_, once_, settled_;  // of the operation at hand, uncut
  long calls_ = 0;
};

// --- The corruption campaign ----------------------------------------------------------------------------

const char kTarget[] = "target", kTargetVersion[] = "3.0";  // the plug-in every case installs
constexpr size_t kPageSize = 4096;

// A regular file as the version database sees it; what the plug-in writes is known by its records only, and
// `generation` tells copies of one content apart from other contents.
struct Content : Database {
  inline static int generations = 0;
  bool bytesKnown = true;
  int generation = ++generations;
  std::map<std::string, std::string> Versions() const {
    std::map<std::string, std::string> versions;
    for (const auto& row : rows) versions[row[0]] = row[1];
    return versions;
  }
};

struct Entry {  // what a path holds; `content` is the regular file there, or behind the link
  enum Kind { kMissing, kFile, kDir, kFifo, kLink } kind = kMissing;
  bool emptyDir = false;
  std::string target;  // of a link
  std::optional<Content> content;
};

Entry Observe(const std::string& path, const std::string& scratch) {
  Entry entry;
  std::error_code ignored;
  const fs::file_status status = fs::symlink_status(path, ignored);
  entry.kind = fs::is_symlink(status)     ? Entry::kLink
               : fs::is_directory(status) ? Entry::kDir
               : fs::is_fifo(status)      ? Entry::kFifo
               : fs::exists(status)       ? Entry::kFile
                                          : Entry::kMissing;
  if (entry.kind == Entry::kLink) entry.target = fs::read_symlink(path, ignored);
  entry.emptyDir = entry.kind == Entry::kDir && fs::is_empty(path, ignored);
  if (fs::is_regular_file(path, ignored)) entry.content = Content{Inspect(path, scratch + "/inspect.db")};
  return entry;
}

// The open check's decision table, the guarded write and the backup copy, stepped through one install on a
// fresh device: the constructor's read, the write of the package's record, and the read that rebuilds the
// missing result file. Paths that are not regular files end where the described paths take them: a link
// or directory is never written as a copy's destination, a FIFO there is replaced by the copy; a link at
// the main path is followed by SQLite (so a database behind it is used, and one is created behind a
// dangling link); the removal before a re-creation takes away a link, a FIFO or an empty directory, not
// a directory with something in it. The label it gives is the class run.sh explains.
struct Model {
  std::string Install() {
    std::string label = OpenCheck();
    if (OpenCheck(), !Valid(main)) {
      label += "+not-stored";
    } else if (Insert(main)) {
      Copy(main, backup);
    } else if (Copy(backup, main) && Insert(main)) {
      Copy(main, backup);
      label += "+retried";
    } else {
      label += "+lost";
    }
    OpenCheck();
    published = Valid(main) && main.content->Versions().count(kTarget) != 0;
    return label;
  }

  static bool Exists(const Entry& entry) {
    return entry.kind == Entry::kDir || entry.kind == Entry::kFifo || entry.content;
  }
  static bool Valid(const Entry& entry) { return entry.content && entry.content->valid; }

  // The destination is opened (created, truncated) before the source's size is known.
  bool Copy(const Entry& source, Entry& dest) {
    if (!Exists(source) || dest.kind == Entry::kLink || dest.kind == Entry::kDir) return false;
    dest.kind = Entry::kFile;
    dest.content = Content();
    if (!source.content || (source.content->bytesKnown && source.content->bytes.empty())) return false;
    dest.content = source.content;
    return true;
  }

  bool Insert(Entry& entry) {
    Content& content = *entry.content;
    if (!content.accepts) return false;
    content.rows.push_back({kTarget, kTargetVersion});  // only the versions are compared
    content.bytesKnown = false;
    content.generation = ++Content::generations;
    return true;
  }

  std::string OpenCheck() {
    if (Valid(main)) return "kept";
    if (Valid(backup)) return Copy(backup, main) ? "restored" : "refused";
    const bool danglingLink = main.kind == Entry::kLink && !main.content;
    if (Exists(main) && (main.kind != Entry::kDir || main.emptyDir)) main = Entry();
    if (main.kind != Entry::kMissing && !danglingLink) return "uncreatable";
    if (!danglingLink) main.kind = Entry::kFile;
    main.content = Content();
    main.content->valid = main.content->accepts = true;
    main.content->bytesKnown = false;
    Copy(main, backup);
    return "recreated";
  }

  Entry main, backup;
  bool published = false;
};

// A version database as the plug-in leaves it (schema "ours"), or with a table missing or foreign, with
// enough rows for the plug-in table to span pages.
std::string BuildDatabase(const std::string& scratch, const std::string& schema, const std::string& version) {
  const std::string path = scratch + "/build.db";
  wup_test::RemoveTree(path);
  std::string sql = "PRAGMA synchronous=OFF; BEGIN;";
  if (schema != "no-versionTable") sql += hostkit::kVersionTableSchema + std::string(";");
  if (schema == "other-pluginTable") sql += "create table pluginTable(name TEXT PRIMARY KEY, version TEXT);";
  if (schema == "ours" || schema == "no-versionTable") sql += hostkit::kPluginTableSchema + std::string(";");
  if (schema != "no-pluginTable") {
    sql += "insert into pluginTable(name, version) values('target', '" + version + "'), ('alpha', '" +
           version + "');";
    for (int i = 0; i < 30; ++i)
      sql += "insert into pluginTable(name, version) values('pad" + std::to_string(i) +
             std::string(250, 'x') + "', '1');";
  }
  Exec(path, sql + "COMMIT;");
  return wup_test::ReadFile(path);
}

const char* const kKinds[] = {
    "intact",    "truncated", "flipped-bytes",   "zeroed-page",     "garbage",
    "empty",     "missing",   "no-versionTable", "no-pluginTable",  "other-pluginTable",
    "directory", "fifo",      "link-to-valid",   "link-to-damaged", "link-dangling"};
constexpr uint64_t kKindCount = std::size(kKinds);

struct Damage {
  size_t Below(size_t bound) { return bound == 0 ? 0 : rng() % bound; }

  // Cut at a page boundary or anywhere, a few bytes flipped, or one page zeroed.
  std::string Damaged(const std::string& kind, std::string bytes) {
    const size_t pages = bytes.size() / kPageSize;
    if (kind == "truncated") {
      bytes.resize(Below(2) ? kPageSize * (1 + Below(pages - 1)) : 1 + Below(bytes.size() - 1));
    } else if (kind == "flipped-bytes") {
      for (size_t n = 1 + Below(8); n > 0; --n)
        bytes[Below(bytes.size())] ^= static_cast<char>(1 + Below(255));
    } else {
      bytes.replace(kPageSize * Below(pages), kPageSize, kPageSize, '\0');
    }
    return bytes;
  }

  std::string Bytes(const std::string& kind, const std::string& base) {
    if (kind == "intact") return base;
    if (kind == "empty") return "";
    if (kind.find("Table") != std::string::npos) return BuildDatabase(scratch, kind, "4.0");
    if (kind != "garbage") return Damaged(kind, base);
    std::string bytes(1 + Below(3 * kPageSize), '\0');
    for (char& c : bytes) c = static_cast<char>(rng());
    return bytes;
  }

  // Puts damage of `kind` at `path`, starting from the database `base`; links point into `elsewhere`.
  void Place(const std::string& kind, const std::string& path, const std::string& base,
             const std::string& elsewhere) {
    const std::string aside = elsewhere + "/" + fs::path(path).filename().string();
    if (kind == "directory") {
      wup_test::MakeDirs(path);
      if (Below(2)) wup_test::WriteFile(path + "/left-over", "x");
    } else if (kind == "fifo") {
      mkfifo(path.c_str(), 0644);
    } else if (kind == "link-dangling") {
      fs::create_symlink(aside + ".none", path);
    } else if (kind == "link-to-valid" || kind == "link-to-damaged") {
      wup_test::WriteFile(aside, kind == "link-to-valid" ? base : Damaged(kKinds[1 + Below(3)], base));
      fs::create_symlink(aside, path);
    } else if (kind != "missing") {
      wup_test::WriteFile(path, Bytes(kind, base));
    }
  }

  std::mt19937_64 rng;
  std::string scratch;
};

// What the model expects at a path against what is there: known contents byte for byte, the plug-in's own
// by validity and records.
std::string Compare(const char* what, const Entry& expected, const Entry& actual) {
  auto describe = [](const Entry& entry) {
    static const char* const kNames[] = {"missing", "file", "directory", "fifo", "link"};
    std::string text = kNames[entry.kind];
    if (entry.content) text += entry.content->valid ? " valid" : " invalid";
    for (const auto& [name, version] :
         entry.content ? entry.content->Versions() : std::map<std::string, std::string>())
      text += name.compare(0, 3, "pad") != 0 ? " " + name + "@" + version : "";
    return text;
  };
  const auto &e = expected.content, &a = actual.content;
  const bool same =
      expected.kind == actual.kind && expected.target == actual.target && e.has_value() == a.has_value() &&
      (!e || (e->bytesKnown ? e->bytes == a->bytes : e->valid == a->valid && e->Versions() == a->Versions()));
  if (same) return "";
  return std::string(" ") + what + ": expected " + describe(expected) + ", found " + describe(actual) + ";";
}

// Seeds 0 to 224 give every pair of kinds once; later seeds go round again with other damage.
void RunCase(uint64_t seed, unsigned timeout, const std::string& scratch) {
  const std::string mainKind = kKinds[seed % kKindCount],
                    backupKind = kKinds[(seed / kKindCount + seed) % kKindCount];
  wup_e2e::Device device;
  device.layout().Export();
  const std::string elsewhere = device.layout().root + "/elsewhere";
  wup_test::MakeDirs(elsewhere);
  const auto package =
      MakePackage(std::string("com.korvane.tv.pepper.") + kTarget, kTargetVersion, "pepperplugin");
  device.Place(package);

  Damage damage{std::mt19937_64(seed), scratch};
  const bool swapped = damage.Below(4) == 0;
  static const std::string older = BuildDatabase(scratch, "ours", "1.0"),
                           newer = BuildDatabase(scratch, "ours", "2.0");
  damage.Place(mainKind, device.DatabasePath(), swapped ? older : newer, elsewhere);
  damage.Place(backupKind, device.BackupPath(), swapped ? newer : older, elsewhere);

  Model model{Observe(device.DatabasePath(), scratch), Observe(device.BackupPath(), scratch)};
  std::map<std::string, std::string> aside;  // files behind links, byte for byte
  for (const auto& file : fs::directory_iterator(elsewhere))
    aside[file.path()] = wup_test::ReadFile(file.path());
  const std::string label = model.Install();
  const std::string where = "seed " + std::to_string(seed) + ": main " + mainKind + ", backup " + backupKind +
                            (swapped ? " (swapped)" : "");
  NoteAt(where, "expected", label, false);

  const int status = CallPlugin("install", package, {}, timeout);
  if (status != 0) {
    const std::string finding = status == 128 + SIGALRM ? "hang" : "crash";
    return NoteAt(where + ", status " + std::to_string(status), "finding", finding, true);
  }
  const Entry &main = model.main, &backup = model.backup;
  std::string diff = Compare("main", main, Observe(device.DatabasePath(), scratch)) +
                     Compare("backup", backup, Observe(device.BackupPath(), scratch));
  if (main.content && backup.content && !main.content->bytesKnown &&
      main.content->generation == backup.content->generation &&
      wup_test::ReadFile(device.DatabasePath()) != wup_test::ReadFile(device.BackupPath())) {
    diff += " backup: not a copy of main;";
  }
  for (const auto& [path, bytes] : aside) {
    const bool behindMain = main.kind == Entry::kLink && main.target == path;
    if (!behindMain && wup_test::ReadFile(path) != bytes) diff += " " + path + " written through a link;";
  }
  const bool published = device.ResultFile().find("\"name\" : \"target\"") != std::string::npos;
  if (device.ResultFile().empty() || published != model.published)
    diff += " result file: expected " + std::string(model.published ? "" : "no ") + "record of target;";
  if (!diff.empty()) NoteAt(where + ", expected " + label + ":" + diff, "finding", "mismatch", true);
}

// --- The endurance run ----------------------------------------------------------------------------------

// What the process holds (an array: measuring allocates nothing), printed on one line.
enum Figure { kFds, kDatabaseFds, kPkgInfoHandles, kSqliteBytes, kHeapBytes, kResidentKiB, kFigures };
const char* const kFigureNames[] = {"fds",      "database fds", "pkginfo handles",
                                    "SQLite B", "heap B",       "resident KiB"};
using Usage = std::array<long long, kFigures>;

Usage Measure(void* library) {
  Usage usage = {-1};  // not counting the listing's own descriptor
  for (const auto& fd : fs::directory_iterator("/proc/self/fd")) {
    std::error_code closed;
    ++usage[kFds];
    const std::string file = read_symlink(fd, closed).filename().string();  // journals carry the name too
    usage[kDatabaseFds] += file.find(hostkit::kDatabaseFile) == 0 || file.find(hostkit::kBackupFile) == 0;
  }
  if (auto openHandles = reinterpret_cast<int (*)()>(dlsym(library, "host_pkgmgrinfo_open_handles")))
    usage[kPkgInfoHandles] = openHandles();
  usage[kSqliteBytes] = sqlite3_memory_used();
  const struct mallinfo2 heap = mallinfo2();
  usage[kHeapBytes] = static_cast<long long>(heap.uordblks + heap.hblkhd);
  std::ifstream("/proc/self/statm") >> usage[kResidentKiB] >> usage[kResidentKiB];  // size, then resident
  usage[kResidentKiB] *= sysconf(_SC_PAGESIZE) / 1024;
  for (int i = 0; i < kFigures; ++i)
    std::printf("%s %lld%s", kFigureNames[i], usage[i], i + 1 < kFigures ? ", " : "\n");
  return usage;
}

struct Run {
  Run() {
    device.layout().Export();
    device.SetForeground("Ab3Cd5Ef7G.SportsLive");    // the player's: terminated when it is upgraded
    library = dlopen(WUP_PLUGIN_LIBRARY, RTLD_LAZY);  // it builds its paths when first loaded: after Export
  }
  ~Run() { dlclose(library); }

  void Expect(bool holds, const char* what) {
    if (!holds) std::printf("not so: %s\n", what);
    failures += holds ? 0 : 1;
  }

  // One package-manager call into a freshly loaded plug-in, the package registered before it (and taken
  // away after an uninstall), `forced` ("NAME=VALUE") failing a platform call for this call alone.
  void Call(const Step& step, const std::string& forced = "") {
    if (step.damage) step.damage(device);
    device.Place(step.package);
    const std::string name = forced.substr(0, forced.find('=')), &pkgid = step.package.pkgid;
    if (!forced.empty()) setenv(name.c_str(), forced.substr(name.size() + 1).c_str(), 1);
    void* loaded = dlopen(WUP_PLUGIN_LIBRARY, RTLD_LAZY | RTLD_LOCAL);  // a failure throws in Plugin
    Plugin plugin(loaded);
    const auto entry = step.operation == "install"   ? &Plugin::Install
                       : step.operation == "upgrade" ? &Plugin::Upgrade
                                                     : &Plugin::Uninstall;
    Expect((plugin.*entry)(pkgid.c_str(), pkgid.c_str(), MetadataOf(step.package)) == 0, "a call returns 0");
    dlclose(loaded);
    if (!forced.empty()) unsetenv(name.c_str());
    if (step.operation == "uninstall") fs::remove(device.layout().rwPackages + "/" + pkgid + ".xml");
    ++calls;
  }

  // One cycle: the crash campaign's operations, then the failure paths they lack (platform calls that fail,
  // both files lost, the uninstall of a package never stored, a result file that cannot be written), which
  // leave nothing recorded: from the second cycle on, each starts from the same state.
  void Cycle() {
    for (const Step& step : Sequence()) Call(step);
    Call({"", "upgrade", Player("2")}, "HOST_VEX_FAIL=vex_terminate_app");
    Call({"", "upgrade", Signage("2")}, "HOST_VEX_FAIL=vex_get_current_showing_app");
    Call({"", "upgrade", Player("3")}, "HOST_PKGMGRINFO_FAIL=pkgmgrinfo_appinfo_get_appinfo");
    Call({"", "upgrade", Signage("3")}, "HOST_PKGMGRINFO_FAIL=pkgmgrinfo_pkginfo_get_version");
    Call({"", "upgrade", Ambient("2"), [](const wup_e2e::Device& device) {
            wup_test::WriteFile(device.DatabasePath(), "");
            wup_test::WriteFile(device.BackupPath(), "");
          }});
    Expect(device.Rows().size() == 2, "the recreated database holds only the two records stored since");
    for (const auto& package : {Player("3"), Signage("3"), Ambient("2"),
                                MakePackage("com.korvane.tv.pepper.unknown", "1", "pepperplugin")})
      Call({"", "uninstall", package});  // the xwalk package's second extension keeps its record
    const std::string staging = device.ResultPath() + "_bak";
    wup_test::MakeDirs(staging);  // the result file cannot be written: the database is emptied
    Call({"", "install", Player("1.0.0")});
    wup_test::RemoveTree(staging);
    Expect(device.Rows().empty(), "a failed rewrite empties the database");
    wup_test::RemoveTree(device.layout().vex + "/terminated");
  }

  wup_e2e::Device device;
  void* library = nullptr;
  int failures = 0, calls = 0;
};

// Plays the cycle until `ops` calls are made; what the process holds must not grow.
int Endure(int ops, char** argv) {
  // glibc's per-thread cache keeps freed blocks counted as in use: without it the heap figure is exact.
  // (valgrind has its own allocator and does not follow the new image.)
  if (!RUNNING_ON_VALGRIND && std::getenv("GLIBC_TUNABLES") == nullptr) {
    setenv("GLIBC_TUNABLES", "glibc.malloc.tcache_count=0", 1);
    execv("/proc/self/exe", argv);
  }
  Run run;
  constexpr int kWarmUp = 2;
  for (int i = 0; i < kWarmUp; ++i) run.Cycle();
  std::printf("after %d cycles (%d operations): ", kWarmUp, run.calls);
  const Usage start = Measure(run.library);
  int cycles = kWarmUp;
  for (; cycles == kWarmUp || run.calls < ops; ++cycles) run.Cycle();
  std::printf("after %d cycles (%d operations): ", cycles, run.calls);
  const Usage end = Measure(run.library);
  // Growth a run may show without holding on to anything is malloc's and the kernel's bookkeeping. Under
  // valgrind memory belongs to the tool's allocator, which reports leaks itself.
  const bool memoryFlat = RUNNING_ON_VALGRIND || (end[kHeapBytes] <= start[kHeapBytes] + 16 * 1024 &&
                                                  end[kResidentKiB] <= start[kResidentKiB] + 512);
  const bool flat = end[kFds] == start[kFds] && end[kDatabaseFds] == 0 && end[kPkgInfoHandles] == 0 &&
                    end[kSqliteBytes] <= start[kSqliteBytes] && memoryFlat;
  if (!flat) std::printf("not so: descriptors, connections, handles and memory stay where they were\n");
  return flat && run.failures == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  // Before the first use of SQLite, which the endurance run measures.
  sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 1);
  const std::string campaign = argc > 1 ? argv[1] : "", mode = argc > 2 ? argv[2] : "";
  auto number = [&](int i, long fallback) { return argc > i ? std::atol(argv[i]) : fallback; };
  unsigned long first = 0, end = 500, timeout = 10;
  if (campaign == "crash" && (mode == "kill" || mode == "powercut" || mode == "enospc") && argc <= 5 &&
      number(3, 1) >= 1) {
    Campaign(mode, number(3, 1), number(4, 0)).Play(Sequence());
    return 0;
  }
  if (campaign == "corrupt" && argc <= 4 &&
      (argc < 3 || std::sscanf(argv[2], "%lu:%lu", &first, &end) == 2) &&
      (argc < 4 || std::sscanf(argv[3], "%lu", &timeout) == 1)) {
    const std::string scratch = wup_test::MakeTempDir("wup-corrupt");
    std::printf("%lu cases (seeds %lu:%lu)\n", end - first, first, end);
    for (uint64_t seed = first; seed < end; ++seed) RunCase(seed, static_cast<unsigned>(timeout), scratch);
    wup_test::RemoveTree(scratch);
    return 0;
  }
  if (campaign == "endurance" && argc <= 3 && number(2, 2000) >= 1) return Endure(number(2, 2000), argv);
  std::fprintf(stderr,
               "usage: %s crash MODE [EVERY [ONLY]] | corrupt [FIRST:END [TIMEOUT]] | endurance [OPS]\n",
               argv[0]);
  return 2;
}
