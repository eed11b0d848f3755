// The campaigns: the plug-in attacked the way nobody lists, driven as the device's installer drives it.
//   campaign crash kill|powercut|enospc [EVERY [ONLY]]   each operation of a sequence cut short at each of
//                                                        its write-side calls, then called again
//   campaign corrupt [FIRST:END [TIMEOUT]]               seeded damaged database pairs, one install each
//   campaign busy [SECONDS...]                           an install while another process holds the database
//   campaign xwalk                                       the records an xwalk package leaves when uninstalled
//   campaign endurance [OPERATIONS]                      the sequence again and again in one process
// They stand on the end-to-end harness's sandbox device, call the plug-in through wup_call_plugin (a
// process per call, so that the write shim can be preloaded) under a watchdog, and judge the version
// database as the open check judges it. Each outcome is noted and classed; the program prints the counts by
// aspect and outcome, the figures by class and the findings, and exits 1 on any finding (or when nothing
// was noted), 3 when its instrument failed. Which outcomes are findings depends on the build the library
// names: the default build keeps some hazards on purpose, the hardened build must show none. run.sh tells
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
  bool foreign = false;  // its plug-in table has other columns than the plug-in's own
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
  database.foreign =
      Query(db, "select group_concat(name) from pragma_table_info('pluginTable')") !=
      Rows{{"name,version,path,pkgid,entryPoints,pluginType,hasForceMetaData,isUpdate,appWhiteList,"
            "systemPath"}};
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

// --- What the campaigns note, and what they make of it ------------------------------------------------

// What an outcome costs. The hazards are what the default build keeps on purpose (a documented way to
// lose records, a stale result file, ...): allowed there, findings in the hardened build, whose goal is
// none of them. A hang, a crash and anything else wrong are findings in every build.
enum Class {
  kFine,
  kRecordsLost,
  kStaleResult,
  kHalfStored,
  kOrphaned,
  kBusyRestore,
  kBlocked,  // a link or directory at the main path: no build writes through a link or removes a directory
  kHang,
  kCrash,
  kWrong,
  kClasses
};
const char* const kClassNames[] = {"",
                                   "records lost",
                                   "stale result files after the next call",
                                   "half-stored packages",
                                   "orphaned records",
                                   "restores of a busy database",
                                   "writes blocked by a link or directory at the main path",
                                   "hangs",
                                   "crashes",
                                   "other findings"};

// The run cannot go on at full strength (the write shim stopped, the library names no build): the campaign's
// own failure.
constexpr int kInstrumentFailed = 3;
[[noreturn]] void InstrumentFailed(const std::string& what) {
  std::fflush(stdout);
  std::fprintf(stderr, "campaign: %s: the instrument failed, nothing is measured\n", what.c_str());
  std::exit(kInstrumentFailed);
}

// The build a loaded plug-in library comes from, as it names itself; a library that names none cannot be
// judged, and stops the run.
std::string PolicyOf(void* library) {
  const std::string name = hostkit::PolicyName(library);
  if (name.empty()) InstrumentFailed(WUP_PLUGIN_LIBRARY + std::string(" names no build (WUP_POLICY_NAME)"));
  return name;
}

// The notes of a run, "outcome of an aspect at a point", counted by aspect and outcome (with the first point
// of each, in order of first appearance) and by class; the verdict is the program's exit status.
class Tally {
 public:
  explicit Tally(std::string policy) : policy_(std::move(policy)) {}
  bool hardened() const { return policy_ == "hardened"; }

  // `kept`: the outcome is one of the ways the default build is known to take, not a new one.
  void Note(const std::string& at, const std::string& aspect, const std::string& outcome, Class what = kFine,
            bool kept = true, long weight = 1) {
    auto aspect_ = std::find_if(aspects_.begin(), aspects_.end(), [&](auto& a) { return a.first == aspect; });
    if (aspect_ == aspects_.end()) aspect_ = aspects_.insert(aspects_.end(), {aspect, {}});
    auto& outcomes = aspect_->second;
    auto outcome_ =
        std::find_if(outcomes.begin(), outcomes.end(), [&](auto& o) { return o.name == outcome; });
    if (outcome_ == outcomes.end()) outcome_ = outcomes.insert(outcomes.end(), {outcome, at, 0});
    ++outcome_->count;
    ++notes_;
    figures_[what] += weight;
    const bool hazard = what != kFine && what < kHang;
    if (what >= kHang || (hazard && (!kept || (hardened() && what != kBlocked))))
      findings_.push_back(at + ": " + aspect + ": " + outcome);
  }

  // Prints the counts and the findings; 0 when something was noted and nothing found.
  int Report() const {
    for (const auto& [aspect, outcomes] : aspects_) {
      std::printf("  %s:\n", aspect.c_str());
      for (const auto& outcome : outcomes)
        std::printf("    %s: %ld  (first: %s)\n", outcome.name.c_str(), outcome.count, outcome.first.c_str());
    }
    if (notes_ == 0) std::printf("  nothing noted\n");
    std::printf("  figures, %s build:\n", policy_.c_str());
    for (int what = kFine + 1; what < kClasses; ++what)
      std::printf("    %s: %ld\n", kClassNames[what], figures_[what]);
    std::printf("  findings: %zu\n", findings_.size());
    for (const std::string& finding : findings_) std::printf("    %s\n", finding.c_str());
    std::fflush(stdout);
    return notes_ == 0 || !findings_.empty() ? 1 : 0;
  }

 private:
  struct Outcome {
    std::string name, first;
    long count;
  };
  std::string policy_;
  std::vector<std::pair<std::string, std::vector<Outcome>>> aspects_;
  std::array<long, kClasses> figures_{};
  std::vector<std::string> findings_;
  long notes_ = 0;
};

// How a call ended, and what that costs: normally, with a failure the package manager sees (wrong unless
// the caller allows it), a hang (the watchdog's alarm) or a crash.
std::pair<const char*, Class> Ended(int status, bool mayFail = false) {
  if (status == 0) return {"ended normally", kFine};
  if (status == 128 + SIGALRM) return {"hung", kHang};
  if (status > 128) return {"crashed", kCrash};
  return {"failed", mayFail ? kFine : kWrong};
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
  Campaign(Tally& tally, std::string mode, long every, long at)
      : tally_(tally), mode_(std::move(mode)), every_(every), at_(at) {
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
        Note("uninterrupted operation", "needs a second run to reach its end", kWrong);
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
    wup_test::RemoveTree(work_ + "/stash");
    wup_test::MakeDirs(work_ + "/stash");
    const int status =
        CallPlugin(step.operation, step.package,
                   {"LD_PRELOAD=" WUP_WRITE_SHIM, "WUP_SHIM_TRACE=" + work_ + "/trace",
                    "WUP_SHIM_STASH=" + work_ + "/stash",
                    (mode_ == "enospc" ? "WUP_SHIM_FULL_AT=" : "WUP_SHIM_KILL_AT=") + std::to_string(k),
                    std::string("WUP_SHIM_POWERCUT=") + (mode_ == "powercut" ? "1" : "0")});
    if (status == WUP_SHIM_FAILED) InstrumentFailed(step.name + ", call " + std::to_string(k));
    return status;
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
      Note("cut run", "ended with status " + std::to_string(status), status > 128 ? kCrash : kWrong);
    const State cut = Observe();

    // Right after the cut the result file is absent only if it was before, and else a whole document; once
    // the call has returned, a power cut takes nothing of what it wrote.
    const bool ended = k > calls_;
    std::string result = !cut.result                    ? (before_.result ? "gone" : "absent")
                         : cut.result == before_.result ? "old"
                         : cut.result == once_.result || cut.result == settled_.result ? "new"
                         : cut.result->empty()                                         ? "empty"
                                                                                       : "partial";
    const bool whole = result == "absent" || result == "old" || result == "new";
    if (ended && cut.result != once_.result && whole) result += ", though the call had ended";
    Note("result file after the cut", result,
         whole && (!ended || cut.result == once_.result) ? kFine : kWrong);
    if (ended) {
      Note("records after a cut once the call had ended",
           cut.main.rows == once_.main.rows ? "as the call left them" : "rolled back",
           cut.main.rows == once_.main.rows ? kFine : kRecordsLost);
    }
    const bool says = SaysWhatFailed(cut.log);
    if (mode_ == "enospc" && (cut.main.rows != settled_.main.rows || cut.result != settled_.result))
      Note("log of a run that fell short", says ? "says what failed" : "silent", says ? kFine : kWrong);
    Note("open check at the next call", !before_.main.valid && !before_.backup.valid
                                            ? "no database before the operation"
                                        : cut.main.valid   ? "main valid"
                                        : cut.backup.valid ? "main restored from the backup"
                                                           : "both invalid: database created afresh");

    // The next call works; the records are as the uninterrupted operation left them, or lost only the ways
    // the design keeps; the result file is current, or stale only the way the design keeps.
    const int next = CallPlugin(step.operation, step.package);
    if (next == WUP_SHIM_FAILED) InstrumentFailed(where_);
    const auto [nextEnded, nextCost] = Ended(next);
    Note("next call", nextEnded, nextCost);
    const State after = Observe();
    Note("main file after the next call", after.main.valid ? "valid" : "invalid",
         after.main.valid ? kFine : kWrong);
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
    Class cost = kRecordsLost;
    if (rows == settled_.main.rows) {
      records = "as uninterrupted", cost = kFine;
    } else if (allLost && recreated) {
      records = "all lost: both files invalid, the backup emptied by its refresh";
    } else if (allLost && Has(cut.log, "update fail!clear DB for next boot")) {
      records = "all lost: cleared after the failed rewrite";
    } else if (RowsOf(rows, pkgid, false) == RowsOf(settled_.main.rows, pkgid, false) &&
               Has(after.log, "no need insert")) {
      records = "package half-stored: its version counts as recorded", cost = kHalfStored;
    }
    Note("records after the next call", records, cost, records != "lost");
    std::string current = "other";
    cost = kWrong;
    if (after.result == settled_.result) {
      current = "current", cost = kFine;
    } else if (after.result && (after.result == before_.result || after.result == once_.result)) {
      current = "stale until the next change", cost = kStaleResult;
    } else if (records.rfind("all lost", 0) == 0 && after.result && IsJson(*after.result)) {
      current = "rebuilt from the records left", cost = kFine;
    }
    Note("result file after the next call", current, cost);
    Note("backup after the next call", !after.backup.valid         ? "invalid until the next write"
                                       : after.backup.rows == rows ? "equal to the main file"
                                                                   : "behind the main file");
  }

  void Note(const std::string& aspect, const std::string& outcome, Class what = kFine,
            bool kept = true) const {
    tally_.Note(where_, aspect, outcome, what, kept);
  }

  Tally& tally_;
  std::string mode_;
  long every_, at_;  // at_: the one point to try, or 0
  wup_e2e::Device device_;
  std::string root_ = device_.layout().root, work_ = wup_test::MakeTempDir("wup-crash"), where_;
  State before_, once_, settled_;  // of the operation at hand, uncut
  long calls_ = 0;
};

// --- The corruption campaign ----------------------------------------------------------------------------

// The plug-in every case installs, and another one installed on the device, whose record the damaged files
// hold: what becomes of it tells whether records were lost.
const char kTarget[] = "target", kTargetVersion[] = "3.0", kOther[] = "alpha", kOtherVersion[] = "2.0";
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
//
// With `hardened`, it is a second opinion of the hardened build's decisions, written from what that build
// promises rather than from its code: a plug-in table with other columns counts as damaged; a copy touches
// its destination only with the whole content (staged and renamed over it), so an empty or unreadable
// source leaves the destination as it was; after a database started afresh, the records are rebuilt from
// the installed packages that carry the type key (here the other plug-in and the target).
struct Model {
  std::string Install() {
    std::string label = OpenCheck();
    if (hardened && label == "recreated") Write({{kOther, kOtherVersion}, {kTarget, kTargetVersion}});
    label += Write({{kTarget, kTargetVersion}});
    OpenCheck();
    published = Valid(main) && main.content->Versions().count(kTarget) != 0;
    // The default build writes a result document whatever it read (an empty list for no records); the
    // hardened one leaves the file as it was (none, on this device) when it cannot read the records.
    resultWritten = !hardened || Valid(main);
    return label;
  }

  // The guarded write of records: into the main file, once more after the backup is copied over it if
  // the statement fails, then the backup refreshed. Returns what became of it, as the label's suffix.
  std::string Write(const Rows& records) {
    if (OpenCheck(), !Valid(main)) return "+not-stored";
    if (Insert(main, records)) return Copy(main, backup), "";
    if (Copy(backup, main) && Insert(main, records)) return Copy(main, backup), "+retried";
    return "+lost";
  }

  static bool Exists(const Entry& entry) {
    return entry.kind == Entry::kDir || entry.kind == Entry::kFifo || entry.content;
  }
  bool Valid(const Entry& entry) const {
    return entry.content && entry.content->valid && !(hardened && entry.content->foreign);
  }

  // The default build opens (creates, truncates) the destination before the source's size is known.
  bool Copy(const Entry& source, Entry& dest) {
    if (!Exists(source) || dest.kind == Entry::kLink || dest.kind == Entry::kDir) return false;
    const bool whole = source.content && !(source.content->bytesKnown && source.content->bytes.empty());
    if (!whole && hardened) return false;
    dest.kind = Entry::kFile;
    dest.content = whole ? source.content : Content();
    return whole;
  }

  static bool Insert(Entry& entry, const Rows& records) {
    Content& content = *entry.content;
    if (!content.accepts) return false;
    for (const auto& record : records) content.rows.push_back(record);  // only the versions are compared
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
  bool hardened = false;
  bool published = false, resultWritten = false;
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
void RunCase(Tally& tally, uint64_t seed, unsigned timeout, const std::string& scratch) {
  const std::string mainKind = kKinds[seed % kKindCount],
                    backupKind = kKinds[(seed / kKindCount + seed) % kKindCount];
  wup_e2e::Device device;
  device.layout().Export();
  const std::string elsewhere = device.layout().root + "/elsewhere";
  wup_test::MakeDirs(elsewhere);
  const auto package =
      MakePackage(std::string("com.korvane.tv.pepper.") + kTarget, kTargetVersion, "pepperplugin");
  device.Place(MakePackage(std::string("com.korvane.tv.pepper.") + kOther, kOtherVersion, "pepperplugin"));
  device.Place(package);

  Damage damage{std::mt19937_64(seed), scratch};
  const bool swapped = damage.Below(4) == 0;
  static const std::string older = BuildDatabase(scratch, "ours", "1.0"),
                           newer = BuildDatabase(scratch, "ours", "2.0");
  damage.Place(mainKind, device.DatabasePath(), swapped ? older : newer, elsewhere);
  damage.Place(backupKind, device.BackupPath(), swapped ? newer : older, elsewhere);

  Model model{Observe(device.DatabasePath(), scratch), Observe(device.BackupPath(), scratch),
              tally.hardened()};
  std::map<std::string, std::string> aside;  // files behind links, byte for byte
  for (const auto& file : fs::directory_iterator(elsewhere))
    aside[file.path()] = wup_test::ReadFile(file.path());
  const std::string label = model.Install();
  const std::string where = "seed " + std::to_string(seed) + ": main " + mainKind + ", backup " + backupKind +
                            (swapped ? " (swapped)" : "");
  tally.Note(where, "expected", label);

  const int status = CallPlugin("install", package, {}, timeout);
  if (status != 0) {
    const bool hang = status == 128 + SIGALRM;
    return tally.Note(where + ", status " + std::to_string(status), "finding", hang ? "hang" : "crash",
                      hang ? kHang : kCrash);
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
  if (device.ResultFile().empty() != !model.resultWritten) {
    diff += std::string(" result file: expected ") + (model.resultWritten ? "one;" : "none;");
  } else if (published != model.published) {
    diff += " result file: expected " + std::string(model.published ? "" : "no ") + "record of target;";
  }
  if (!diff.empty()) tally.Note(where + ", expected " + label + ":" + diff, "finding", "mismatch", kWrong);

  // Both installed packages recorded in a usable main file, the target as installed now, or records lost
  // (the model says which).
  const Entry after = Observe(device.DatabasePath(), scratch);
  const auto versions = after.content && after.content->valid ? after.content->Versions()
                                                              : std::map<std::string, std::string>();
  const auto target = versions.find(kTarget);
  if (target == versions.end() || target->second != kTargetVersion || versions.count(kOther) == 0) {
    const bool blocked = after.kind == Entry::kDir || after.kind == Entry::kLink;
    tally.Note(where, "records of the installed packages",
               blocked ? "blocked by a link or directory" : "lost", blocked ? kBlocked : kRecordsLost);
  } else {
    tally.Note(where, "records of the installed packages", "both stored");
  }
}

// --- The busy holder and the xwalk uninstall ----------------------------------------------------------

void NoteCall(Tally& tally, const std::string& at, int status, bool mayFail = false) {
  const auto [outcome, cost] = Ended(status, mayFail);
  tally.Note(at, "call", outcome, cost);
}

Rows RowsAt(const wup_e2e::Device& device) {
  return Inspect(device.DatabasePath(), device.layout().root + "/inspect.db").rows;
}

// Another process (an installer of its own) stores a record, then holds the database in an exclusive
// transaction for `hold` seconds while an install runs. The default build takes the busy file for a damaged
// one after about three seconds and restores the backup over it, losing the holder's record; the hardened
// one waits, bounded, and when the file stays busy gives up without touching either file.
void Busy(Tally& tally, unsigned hold) {
  wup_e2e::Device device;
  device.layout().Export();
  for (const auto& package : {Player("1.0.0"), Signage("1.0.0")}) {
    device.Place(package);
    CallPlugin("install", package);
  }
  int ready[2];
  if (pipe(ready) != 0) InstrumentFailed("no pipe");
  const pid_t holder = fork();
  if (holder == 0) {
    sqlite3* db = nullptr;
    const bool held =
        sqlite3_open_v2(device.DatabasePath().c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK &&
        sqlite3_exec(db,
                     "insert into pluginTable(name, version, pkgid) values('holder', '1.0', "
                     "'com.korvane.tv.pepper.holder'); BEGIN EXCLUSIVE;",
                     nullptr, nullptr, nullptr) == SQLITE_OK &&
        write(ready[1], "h", 1) == 1;
    if (held) sleep(hold);
    _exit(held ? 0 : 1);  // the transaction ends with the process
  }
  close(ready[1]);
  char signal = 0;
  const bool holding = read(ready[0], &signal, 1) == 1;
  close(ready[0]);
  const std::string main = wup_test::ReadFile(device.DatabasePath()),
                    backup = wup_test::ReadFile(device.BackupPath());
  const std::string where = "held for " + std::to_string(hold) + " s";
  const auto package = Ambient("1.0.0");
  device.Place(package);
  const int status = holding ? CallPlugin("install", package, {}, hold + 60) : 0;
  int held = 0;
  waitpid(holder, &held, 0);
  if (!holding || held != 0) InstrumentFailed("the holder could not hold the database");
  NoteCall(tally, where, status, true);

  const Rows rows = RowsAt(device);
  const bool kept = std::any_of(rows.begin(), rows.end(), [](auto& row) { return row[0] == "holder"; });
  const bool stored = !RowsOf(rows, package.pkgid, true).empty();
  const bool untouched =
      wup_test::ReadFile(device.DatabasePath()) == main && wup_test::ReadFile(device.BackupPath()) == backup;
  tally.Note(where, "the busy database",
             !kept    ? "restored from the backup"
             : stored ? "waited for"
                      : "left alone",
             kept ? kFine : kBusyRestore);
  tally.Note(where, "the holder's record", kept ? "kept" : "lost", kept ? kFine : kRecordsLost);
  tally.Note(where, "the install",
             stored      ? "stored"
             : untouched ? "given up, neither file touched"
                         : "not stored",
             stored || untouched ? kFine : kRecordsLost, !kept);
}

// An xwalk package with two extensions, named "ambient" and "ambient.light", installed (and upgraded) and
// then uninstalled: the default build removes the record named as the id ends, the hardened one every
// record the package brought.
void XwalkUninstall(Tally& tally) {
  for (const bool upgraded : {false, true}) {
    wup_e2e::Device device;
    device.layout().Export();
    const std::string where = upgraded ? "installed, upgraded, uninstalled" : "installed, uninstalled";
    std::vector<std::pair<std::string, wup_e2e::Package>> calls = {{"install", Ambient("1.0.0")}};
    if (upgraded) calls.emplace_back("upgrade", Ambient("1.1.0"));
    calls.emplace_back("uninstall", calls.back().second);
    for (const auto& [operation, package] : calls) {
      device.Place(package);
      NoteCall(tally, where + ": " + operation, CallPlugin(operation, package));
    }
    const size_t left = RowsOf(RowsAt(device), calls.back().second.pkgid, true).size();
    tally.Note(where, "records of the package after its uninstall",
               left == 0 ? "none" : std::to_string(left) + " of 2 left", left == 0 ? kFine : kOrphaned, true,
               static_cast<long>(left));
  }
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
    hardened = PolicyOf(library) == "hardened";
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
    // The hardened build rebuilds the records of the three installed packages (the xwalk one has two).
    Expect(device.Rows().size() == (hardened ? 4 : 2),
           hardened ? "the database is rebuilt from the installed packages"
                    : "the recreated database holds only the two records stored since");
    for (const auto& package : {Player("3"), Signage("3"), Ambient("2"),
                                MakePackage("com.korvane.tv.pepper.unknown", "1", "pepperplugin")})
      Call({"", "uninstall", package});  // by name, the xwalk package's second extension keeps its record
    const std::string staging = device.ResultPath() + "_bak";
    wup_test::MakeDirs(staging);  // the result file cannot be written: the database is emptied, or kept
    Call({"", "install", Player("1.0.0")});
    wup_test::RemoveTree(staging);
    Expect(device.Rows().size() == (hardened ? 1 : 0),
           hardened ? "a failed rewrite keeps the records" : "a failed rewrite empties the database");
    wup_test::RemoveTree(device.layout().vex + "/terminated");
  }

  wup_e2e::Device device;
  void* library = nullptr;
  bool hardened = false;
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
  if (campaign == "endurance" && argc <= 3 && number(2, 2000) >= 1) return Endure(number(2, 2000), argv);
  // Loaded here only to read its name: the calls go to other processes.
  void* library = dlopen(WUP_PLUGIN_LIBRARY, RTLD_LAZY | RTLD_LOCAL);
  Tally tally(PolicyOf(library));
  dlclose(library);
  std::printf("%s build (%s)\n", tally.hardened() ? "hardened" : "default", WUP_PLUGIN_LIBRARY);
  if (campaign == "crash" && (mode == "kill" || mode == "powercut" || mode == "enospc") && argc <= 5 &&
      number(3, 1) >= 1) {
    Campaign(tally, mode, number(3, 1), number(4, 0)).Play(Sequence());
    return tally.Report();
  }
  if (campaign == "corrupt" && argc <= 4 &&
      (argc < 3 || std::sscanf(argv[2], "%lu:%lu", &first, &end) == 2) &&
      (argc < 4 || std::sscanf(argv[3], "%lu", &timeout) == 1)) {
    const std::string scratch = wup_test::MakeTempDir("wup-corrupt");
    std::printf("%lu cases (seeds %lu:%lu)\n", end - first, first, end);
    for (uint64_t seed = first; seed < end; ++seed)
      RunCase(tally, seed, static_cast<unsigned>(timeout), scratch);
    wup_test::RemoveTree(scratch);
    return tally.Report();
  }
  if (campaign == "busy" &&
      std::all_of(argv + 2, argv + argc, [](const char* hold) { return atoi(hold) > 0; })) {
    for (int i = 2; i < std::max(argc, 3); ++i) Busy(tally, argc > 2 ? std::atoi(argv[i]) : 5);
    return tally.Report();
  }
  if (campaign == "xwalk" && argc == 2) {
    XwalkUninstall(tally);
    return tally.Report();
  }
  std::fprintf(
      stderr,
      "usage: %s crash MODE [EVERY [ONLY]] | corrupt [FIRST:END [TIMEOUT]] | busy [SECONDS...] | xwalk | "
      "endurance [OPS]\n",
      argv[0]);
  return 2;
}
