// The crash campaign: each operation of a sequence of package operations on a sandbox device is cut short
// at each of its write-side calls, then called again, and what is left is noted by class (run.sh tallies).
//
//   crash_campaign kill|powercut|enospc [EVERY [ONLY]]
//
// kill: the process is killed right before call k. powercut: the same, and then the data the process had
// not synced is lost (renames, creations and removals stay). enospc: from call k on the disk is full, and
// the operation runs to its end. After the cut the same operation runs again in a fresh process, with the
// disk back. Each operation is first run twice without a cut: the first run gives the number of calls
// and the new result file, the second the state that the operation settles at (an operation that needs
// the second run to get there is a finding of its own). With EVERY = N only every N-th point is tried, and
// the last N of each operation, where the result file is written; with ONLY = K only point K.
// WUP_E2E_KEEP=1 keeps the device and the work directory.
#include <json/json.h>

#include <algorithm>
#include <functional>
#include <regex>
#include <sstream>

#include "campaign.h"

namespace fs = std::filesystem;
using campaign::Rows;
using wup_e2e::Has;

namespace {

const char kCreateDb[] = "db and backup db are not valid, now create db";

struct Step {
  std::string name;
  std::string operation;  // install, upgrade or uninstall
  wup_e2e::Package package;
  std::function<void(const wup_e2e::Device&)> damage;
};

struct State {
  std::optional<std::string> result;
  campaign::Database main, backup;
  std::vector<std::string> log;
};

struct Reference {
  State before, once, settled;
  long calls = 0;
};

// The rows of the package (own) or of every other package.
Rows RowsOf(const Rows& rows, const std::string& pkgid, bool own) {
  Rows selected;
  std::copy_if(rows.begin(), rows.end(), std::back_inserter(selected),
               [&](const auto& row) { return (row[3] == pkgid) == own; });
  return selected;
}

bool IsJson(const std::string& text) {
  Json::Value document;
  std::istringstream in(text);
  return !text.empty() && Json::parseFromStream(Json::CharReaderBuilder(), in, &document, nullptr);
}

bool SaysWhatFailed(const std::vector<std::string>& log) {
  static const std::regex failure("fail|invalid|not valid|broken", std::regex::icase);
  return std::any_of(log.begin(), log.end(),
                     [](const auto& line) { return std::regex_search(line, failure); });
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
    if (std::getenv("WUP_E2E_KEEP") == nullptr) fs::remove_all(work_);
  }

  void Play(const std::vector<Step>& steps) {
    long points = 0;
    for (const Step& step : steps) {
      device_.Place(step.package);
      if (step.damage) step.damage(device_);
      Copy(root_, work_ + "/before");
      Reference reference;
      reference.before = Observe();
      CallShimmed(step, {});
      reference.calls = static_cast<long>(wup_test::ReadLines(work_ + "/trace").size());
      reference.once = Observe();
      Call(step);
      reference.settled = Observe();
      where_ = step.name + ", uninterrupted";
      if (reference.once.main.rows != reference.settled.main.rows ||
          reference.once.result != reference.settled.result)
        Note("uninterrupted operation", "needs a second run to reach its end", true);
      Copy(root_, work_ + "/after");

      long tried = 0;
      const long last =
          reference.calls + (mode_ == "powercut" ? 1 : 0);  // a power cut may come after the end
      for (long k = 1; k <= last; ++k) {
        if (at_ != 0 ? k != at_ : (k - 1) % every_ != 0 && k + every_ <= last) continue;
        Copy(work_ + "/before", root_);
        Check(step, reference, k);
        ++tried;
      }
      std::printf("  %s: records %zu -> %zu, %ld write-side calls, %ld tried\n", step.name.c_str(),
                  reference.before.main.rows.size(), reference.settled.main.rows.size(), reference.calls,
                  tried);
      points += tried;
      Copy(work_ + "/after", root_);
    }
    std::printf("mode %s: %ld points\n", mode_.c_str(), points);
  }

 private:
  static int Call(const Step& step) { return campaign::Call(step.operation, step.package); }
  // With the write shim preloaded, and `shim` added to its environment; its trace numbers the calls.
  int CallShimmed(const Step& step, std::vector<std::string> shim) const {
    fs::remove(work_ + "/trace");
    shim.insert(shim.end(), {"LD_PRELOAD=" WUP_WRITE_SHIM, "WUP_SHIM_TRACE=" + work_ + "/trace"});
    return campaign::Call(step.operation, step.package, shim);
  }

  State Observe() const {
    State state;
    if (device_.ResultFileExists()) state.result = device_.ResultFile();
    state.main = campaign::Inspect(device_.DatabasePath(), work_ + "/inspect.db");
    state.backup = campaign::Inspect(device_.BackupPath(), work_ + "/inspect.db");
    state.log = device_.Log();
    device_.ClearLog();
    return state;
  }

  void Check(const Step& step, const Reference& reference, long k) {
    std::vector<std::string> shim = {(mode_ == "enospc" ? "WUP_SHIM_FULL_AT=" : "WUP_SHIM_KILL_AT=") +
                                     std::to_string(k)};
    if (mode_ == "powercut") shim.push_back("WUP_SHIM_POWERCUT=1");
    const int status = CallShimmed(step, shim);
    // Where: the call the cut came at, from the shim's trace, with paths relative to the device.
    const std::vector<std::string> trace = wup_test::ReadLines(work_ + "/trace");
    where_ =
        step.name + ", cut at call " +
        (k <= static_cast<long>(trace.size()) ? std::regex_replace(trace[k - 1], std::regex(root_ + "/"), "")
                                              : std::to_string(k) + " (after the last call)");
    const int expected = mode_ == "enospc" || k > reference.calls ? 0 : 128 + SIGKILL;
    if (status != expected) Note("cut run", "ended with status " + std::to_string(status), true);
    const State cut = Observe();

    // Right after the cut the result file is absent only if it was before, and else a whole document.
    const State &before = reference.before, &once = reference.once, &settled = reference.settled;
    const std::string result = !cut.result                   ? (before.result ? "gone" : "absent")
                               : cut.result == before.result ? "old"
                               : cut.result == once.result || cut.result == settled.result ? "new"
                               : cut.result->empty()                                       ? "empty"
                                                                                           : "partial";
    Note("result file after the cut", result, result != "absent" && result != "old" && result != "new");
    const bool says = SaysWhatFailed(cut.log);
    if (mode_ == "enospc" && (cut.main.rows != settled.main.rows || cut.result != settled.result))
      Note("log of a run that fell short", says ? "says what failed" : "silent", !says);
    Note("open check at the next call", !before.main.valid && !before.backup.valid
                                            ? "no database before the operation"
                                        : cut.main.valid   ? "main valid"
                                        : cut.backup.valid ? "main restored from the backup"
                                                           : "both invalid: database created afresh");

    // The next call works; the records are as the uninterrupted operation left them, or lost only the ways
    // the design keeps; the result file is current, or stale only the way the design keeps.
    const int next = Call(step);
    Note("next call", next == 0 ? "ended normally" : next == 128 + SIGALRM ? "hung" : "failed", next != 0);
    const State after = Observe();
    Note("main file after the next call", after.main.valid ? "valid" : "invalid", !after.main.valid);
    const std::string& pkgid = step.package.pkgid;
    // With every record lost, the next call stores the package's own again (an uninstall stores nothing).
    const bool allLost =
        after.main.rows == (step.operation == "uninstall" ? Rows{} : RowsOf(settled.main.rows, pkgid, true));
    // On a full disk the backup refresh truncates the backup and then cannot write it, yet succeeds; once
    // the main file fails too, the open check finds both invalid and starts an empty database.
    const bool recreated = mode_ == "enospc" && (before.main.valid || before.backup.valid) &&
                           (Has(cut.log, kCreateDb) || Has(after.log, kCreateDb));
    const std::string records =
        after.main.rows == settled.main.rows ? "as uninterrupted"
        : allLost && recreated ? "all lost: both files invalid, the backup emptied by its refresh (kept)"
        : allLost && Has(cut.log, "update fail!clear DB for next boot")
            ? "all lost: cleared after the failed rewrite (kept)"
        : RowsOf(after.main.rows, pkgid, false) == RowsOf(settled.main.rows, pkgid, false) &&
                Has(after.log, "no need insert")
            ? "package half-stored: its version counts as recorded"
            : "lost";
    Note("records after the next call", records, records == "lost");
    const std::string current =
        after.result == settled.result ? "current"
        : after.result && (after.result == before.result || after.result == once.result)
            ? "stale until the next change (kept)"
        : records.rfind("all lost", 0) == 0 && after.result && IsJson(*after.result)
            ? "rebuilt from the records left"
            : "other";
    Note("result file after the next call", current, current == "other");
    Note("backup after the next call", !after.backup.valid                    ? "invalid until the next write"
                                       : after.backup.rows == after.main.rows ? "equal to the main file"
                                                                              : "behind the main file");
  }

  void Note(const std::string& aspect, const std::string& outcome, bool finding = false) const {
    campaign::Note(aspect, outcome, where_, finding);
  }

  std::string mode_;
  long every_, at_;  // at_: the one point to try, or 0
  wup_e2e::Device device_;
  std::string root_ = device_.layout().root;
  std::string work_ = wup_test::MakeTempDir("wup-crash");
  std::string where_;
};

std::vector<Step> Sequence() {
  using campaign::Ambient, campaign::Player, campaign::Signage;
  auto damageMain = [](const wup_e2e::Device& device) {
    wup_test::WriteFile(device.DatabasePath(), std::string(4096, 'x'));
  };
  auto removeResult = [](const wup_e2e::Device& device) { fs::remove(device.ResultPath()); };
  // The main file stays valid, but every insert into it fails inside the write transaction.
  auto refuseInserts = [](const wup_e2e::Device& device) {
    sqlite3* db = nullptr;
    sqlite3_open_v2(device.DatabasePath().c_str(), &db, SQLITE_OPEN_READWRITE, nullptr);
    campaign::Query(db,
                    "create trigger refuse before insert on pluginTable begin select raise(abort, 'x'); end");
    sqlite3_close(db);
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
  const long every = argc > 2 ? std::atol(argv[2]) : 1, at = argc > 3 ? std::atol(argv[3]) : 0;
  if (argc > 4 || (mode != "kill" && mode != "powercut" && mode != "enospc") || every < 1 || at < 0) {
    std::fprintf(stderr, "usage: crash_campaign kill|powercut|enospc [EVERY [ONLY]]\n");
    return 2;
  }
  Campaign(mode, every, at).Play(Sequence());
}
