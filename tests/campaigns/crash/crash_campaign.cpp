// The crash campaign: every operation of a sequence of package operations on a sandbox device is cut short
// at each of its write-side calls, then called again, and what is left is classified.
//
//   crash_campaign kill|powercut|enospc [--every N | --at K]
//
// kill: the process is killed right before call k. powercut: the same, and then the data the process had
// not synced is lost (renames, creations and removals stay). enospc: from call k on the disk is full, and
// the operation runs to its end. After the cut the same operation runs again in a fresh process, with the
// disk back. Each operation is first run twice without a cut: the first run gives the number of calls
// and the new result file, the second the state that the operation settles at (an operation that needs
// the second run to get there is a finding of its own). With --every N only every N-th point is tried,
// and the last N of each operation, where the result file is written; with --at K only point K. The
// figures go to standard output; the exit status is 1 when anything was found that must not happen, 0
// otherwise. WUP_CAMPAIGN_KEEP=1 keeps the work directory.
#include <json/json.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "sample_packages.h"
#include "sandbox.h"

namespace fs = std::filesystem;
using wup_test::ReadFile;
using wup_test::ReadLines;

namespace {

constexpr unsigned kWatchdogSeconds = 60;  // far beyond the longest wait the plug-in may take
const char kCreateDb[] = "db and backup db are not valid, now create db";

struct Package {
  std::string pkgid, version, kind, appList;
  std::map<std::string, std::string> descriptions;  // xwalk: file name to content
};

Package Player(const std::string& version) {
  return {"com.korvane.tv.pepper.player", version, "pepperplugin", "Ab3Cd5Ef7G.SportsLive", {}};
}
Package Signage(const std::string& version) {
  return {"com.korvane.tv.pepper.signage", version, "b2bpepperplugin", "Rs8Tu1Vw3X.MovieBox", {}};
}
// Two extensions, the first named as the plug-in: a cut between their records shows what the version
// comparison makes of a half-stored package.
Package Ambient(const std::string& version) {
  auto extension = [&version](const std::string& name) {
    return R"({"name": ")" + name + R"(", "lib": "lib)" + name + R"(.so", "version": ")" + version +
           R"(", "entry_points": ["tizen.)" + name + R"("]})";
  };
  return {"com.korvane.tv.xwalk.ambient",
          version,
          "xwalkplugin",
          "Hj2Kl4Mn6P.TvGuide",
          {{"ambient.json", "[" + extension("ambient") + ", " + extension("ambient.light") + "]"}}};
}

struct Step {
  std::string name;
  std::string operation;  // install, upgrade or uninstall
  Package package;
  std::function<void(const wup_test::SandboxLayout&)> damage;
};

// --- the device and the plug-in's files ---------------------------------------------------------------

using Rows = std::vector<std::vector<std::string>>;

struct Database {
  bool valid = false;  // as the plug-in's open check sees it: integrity "ok" and both tables
  Rows rows;
};

struct SqliteClose {
  void operator()(sqlite3* db) const { sqlite3_close(db); }
};

Rows Query(sqlite3* db, const char* sql) {
  Rows rows;
  sqlite3_stmt* raw = nullptr;
  sqlite3_prepare_v2(db, sql, -1, &raw, nullptr);
  const std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt*)> stmt(raw, sqlite3_finalize);
  while (stmt && sqlite3_step(stmt.get()) == SQLITE_ROW) {
    std::vector<std::string>& row = rows.emplace_back();
    for (int i = 0; i < sqlite3_column_count(stmt.get()); ++i) {
      const unsigned char* text = sqlite3_column_text(stmt.get(), i);
      row.emplace_back(text != nullptr ? reinterpret_cast<const char*>(text) : "");
    }
  }
  return rows;
}

// Looks at a copy (with its journal, which SQLite plays back as the plug-in's next open would), so that
// looking changes nothing on the device.
Database Inspect(const std::string& path, const std::string& scratch) {
  Database database;
  std::error_code ignored;
  for (const char* suffix : {"", "-journal"}) {
    fs::remove(scratch + suffix, ignored);
    fs::copy_file(path + suffix, scratch + suffix, ignored);
  }
  if (!fs::exists(scratch) || fs::file_size(scratch) == 0) return database;
  sqlite3* raw = nullptr;
  sqlite3_open_v2(scratch.c_str(), &raw, SQLITE_OPEN_READWRITE, nullptr);
  const std::unique_ptr<sqlite3, SqliteClose> db(raw);
  const auto check = Query(db.get(), "PRAGMA integrity_check");
  const auto tables = Query(
      db.get(),
      "select name from sqlite_master where type = 'table' and name in ('pluginTable', 'versionTable')");
  database.valid = !check.empty() && check[0][0] == "ok" && tables.size() == 2;
  if (database.valid) database.rows = Query(db.get(), "select * from pluginTable order by name");
  return database;
}

struct State {
  std::optional<std::string> result;
  Database main, backup;
  std::vector<std::string> log;
};

class Campaign {
 public:
  Campaign(std::string mode, int every, int at)
      : mode_(std::move(mode)),
        every_(every),
        at_(at),
        work_(wup_test::MakeTempDir("wup-crash")),
        device_(wup_test::SandboxLayout::At(work_ + "/device")) {
    device_.Export();
  }
  ~Campaign() {
    if (std::getenv("WUP_CAMPAIGN_KEEP") == nullptr) fs::remove_all(work_);
  }

  void Play(const std::vector<Step>& steps);
  int Report() const;

 private:
  struct Reference {
    State before, once, settled;
    long calls = 0;
  };

  std::string Db() const { return device_.db + "/.AppBinaryManager.db"; }
  std::string Backup() const { return device_.db + "/.AppBinaryManager_Backup.db"; }
  std::string Result() const {
    return device_.rwApp + "/appbinarymanager/webapi_result/upgrade_webapi_result.json";
  }

  void Place(const Package& package) const;
  void Save(const std::string& name) const;
  void Restore(const std::string& name) const;
  int Call(const Step& step, const std::vector<std::string>& shim = {}) const;
  State Observe() const;
  void LosePowerCut() const;
  std::string CutCall(long k) const;
  std::vector<std::string> Shim(long k) const;
  void Check(const Step& step, const Reference& reference, long k);
  void CheckRecords(const Step& step, const Reference& reference, const State& cut, const State& after);
  // Counts one aspect's outcome at the point in `where_`; a finding is an outcome that must never happen.
  void Note(const std::string& aspect, const std::string& outcome, bool finding);

  std::string mode_;
  int every_, at_;  // at_: the one point to try, or 0
  std::string work_;
  wup_test::SandboxLayout device_;
  long points_ = 0;
  std::string where_;
  struct Tally {
    int count = 0;
    std::string first;  // the first point with this outcome
  };
  std::vector<std::pair<std::string, std::map<std::string, Tally>>> tally_;  // aspects in order of first note
  std::vector<std::string> findings_;
};

void Campaign::Place(const Package& package) const {
  wup_test::WriteManifest(device_.rwPackages, package.pkgid, package.version, {package.pkgid},
                          {{METADATA_NAMESPACE "upgradable_webapi_type", package.kind},
                           {METADATA_NAMESPACE "upgradable_webapi_applist", package.appList}});
  const std::string res = device_.rwApp + "/" + package.pkgid + "/shared/res/";
  wup_test::MakeDirs(res);
  for (const auto& [file, content] : package.descriptions) wup_test::WriteFile(res + file, content);
}

void Campaign::Save(const std::string& name) const {
  fs::remove_all(work_ + "/" + name);
  fs::copy(device_.root, work_ + "/" + name, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
}

void Campaign::Restore(const std::string& name) const {
  fs::remove_all(device_.root);
  fs::copy(work_ + "/" + name, device_.root, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
  fs::remove(device_.log);
}

// One package-manager call in a fresh process; the watchdog turns a hang into SIGALRM. Returns the exit
// status, or 128 + the signal.
int Campaign::Call(const Step& step, const std::vector<std::string>& shim) const {
  const std::string type = METADATA_NAMESPACE "upgradable_webapi_type=" + step.package.kind;
  const std::string appList = METADATA_NAMESPACE "upgradable_webapi_applist=" + step.package.appList;
  const char* pkgid = step.package.pkgid.c_str();
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    for (const std::string& entry : shim) putenv(const_cast<char*>(entry.c_str()));
    freopen((work_ + "/output").c_str(), "w", stdout);
    dup2(fileno(stdout), STDERR_FILENO);
    alarm(kWatchdogSeconds);  // survives the exec
    execl(WUP_CALL_PLUGIN, WUP_CALL_PLUGIN, WUP_PLUGIN_LIBRARY, step.operation.c_str(), pkgid, pkgid,
          type.c_str(), appList.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

State Campaign::Observe() const {
  State state;
  if (fs::exists(Result())) state.result = ReadFile(Result());
  state.main = Inspect(Db(), work_ + "/inspect.db");
  state.backup = Inspect(Backup(), work_ + "/inspect.db");
  for (const std::string& line : ReadLines(device_.log))
    state.log.push_back(line.substr(line.find(" > ") + 3));
  fs::remove(device_.log);
  return state;
}

// What a power cut takes: every file the shim kept a copy of goes back to that content.
void Campaign::LosePowerCut() const {
  std::map<std::string, std::string> byInode;
  for (const auto& entry : fs::recursive_directory_iterator(device_.root)) {
    struct stat st;
    if (entry.is_regular_file() && stat(entry.path().c_str(), &st) == 0) {
      byInode[std::to_string(st.st_ino)] = entry.path();
    }
  }
  for (const auto& copy : fs::directory_iterator(work_ + "/cut")) {
    const std::string name = copy.path().filename();
    const auto file = byInode.find(std::to_string(std::stoul(name.substr(name.find('-') + 1), nullptr, 16)));
    if (file != byInode.end()) wup_test::WriteFile(file->second, ReadFile(copy.path()));
  }
}

// The call the cut came at, from the shim's trace, with paths relative to the device.
std::string Campaign::CutCall(long k) const {
  const std::vector<std::string> trace = ReadLines(work_ + "/trace");
  if (k > static_cast<long>(trace.size())) return std::to_string(k) + " (after the last call)";
  std::string call = trace[k - 1];
  for (size_t at; (at = call.find(device_.root + "/")) != std::string::npos;)
    call.erase(at, device_.root.size() + 1);
  return call;
}

bool Has(const std::vector<std::string>& log, const std::string& message) {
  for (const std::string& line : log) {
    if (line == message) return true;
  }
  return false;
}

bool SaysWhatFailed(const std::vector<std::string>& log) {
  static const std::regex failure("fail|invalid|not valid|broken", std::regex::icase);
  for (const std::string& line : log) {
    if (std::regex_search(line, failure)) return true;
  }
  return false;
}

bool IsJson(const std::string& text) {
  Json::CharReaderBuilder builder;
  Json::Value document;
  std::istringstream in(text);
  return !text.empty() && Json::parseFromStream(builder, in, &document, nullptr);
}

// The rows of the package (own) or of every other package.
Rows RowsOf(const Rows& rows, const std::string& pkgid, bool own) {
  Rows selected;
  for (const auto& row : rows) {
    if ((row[3] == pkgid) == own) selected.push_back(row);
  }
  return selected;
}

void Campaign::Play(const std::vector<Step>& steps) {
  device_.Reset();
  wup_test::MakeDirs(device_.rwApp + "/appbinarymanager");
  for (const Step& step : steps) {
    Place(step.package);
    if (step.damage) step.damage(device_);
    Save("before");
    Reference reference;
    reference.before = Observe();
    Call(step, {"LD_PRELOAD=" WUP_WRITE_SHIM, "WUP_SHIM_MODE=count", "WUP_SHIM_REPORT=" + work_ + "/count"});
    reference.calls = std::stol(ReadFile(work_ + "/count"));
    reference.once = Observe();
    Call(step);
    reference.settled = Observe();
    where_ = step.name + ", uninterrupted";
    if (reference.once.main.rows != reference.settled.main.rows ||
        reference.once.result != reference.settled.result) {
      Note("uninterrupted operation", "needs a second run to reach its end", true);
    }
    Save("after");

    // A power cut may also come once the operation is over.
    long tried = 0;
    const long last = reference.calls + (mode_ == "powercut" ? 1 : 0);
    for (long k = 1; k <= last; ++k) {
      if (at_ != 0 ? k != at_ : (k - 1) % every_ != 0 && k + every_ <= last) continue;
      Restore("before");
      Check(step, reference, k);
      ++tried;
    }
    std::cout << "  " << step.name << ": records " << reference.before.main.rows.size() << " -> "
              << reference.settled.main.rows.size() << ", " << reference.calls << " write-side calls, "
              << tried << " tried\n";
    Restore("after");
  }
}

// The shim's environment for a cut at call k.
std::vector<std::string> Campaign::Shim(long k) const {
  std::vector<std::string> shim = {"LD_PRELOAD=" WUP_WRITE_SHIM, "WUP_SHIM_AT=" + std::to_string(k),
                                   "WUP_SHIM_TRACE=" + work_ + "/trace",
                                   mode_ == "enospc" ? "WUP_SHIM_MODE=enospc" : "WUP_SHIM_MODE=kill"};
  if (mode_ == "powercut") shim.push_back("WUP_SHIM_POWERCUT=" + work_ + "/cut");
  return shim;
}

void Campaign::Check(const Step& step, const Reference& reference, long k) {
  ++points_;
  fs::remove_all(work_ + "/cut");
  fs::remove(work_ + "/trace");
  fs::create_directory(work_ + "/cut");
  const int status = Call(step, Shim(k));
  where_ = step.name + ", cut at call " + CutCall(k);
  const int expected = mode_ == "enospc" || k > reference.calls ? 0 : 128 + SIGKILL;
  if (status != expected) Note("cut run", "ended with status " + std::to_string(status), true);
  if (mode_ == "powercut") LosePowerCut();
  const State cut = Observe();

  // Right after the cut the result file is absent only if it was before, and else a whole document.
  std::string result = "partial";
  if (!cut.result) {
    result = reference.before.result ? "gone" : "absent";
  } else if (cut.result == reference.before.result) {
    result = "old";
  } else if (cut.result == reference.once.result || cut.result == reference.settled.result) {
    result = "new";
  } else if (cut.result->empty()) {
    result = "empty";
  }
  Note("result file after the cut", result, result != "absent" && result != "old" && result != "new");
  if (mode_ == "enospc" &&
      (cut.main.rows != reference.settled.main.rows || cut.result != reference.settled.result)) {
    Note("log of a run that fell short", SaysWhatFailed(cut.log) ? "says what failed" : "silent",
         !SaysWhatFailed(cut.log));
  }

  std::string openCheck = "main valid";
  if (!reference.before.main.valid && !reference.before.backup.valid) {
    openCheck = "no database before the operation";
  } else if (!cut.main.valid) {
    openCheck = cut.backup.valid ? "main restored from the backup" : "both invalid: database created afresh";
  }
  Note("open check at the next call", openCheck, false);

  const int next = Call(step);
  Note("next call", next == 0 ? "ended normally" : next == 128 + SIGALRM ? "hung" : "failed", next != 0);
  const State after = Observe();
  Note("main file after the next call", after.main.valid ? "valid" : "invalid", !after.main.valid);
  CheckRecords(step, reference, cut, after);
  Note("backup after the next call",
       !after.backup.valid                    ? "invalid until the next write"
       : after.backup.rows == after.main.rows ? "equal to the main file"
                                              : "behind the main file",
       false);
}

// The records as the uninterrupted operation left them, or lost only the ways the design keeps; and the
// result file current, or stale only the way the design keeps.
void Campaign::CheckRecords(const Step& step, const Reference& reference, const State& cut,
                            const State& after) {
  const auto& settled = reference.settled.main.rows;
  const std::string& pkgid = step.package.pkgid;
  // With every record lost, the next call stores the package's own again (an uninstall stores nothing).
  const bool allLost =
      after.main.rows == (step.operation == "uninstall" ? Rows{} : RowsOf(settled, pkgid, true));
  const bool cleared = Has(cut.log, "update fail!clear DB for next boot");
  // On a full disk the backup refresh truncates the backup and then cannot write it, yet succeeds; once
  // the main file fails too, the open check finds both invalid and starts an empty database.
  const bool recreated = mode_ == "enospc" &&
                         (reference.before.main.valid || reference.before.backup.valid) &&
                         (Has(cut.log, kCreateDb) || Has(after.log, kCreateDb));
  std::string records = "lost";
  if (after.main.rows == settled) {
    records = "as uninterrupted";
  } else if (allLost && recreated) {
    records = "all lost: both files invalid, the backup emptied by its refresh (kept)";
  } else if (allLost && cleared) {
    records = "all lost: cleared after the failed rewrite (kept)";
  } else if (RowsOf(after.main.rows, pkgid, false) == RowsOf(settled, pkgid, false) &&
             Has(after.log, "no need insert")) {
    records = "package half-stored: its version counts as recorded";
  }
  Note("records after the next call", records, records == "lost");

  std::string result = "other";
  if (after.result == reference.settled.result) {
    result = "current";
  } else if (after.result &&
             (after.result == reference.before.result || after.result == reference.once.result)) {
    result = "stale until the next change (kept)";
  } else if (records.rfind("all lost", 0) == 0 && after.result && IsJson(*after.result)) {
    result = "rebuilt from the records left";
  }
  Note("result file after the next call", result, result == "other");
}

void Campaign::Note(const std::string& aspect, const std::string& outcome, bool finding) {
  auto entry =
      std::find_if(tally_.begin(), tally_.end(), [&aspect](const auto& e) { return e.first == aspect; });
  if (entry == tally_.end()) entry = tally_.insert(entry, {aspect, {}});
  Tally& tally = entry->second[outcome];
  if (tally.count++ == 0) tally.first = where_;
  if (finding) findings_.push_back(where_ + ": " + aspect + ": " + outcome);
}

int Campaign::Report() const {
  std::cout << "mode " << mode_ << ": " << points_ << " points\n";
  for (const auto& [aspect, outcomes] : tally_) {
    std::cout << "  " << aspect << ":\n";
    for (const auto& [outcome, tally] : outcomes) {
      std::cout << "    " << outcome << ": " << tally.count << "  (first: " << tally.first << ")\n";
    }
  }
  std::cout << "  findings: " << findings_.size() << "\n";
  for (const std::string& finding : findings_) std::cout << "    " << finding << "\n";
  return findings_.empty() ? 0 : 1;
}

// --- the sequence ---------------------------------------------------------------------------------

std::vector<Step> Sequence() {
  auto damageMain = [](const wup_test::SandboxLayout& device) {
    wup_test::WriteFile(device.db + "/.AppBinaryManager.db", std::string(4096, 'x'));
  };
  auto removeResult = [](const wup_test::SandboxLayout& device) {
    fs::remove(device.rwApp + "/appbinarymanager/webapi_result/upgrade_webapi_result.json");
  };
  // The main file stays valid, but every insert into it fails inside the write transaction.
  auto refuseInserts = [](const wup_test::SandboxLayout& device) {
    sqlite3* raw = nullptr;
    sqlite3_open_v2((device.db + "/.AppBinaryManager.db").c_str(), &raw, SQLITE_OPEN_READWRITE, nullptr);
    const std::unique_ptr<sqlite3, SqliteClose> db(raw);
    sqlite3_exec(db.get(),
                 "create trigger refuse before insert on pluginTable begin select raise(abort, 'x'); end",
                 nullptr, nullptr, nullptr);
  };
  return {
      {"first install", "install", Player("1.0.0"), nullptr},
      {"b2b install", "install", Signage("1.0.0"), nullptr},
      {"xwalk install", "install", Ambient("1.0.0"), nullptr},
      {"upgrade", "upgrade", Player("1.1.0"), nullptr},
      {"downgrade", "upgrade", Player("1.0.0"), nullptr},
      {"same-version reinstall", "install", Player("1.0.0"), nullptr},
      {"same-version reinstall, result file missing", "install", Player("1.0.0"), removeResult},
      {"uninstall", "uninstall", Signage("1.0.0"), nullptr},
      {"damaged main file", "install", Signage("1.1.0"), damageMain},
      {"statement failing in the transaction", "upgrade", Ambient("1.1.0"), refuseInserts},
      {"xwalk uninstall", "uninstall", Ambient("1.1.0"), nullptr},
  };
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  int every = 1;
  int at = 0;
  bool usage = mode != "kill" && mode != "powercut" && mode != "enospc";
  for (int i = 2; i < argc; i += 2) {
    const std::string option = argv[i];
    if ((option != "--every" && option != "--at") || i + 1 == argc) usage = true;
    if (!usage) (option == "--every" ? every : at) = std::atoi(argv[i + 1]);
  }
  if (usage || every < 1 || at < 0) {
    std::cerr << "usage: crash_campaign kill|powercut|enospc [--every N | --at K]\n";
    return 2;
  }
  Campaign campaign(mode, every, at);
  campaign.Play(Sequence());
  return campaign.Report();
}
