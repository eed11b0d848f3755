// The crash campaign (run.sh tells the modes and options): each operation of a sequence on a sandbox device
// is cut short at each of its write-side calls, then called again with the disk back; what is left is noted
// by class. Each operation first runs twice uncut: the first run counts its calls and gives the new result
// file, the second the state it settles at (needing that second run is a finding of its own).
#include <json/json.h>

#include <algorithm>
#include <regex>
#include <sstream>

#include "campaign.h"

namespace fs = std::filesystem;
using campaign::Rows;
using campaign::Step;
using wup_e2e::Has;

namespace {

const char kCreateDb[] = "db and backup db are not valid, now create db";

struct State {
  std::optional<std::string> result;
  campaign::Database main, backup;
  std::vector<std::string> log;
};

// The rows of the package (own) or of every other package.
Rows RowsOf(const Rows& rows, const std::string& pkgid, bool own) {
  Rows selected;
  std::copy_if(rows.begin(), rows.end(), back_inserter(selected),
               [&](auto& row) { return (row[3] == pkgid) == own; });
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
      Call(step);
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
  static int Call(const Step& step) { return campaign::Call(step.operation, step.package); }
  // With the write shim preloaded, cutting at call k (none for k = 0); its trace numbers the calls.
  int Shimmed(const Step& step, long k) const {
    fs::remove(work_ + "/trace");
    return campaign::Call(
        step.operation, step.package,
        {"LD_PRELOAD=" WUP_WRITE_SHIM, "WUP_SHIM_TRACE=" + work_ + "/trace",
         (mode_ == "enospc" ? "WUP_SHIM_FULL_AT=" : "WUP_SHIM_KILL_AT=") + std::to_string(k),
         std::string("WUP_SHIM_POWERCUT=") + (mode_ == "powercut" ? "1" : "0")});
  }

  State Observe() const {
    State state{std::nullopt, campaign::Inspect(device_.DatabasePath(), work_ + "/inspect.db"),
                campaign::Inspect(device_.BackupPath(), work_ + "/inspect.db"), device_.Log()};
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
    const int next = Call(step);
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
    campaign::Note(aspect, outcome, where_, finding);
  }

  std::string mode_;
  long every_, at_;  // at_: the one point to try, or 0
  wup_e2e::Device device_;
  std::string root_ = device_.layout().root, work_ = wup_test::MakeTempDir("wup-crash"), where_;
  State before_, once_, settled_;  // of the operation at hand, uncut
  long calls_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  const long every = argc > 2 ? std::atol(argv[2]) : 1, at = argc > 3 ? std::atol(argv[3]) : 0;
  if (argc > 4 || (mode != "kill" && mode != "powercut" && mode != "enospc") || every < 1 || at < 0) {
    std::fprintf(stderr, "usage: %s kill|powercut|enospc [EVERY [ONLY]]\n", argv[0]);
    return 2;
  }
  Campaign(mode, every, at).Play(campaign::Sequence());
}
