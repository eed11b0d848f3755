#include "explain.h"

#include <algorithm>
#include <cctype>
#include <sstream>

#include "report.h"

namespace pkgsim {
namespace {

std::string Plural(std::size_t count, const std::string& word) {
  return std::to_string(count) + " " + word + (count == 1 ? "" : "s");
}

std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

// A parser's error text on one line: "* Line 6, Column 1\n  Missing ..." reads "Line 6, Column 1: Missing
// ...".
std::string OneLine(const std::string& text) {
  std::istringstream lines(text);
  std::string joined;
  for (std::string line; std::getline(lines, line);) {
    const std::size_t first = line.find_first_not_of(" \t*");
    if (first == std::string::npos) continue;
    line = line.substr(first, line.find_last_not_of(" \t") - first + 1);
    joined += (joined.empty() ? "" : ": ") + line;
  }
  return joined;
}

std::string AppName(const std::string& appid) {
  return appid.empty() ? "\"\" (an empty id, from a stray comma in an allow-list)" : appid;
}

// Why the plug-in's validity check found a database file bad, from the texts of that check. Its verdict
// line comes last and names a failed integrity check or, when that passed, missing tables.
std::string ValidityFailure(const LogEntry& entry) {
  static const std::pair<LogText, const char*> kReasons[] = {
      {LogText::kDbMissing, "missing"},
      {LogText::kDbEmpty, "an empty file"},
      {LogText::kDbUnopened, "cannot be opened"},
      {LogText::kDbIntegrity, "fails SQLite's integrity check"},
      {LogText::kDbTablesUnlisted, "its tables cannot be listed"},
      {LogText::kOtherColumns, "its plug-in table has other columns than the plug-in's own"},
  };
  for (const auto& [text, reason] : kReasons) {
    if (entry.Says(text)) return reason;
  }
  if (!entry.Says(LogText::kDbInvalid)) return "";
  return entry.Between(LogText::kDbInvalid, LogText::kDbInvalidTables) == "1"
             ? "lacks its tables"
             : "fails SQLite's integrity check";
}

// The plug-in's entry points log only what they were handed; any other function's line is the handler's.
bool FromEntryPoint(const LogEntry& entry) {
  for (const Operation operation : {Operation::kInstall, Operation::kUpgrade, Operation::kUninstall}) {
    if (entry.function == EntryPointName(operation)) return true;
  }
  return false;
}

class Explainer {
 public:
  explicit Explainer(const Call& call) : call_(call), pkgid_(call.manifest.package) {}

  std::vector<Note> Notes() {
    DatabaseNotes();
    for (const LogEntry& entry : call_.log) {
      if (!entry.From(LogText::kWalkFile) && !entry.From(LogText::kFileError)) FlushFiles();
      if (!entry.function.empty() && !FromEntryPoint(entry)) handled_ = true;
      if (!Rebuild(entry)) Decision(entry);
      Publication(entry);
    }
    FlushFiles();
    RebuildNote();
    if (!Published()) {
      // The hardened build's comparison with the result file builds the document without writing it.
      apps_.clear();
      unusedAllowLists_.clear();
    }
    for (const std::string& text : unusedAllowLists_) Add(Note::kInfo, text);
    if (!handled_) {
      NotHandled();
    } else if (call_.operation == Operation::kUninstall) {
      Removal();
    } else {
      Storing();
    }
    Rewrite();
    return notes_;
  }

 private:
  struct App {
    std::string id;
    std::vector<std::string> allowedBy;
    int terminated = 0, failed = 0, foreground = 0, unknown = 0;
  };

  struct Rebuilt {
    std::string pkgid, version;
    std::vector<std::string> names;  // the records it gave
  };

  void Add(Note::Kind kind, const std::string& text) { notes_.push_back({kind, text}); }
  bool Hardened() const { return call_.policy == "hardened"; }
  bool LogSays(LogText text) const {
    return std::any_of(call_.log.begin(), call_.log.end(),
                       [&](const LogEntry& entry) { return entry.Says(text); });
  }
  void Refuse(const std::string& text) {
    if (refused_) return;
    refused_ = true;
    const bool removing = call_.operation == Operation::kUninstall;
    Add(Note::kRefusal, (removing ? "removed nothing: " : "not stored: ") + text);
  }

  void DatabaseNotes() {
    for (const DatabaseEvent& event : DatabaseEvents(call_.log)) {
      const std::string why = event.reason.empty() ? "" : " (" + event.reason + ")";
      switch (event.kind) {
        case DatabaseEvent::kPassed:
          break;
        case DatabaseEvent::kCreated:
          if (!call_.before.dbExists) {
            Add(Note::kInfo, "no database yet: the plug-in created an empty one");
          } else {
            Add(Note::kWarning,
                "the database" + why +
                    " and its backup were not valid: the plug-in deleted it and created an "
                    "empty one; " +
                    (LogSays(LogText::kRecordsLost) ? "its records are rebuilt from the installed packages"
                                                    : "every record it held is gone"));
          }
          break;
        case DatabaseEvent::kRestored:
          Add(Note::kWarning, "the database was damaged" + why + ": the plug-in restored it from its backup");
          break;
        case DatabaseEvent::kRecoveredStatement:
          Add(Note::kWarning,
              "a database statement failed: the plug-in restored the database from its backup and tried "
              "again");
          break;
        case DatabaseEvent::kTruncatedCopy:
          Add(Note::kWarning,
              std::string("a database copy found its source empty and left its destination ") +
                  (Hardened() ? "as it was" : "truncated"));
          break;
        case DatabaseEvent::kBusyGaveUp:
          Add(Note::kWarning,
              "the database stayed busy (another process held it): the plug-in gave up the call without "
              "restoring or creating either database file");
          break;
        case DatabaseEvent::kBusyNothingWritten:
          Add(Note::kWarning,
              "the database stayed busy (another process held it): the plug-in gave up the write, nothing "
              "written and nothing restored");
          break;
        case DatabaseEvent::kCopyIncomplete:
          Add(Note::kWarning, (event.reason.empty() ? ""
                                                    : "the database was damaged" + why +
                                                          " and restoring it from its backup failed: ") +
                                  std::string("the copy of ") + event.from + " to " + event.to +
                                  " was not completed; the plug-in left " + event.to + " as it was");
          break;
      }
    }
  }

  // The handler's and the package queries' lines, in the order the plug-in decides.
  void Decision(const LogEntry& entry) {
    using T = LogText;
    if (entry.Says(T::kNoMetadataEnd) && entry.Between(T::kNoMetadata, T::kNoMetadataEnd) == kTypeKey) {
      typeKeyMissing_ = true;
    } else if (entry.Between(T::kMetadataKey, T::kMetadataValue) == kTypeKey) {
      typeValue_ = entry.After(T::kMetadataValue);
    } else if (entry.Says(T::kTypeFailed)) {
      Refuse(TypeFailure());
    } else if (entry.Says(T::kTypeIs)) {
      const std::string type = entry.After(T::kTypeIs);
      if (type == "99")
        Refuse("kind \"" + typeValue_ + "\" is none of pepperplugin, b2bpepperplugin, xwalkplugin");
      kind_ = KindName(type);
    } else if (entry.Says(T::kInvalidPkgid)) {
      Refuse("the package id has neither \"pepper.\" nor \"xwalk.\" in it, so it names no plug-in");
    } else if (entry.Says(T::kNameFailed)) {
      Refuse("nothing follows \"pepper.\" or \"xwalk.\" in the package id: the plug-in name would be empty");
    } else if (entry.Says(T::kPluginName)) {
      name_ = entry.After(T::kPluginName);
      packageFiles_ = true;
      if (call_.operation != Operation::kUninstall) {
        Add(Note::kInfo, "kind " + kind_ + " (\"" + typeValue_ + "\"), plug-in name " + name_);
      }
    } else if (entry.Says(T::kVersionUnread)) {
      Add(Note::kWarning, "the package's version cannot be read: the plug-in goes on with 0.0.0");
    } else if (entry.Says(T::kEmptyParams)) {
      Refuse("the package has no version");
    } else if (entry.Says(T::kTpkVersion)) {
      tpkVersion_ = entry.Between(T::kTpkVersion, T::kLocalVersion);
      localVersion_ = entry.After(T::kLocalVersion);
    } else if (entry.Says(T::kSameVersion)) {
      Refuse(tpkVersion_ == "0.0.0" && call_.before.rows.count(name_) == 0
                 ? "version " + tpkVersion_ + " is what the plug-in assumes for a plug-in it has no record of"
                 : "version " + tpkVersion_ + " equals the recorded one");
    } else if (entry.Says(T::kRootPath)) {
      rootPath_ = entry.After(T::kRootPath);
    } else if (entry.Says(T::kInstalledRo) || entry.Says(T::kInstalledRw) || entry.Says(T::kInstalledBoth)) {
      const std::string code = entry.Says(T::kInstalledRo) ? "0" : entry.Says(T::kInstalledRw) ? "1" : "2";
      Add(Note::kInfo, "installed in the " + LocationName(code) + ": " + rootPath_);
    } else if (packageFiles_) {
      DescriptionFiles(entry);
    }
    if (entry.Says(T::kInserted)) {
      inserted_.push_back(entry.Between(T::kInserted, T::kInsertedVersion));
    } else if (entry.Says(T::kStoredInOneWrite)) {
      oneWrite_ = true;
    } else if (entry.Says(T::kNoneStored)) {
      Add(Note::kWarning, "storing " + JoinNames(inserted_) +
                              " failed: the database refused the one write of " +
                              entry.Between(T::kNoneStored, T::kNoneStoredEnd) + " records, none is stored");
      inserted_.clear();
      noneStored_ = true;
    } else if (entry.Says(T::kPackageRecordsRemoved)) {
      byPackage_ = true;
    } else if (entry.Says(T::kInsertFailed) && !inserted_.empty()) {
      Add(Note::kWarning, "storing " + inserted_.back() + " failed: the database refused it");
      inserted_.pop_back();  // not stored after all
    } else if (entry.Says(T::kInsertedListFailed)) {
      Refuse("the records cannot be built: the package's root path is unknown");
    } else if (entry.Says(T::kCheckFailed)) {
      Refuse("the plug-in's check of the package failed");
    } else if (entry.Says(T::kRemoveFailed)) {
      Refuse("the database refused the deletion");
    }
  }

  // The lines of a rebuild of lost records (hardened build): each installed package goes through the
  // package's own steps, up to the call's own package (or its removal); false for a line of the call itself.
  bool Rebuild(const LogEntry& entry) {
    using T = LogText;
    if (entry.Says(T::kRecordsLost)) {
      recordsLost_ = true;
    } else if (entry.Says(T::kPackagesUnlisted)) {
      packagesUnlisted_ = true;
    } else if (entry.Says(T::kRebuilt)) {
      rebuilding_ = true;
      rebuilt_.push_back(
          {entry.Between(T::kRebuilt, T::kRebuiltVersion), entry.After(T::kRebuiltVersion), {}});
    } else if (entry.Says(T::kHandlingPackage) || entry.Says(T::kPackageRecordsRemoved)) {
      rebuilding_ = false;
      return false;
    } else if (!rebuilding_) {
      return false;
    } else if (entry.Says(T::kInserted)) {
      rebuilt_.back().names.push_back(entry.Between(T::kInserted, T::kInsertedVersion));
    } else if (entry.Says(T::kNoneStored)) {
      rebuilt_.back().names.clear();
    }
    return true;
  }

  void RebuildNote() {
    if (!recordsLost_) return;
    if (packagesUnlisted_) {
      Add(Note::kWarning, "the installed packages could not be listed: no record was rebuilt");
      return;
    }
    std::vector<std::string> packages;
    for (const Rebuilt& package : rebuilt_) {
      packages.push_back(package.pkgid + " " + package.version + " (" +
                         (package.names.empty() ? "nothing stored" : JoinNames(package.names)) + ")");
    }
    Add(call_.before.dbExists ? Note::kWarning : Note::kInfo,
        packages.empty()
            ? "no other installed package carries the type key: no record to rebuild"
            : "records rebuilt from the installed packages that carry the type key: " + JoinNames(packages));
  }

  std::string TypeFailure() const {
    const auto& apps = call_.manifest.apps;
    const bool hasApp =
        std::any_of(apps.begin(), apps.end(), [&](const auto& app) { return app.appid == pkgid_; });
    const std::string elsewhere = call_.appid != pkgid_ ? " (the metadata is on " + call_.appid + ")" : "";
    if (!hasApp) {
      return "the plug-in reads the kind from the application whose id is the package id, and the "
             "package has no application " +
             pkgid_ + elsewhere;
    }
    if (typeKeyMissing_) return "application " + pkgid_ + " has no " + kTypeKey + " metadata" + elsewhere;
    return "the kind of " + pkgid_ + " cannot be read";
  }

  void DescriptionFiles(const LogEntry& entry) {
    using T = LogText;
    if (entry.Says(T::kWalkPath)) {
      resourceDir_ = entry.After(T::kWalkPath);
    } else if (entry.Says(T::kWalkFile)) {
      std::string file = entry.After(T::kWalkFile);
      if (file.compare(0, resourceDir_.size(), resourceDir_) == 0) file = file.substr(resourceDir_.size());
      files_.push_back({file, ""});
    } else if (entry.From(T::kFileError) && !files_.empty()) {
      // A file the parser could not read, or one it read but the plug-in could not use, whole or in part.
      if (entry.Says(T::kFileUnopened)) files_.back().second = "it cannot be opened";
      if (entry.Says(T::kFileError)) files_.back().second = OneLine(entry.After(T::kFileError));
      if (entry.Says(T::kFileNotArray)) files_.back().second = "it holds no array of extensions";
      if (entry.Says(T::kFileBadElement))
        Add(Note::kWarning, files_.back().first + ": element " + entry.After(T::kFileBadElement));
    } else if (entry.Says(T::kXwalkInfoFailed)) {
      Refuse("the package's shared/res/ directory cannot be read");
    }
  }

  void FlushFiles() {
    std::vector<std::string> read;
    for (const auto& [file, reason] : files_) {
      if (reason.empty()) read.push_back(file);
    }
    if (!read.empty()) Add(Note::kInfo, "read " + JoinNames(read));
    for (const auto& [file, reason] : files_) {
      if (!reason.empty()) Add(Note::kWarning, "skipped " + file + ": " + reason);
    }
    files_.clear();
  }

  void NotHandled() {
    std::string near;
    for (const auto& item : call_.items) {
      if (item.first != kTypeKey && Lower(item.first) == Lower(kTypeKey))
        near = " (" + item.first + " differs in case)";
    }
    Add(Note::kRefusal, "not handled: no item has the key " + kTypeKey + " exactly" + near);
  }

  void Storing() {
    if (refused_) return;
    if (inserted_.empty()) {
      Refuse(noneStored_        ? "the database refused the write"
             : kind_ == "xwalk" ? "no description file of the package describes an extension"
                                : "the plug-in stored nothing");
      return;
    }
    std::string text = "stored " + JoinNames(inserted_) +
                       (oneWrite_ && inserted_.size() > 1 ? " in one write" : "") + ": version " +
                       tpkVersion_;
    if (call_.before.rows.count(name_) != 0) {
      text += " replaces the recorded " + localVersion_;
    } else if (std::find(inserted_.begin(), inserted_.end(), name_) == inserted_.end()) {
      text += ", compared with " + localVersion_ + " as no record is named " + name_ +
              ": an xwalk package is stored again at every install";
    } else {
      text += ", no record of " + name_ + " before";
    }
    Add(Note::kInfo, text);
  }

  void Removal() {
    if (refused_) return;
    std::vector<std::string> removed;
    for (const auto& entry : call_.before.rows) {
      if (call_.after.rows.count(entry.first) == 0) removed.push_back(entry.first);
    }
    // The hardened build removes by package id, the default build the one record named like the package;
    // the package id is named where the two differ.
    const bool beyondName = byPackage_ && removed != std::vector<std::string>{name_};
    const std::string what = !removed.empty() ? "removed " + JoinNames(removed) +
                                                    (beyondName ? ": every record of package " + pkgid_ : "")
                             : byPackage_ ? "removed nothing: no record carries the package id " + pkgid_
                                          : "removed nothing: no record is named " + name_;
    const std::vector<std::string> stay = NamesOf(call_.after.RowsOf(pkgid_));
    if (!stay.empty()) {
      Add(Note::kWarning, what + (stay.size() == 1 ? "; the record " : "; the records ") + JoinNames(stay) +
                              " of this package " + (stay.size() == 1 ? "stays" : "stay"));
    } else {
      Add(removed.empty() ? Note::kRefusal : Note::kInfo, what);
    }
  }

  // The rebuild of the result file and the guard's decisions for each allow-listed application.
  void Publication(const LogEntry& entry) {
    using T = LogText;
    if (entry.Says(T::kAllowListUnused)) {
      const std::string name = entry.Before(T::kAllowListUnused);
      const auto row = call_.after.rows.find(name);
      if (row != call_.after.rows.end() && row->second[kPkgid] == pkgid_) {
        unusedAllowLists_.push_back(
            "allow-list of " + name + " not used: " +
            (row->second[kLocation] == "0" ? "it is in the read-only image only" : "it is empty"));
      }
    } else if (entry.Says(T::kPublished)) {
      App& app = AppNamed(entry.After(T::kPublishedApp));
      const std::string plugin = entry.Between(T::kPublished, T::kPublishedApp);
      if (std::find(app.allowedBy.begin(), app.allowedBy.end(), plugin) == app.allowedBy.end()) {
        app.allowedBy.push_back(plugin);
      }
      current_ = static_cast<std::size_t>(&app - apps_.data());
    } else if (current_ < apps_.size()) {
      App& app = apps_[current_];
      if (entry.Says(T::kForegroundUnknown)) ++app.unknown;
      if (entry.Says(T::kForeground)) ++app.foreground;
      if (entry.Says(T::kTerminated)) ++app.terminated;
      if (entry.Says(T::kTerminateFailed)) ++app.failed;
    }
    if (entry.Says(T::kStaleResult)) {
      // What was built before was the comparison's document; the rewrite builds it again.
      stale_ = true;
      apps_.clear();
      unusedAllowLists_.clear();
      current_ = static_cast<std::size_t>(-1);
    } else if (entry.Says(T::kRecordsUnreadable)) {
      recordsUnreadable_ = true;
    } else if (entry.Says(T::kKeptRecords)) {
      keptRecords_ = true;
    } else if (entry.Says(T::kClearedDb)) {
      clearedDb_ = true;
    } else if (entry.Says(T::kResultFailed) && writeFailure_.empty()) {
      writeFailure_ = entry.message;
    }
  }

  App& AppNamed(const std::string& id) {
    for (App& app : apps_) {
      if (app.id == id) return app;
    }
    apps_.push_back({id, {}});
    return apps_.back();
  }

  // The result document was built to be written (and not only to be compared with the file).
  bool Published() const {
    return call_.after.ResultRewrittenSince(call_.before) || clearedDb_ || keptRecords_ ||
           !writeFailure_.empty();
  }

  void Rewrite() {
    const bool rewritten = call_.after.ResultRewrittenSince(call_.before);
    const std::string failure =
        "the result file could not be written" + (writeFailure_.empty() ? "" : " (" + writeFailure_ + ")");
    if (clearedDb_) {
      Add(Note::kWarning,
          failure + ": the plug-in deleted all its records, so that every package is stored again later");
    } else if (keptRecords_) {
      Add(Note::kWarning,
          failure + ": the plug-in kept its records, and its next call writes the file again");
    } else if (recordsUnreadable_) {
      Add(Note::kWarning, "the records could not be read: the plug-in left the result file as it is");
    } else if (rewritten) {
      const bool changed = !inserted_.empty() || call_.operation == Operation::kUninstall;
      const std::string why = stale_                       ? " (it differed from the records)"
                              : changed                    ? ""
                              : !call_.before.resultExists ? " (it was missing)"
                                                           : " (a rewrite was still pending in this process)";
      Add(Note::kInfo,
          "result file rewritten from " + Plural(call_.after.rows.size(), "record") + why +
              (apps_.empty() ? ""
                             : "; each rewrite terminates the allow-listed applications of every record:"));
    }
    for (const App& app : apps_) {
      const std::string by = JoinNames(app.allowedBy);
      const std::string name = "  " + AppName(app.id);
      if (app.terminated > 0) {
        Add(Note::kInfo, name + " terminated" +
                             (app.terminated > 1 ? " " + std::to_string(app.terminated) + " times" : "") +
                             ": allow-listed by " + by);
      }
      if (app.foreground > 0)
        Add(Note::kInfo, name + " kept running: it is in the foreground (allow-listed by " + by + ")");
      if (app.unknown > 0)
        Add(Note::kInfo, name + " not terminated: the foreground application could not be determined");
      if (app.failed > 0) Add(Note::kInfo, name + " not terminated: vex_terminate_app failed");
    }
  }

  const Call& call_;
  const std::string pkgid_;
  std::vector<Note> notes_;
  bool handled_ = false;
  bool refused_ = false;
  bool typeKeyMissing_ = false;
  std::string typeValue_, kind_, name_, tpkVersion_, localVersion_ = "0.0.0", rootPath_;
  bool packageFiles_ = false;  // the description files now read are the package's, not the built-in ones
  std::string resourceDir_;
  std::vector<std::pair<std::string, std::string>> files_;  // file, why it was skipped ("" when read)
  std::vector<std::string> inserted_;
  std::vector<App> apps_;  // in the order the rebuild names them
  std::size_t current_ = static_cast<std::size_t>(-1);
  bool clearedDb_ = false;
  std::string writeFailure_;
  std::vector<std::string> unusedAllowLists_;  // notes, given once the document is known to be written
  // the hardened build's own decisions
  bool oneWrite_ = false, noneStored_ = false, byPackage_ = false;
  bool stale_ = false, keptRecords_ = false, recordsUnreadable_ = false;
  bool recordsLost_ = false, packagesUnlisted_ = false, rebuilding_ = false;
  std::vector<Rebuilt> rebuilt_;
};

}  // namespace

std::vector<Note> Explain(const Call& call) { return Explainer(call).Notes(); }

void PrintNotes(const std::vector<Note>& notes, std::ostream& out) {
  for (const Note& note : notes)
    out << (note.kind == Note::kWarning ? "  warning: " : "  ") << note.text << "\n";
}

std::vector<DatabaseEvent> DatabaseEvents(const Log& log) {
  using T = LogText;
  std::vector<DatabaseEvent> events;
  std::string reason;
  bool busy = false;
  bool restoring = false;  // the entry before was the copy of a restore
  auto found = [&](DatabaseEvent::Kind kind) {
    events.push_back({kind, busy ? "busy: another process held it" : reason, "", ""});
    reason.clear();
    busy = false;
  };
  for (const LogEntry& entry : log) {
    const bool copyOfRestore = restoring;
    restoring = false;
    if (entry.Says(T::kBusy)) {
      busy = true;
    } else if (entry.Says(T::kDbPassed)) {
      found(DatabaseEvent::kPassed);
    } else if (entry.Says(T::kDbCreated)) {
      found(DatabaseEvent::kCreated);
    } else if (entry.Says(T::kStatementRecovered)) {
      found(DatabaseEvent::kRecoveredStatement);
    } else if (entry.Says(T::kBackupCopy) && !reason.empty()) {
      // The copy follows a failed check only when the backup replaces the main file.
      found(DatabaseEvent::kRestored);
      restoring = true;
    } else if (entry.Says(T::kCopyTruncated)) {
      found(DatabaseEvent::kTruncatedCopy);
    } else if (entry.Says(T::kBusyGaveUp)) {
      found(DatabaseEvent::kBusyGaveUp);
    } else if (entry.Says(T::kBusyNothingWritten)) {
      found(DatabaseEvent::kBusyNothingWritten);
    } else if (entry.Says(T::kCopyIncomplete)) {
      DatabaseEvent copy{DatabaseEvent::kCopyIncomplete, "",
                         entry.Between(T::kCopyIncomplete, T::kCopyIncompleteTo),
                         entry.Between(T::kCopyIncompleteTo, T::kCopyIncompleteEnd)};
      if (copyOfRestore) {  // the restore it belongs to did not happen
        copy.reason = events.back().reason;
        events.pop_back();
      }
      events.push_back(copy);
    } else if (reason.empty()) {
      reason = ValidityFailure(entry);
    }
  }
  return events;
}

}  // namespace pkgsim
