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

// The text after `marker` up to the closing bracket that ends the message.
std::string Bracketed(const LogEntry& entry, const std::string& marker) {
  const std::size_t at = entry.message.find(marker);
  if (at == std::string::npos) return "";
  std::string text = entry.message.substr(at + marker.size());
  if (!text.empty() && text.back() == ']') text.pop_back();
  return text;
}

std::string AppName(const std::string& appid) {
  return appid.empty() ? "\"\" (an empty id, from a stray comma in an allow-list)" : appid;
}

// Why the plug-in's validity check found a database file bad, from the texts of that check.
std::string ValidityFailure(const LogEntry& entry) {
  if (entry.EndsWith(" is not exist")) return "missing";
  if (entry.EndsWith("'s size is 0")) return "an empty file";
  if (entry.StartsWith("Failed to open database")) return "cannot be opened";
  if (entry.message.find("integrity_check") != std::string::npos) return "fails SQLite's integrity check";
  if (entry.StartsWith("table not exist")) return "its tables cannot be listed";
  if (entry.StartsWith("valid check failed, integrity_verify[1]")) return "lacks its tables";
  return "";
}

class Explainer {
 public:
  explicit Explainer(const Call& call) : call_(call), pkgid_(call.manifest.package) {}

  std::vector<Note> Notes() {
    DatabaseNotes();
    for (const LogEntry& entry : call_.log) {
      if (entry.function != "GetXwalkInfo" && entry.function != "m_ParseXwalkJsonFile") FlushFiles();
      if (entry.file != "plugin_parser_interface.cpp" && !entry.file.empty()) handled_ = true;
      Decision(entry);
      Publication(entry);
    }
    FlushFiles();
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

  void Add(Note::Kind kind, const std::string& text) { notes_.push_back({kind, text}); }
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
            Add(Note::kWarning, "the database" + why +
                                    " and its backup were not valid: the plug-in deleted it and created an "
                                    "empty one; every record it held is gone");
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
          Add(Note::kWarning, "a database copy found its source empty and left its destination truncated");
          break;
      }
    }
  }

  // The handler's and the package queries' lines, in the order the plug-in decides.
  void Decision(const LogEntry& entry) {
    if (entry.EndsWith("> metadata") && entry.Between("NO <", ">") == kTypeKey) {
      typeKeyMissing_ = true;
    } else if (entry.Between("]key:[", "]value:[") == kTypeKey) {
      typeValue_ = Bracketed(entry, "]value:[");
    } else if (entry.Is("get plugin type fail!")) {
      Refuse(TypeFailure());
    } else if (entry.EndsWith("]") && entry.message.find("] type is [") != std::string::npos) {
      const std::string type = entry.Between("] type is [", "]");
      if (type == "99")
        Refuse("kind \"" + typeValue_ + "\" is none of pepperplugin, b2bpepperplugin, xwalkplugin");
      kind_ = KindName(type);
    } else if (entry.StartsWith("invalid pkgid")) {
      Refuse("the package id has neither \"pepper.\" nor \"xwalk.\" in it, so it names no plug-in");
    } else if (entry.Is("get plugin name fail")) {
      Refuse("nothing follows \"pepper.\" or \"xwalk.\" in the package id: the plug-in name would be empty");
    } else if (entry.StartsWith("pluginName[")) {
      name_ = Bracketed(entry, "pluginName[");
      packageFiles_ = true;
      if (call_.operation != Operation::kUninstall) {
        Add(Note::kInfo, "kind " + kind_ + " (\"" + typeValue_ + "\"), plug-in name " + name_);
      }
    } else if (entry.StartsWith("get [") &&
               (entry.EndsWith("info fail!!") || entry.EndsWith("version fail!!"))) {
      Add(Note::kWarning, "the package's version cannot be read: the plug-in goes on with 0.0.0");
    } else if (entry.Is("empty params")) {
      Refuse("the package has no version");
    } else if (entry.StartsWith("tpkVersion[")) {
      tpkVersion_ = entry.Between("tpkVersion[", "]");
      localVersion_ = entry.Between("localVersion[", "]");
    } else if (entry.Is("tpkVersion == localVersion")) {
      Refuse(tpkVersion_ == "0.0.0" && call_.before.rows.count(name_) == 0
                 ? "version " + tpkVersion_ + " is what the plug-in assumes for a plug-in it has no record of"
                 : "version " + tpkVersion_ + " equals the recorded one");
    } else if (entry.message.find("]'s root path:[") != std::string::npos) {
      rootPath_ = Bracketed(entry, "]'s root path:[");
    } else if (entry.Is("INSTALLED_ONLY_RO!") || entry.Is("INSTALLED_ONLY_RW!") ||
               entry.Is("INSTALLED_BOTH_RO_RW!")) {
      const std::string code = entry.Is("INSTALLED_ONLY_RO!")   ? "0"
                               : entry.Is("INSTALLED_ONLY_RW!") ? "1"
                                                                : "2";
      Add(Note::kInfo, "installed in the " + LocationName(code) + ": " + rootPath_);
    } else if (packageFiles_) {
      DescriptionFiles(entry);
    }
    if (entry.StartsWith("insert new data:name[")) {
      inserted_.push_back(entry.Between("name[", "]version["));
    } else if (entry.Is("insert into pluginTable fail!!") && !inserted_.empty()) {
      Add(Note::kWarning, "storing " + inserted_.back() + " failed: the database refused it");
    } else if (entry.Is("Get the inserted list fail")) {
      Refuse("the records cannot be built: the package's root path is unknown");
    } else if (entry.StartsWith("check[") && entry.EndsWith("]fail")) {
      Refuse("the plug-in's check of the package failed");
    } else if (entry.Is("remove DB record fail")) {
      Refuse("the database refused the deletion");
    }
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
    if (entry.StartsWith("GetXwalkInfo,path = ")) {
      resourceDir_ = entry.message.substr(20);
    } else if (entry.StartsWith("strFile = ")) {
      std::string file = entry.message.substr(10);
      if (file.compare(0, resourceDir_.size(), resourceDir_) == 0) file = file.substr(resourceDir_.size());
      files_.push_back({file, ""});
    } else if (entry.function == "m_ParseXwalkJsonFile" && !files_.empty()) {
      if (entry.StartsWith("open ") && entry.EndsWith(" fail")) files_.back().second = "it cannot be opened";
      if (!entry.StartsWith("file:[")) return;
      if (entry.message.find("],err:[") != std::string::npos) {
        files_.back().second = OneLine(Bracketed(entry, "],err:["));
        return;
      }
      // A file the parser read but the plug-in could not use, whole or in part.
      const std::string reason = entry.message.substr(entry.message.find("] ") + 2);
      if (reason.compare(0, 8, "element ") == 0) {
        Add(Note::kWarning, files_.back().first + ": " + reason);
      } else {
        files_.back().second = reason;
      }
    } else if (entry.StartsWith("get xwalk extension info fail")) {
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
      Refuse(kind_ == "xwalk" ? "no description file of the package describes an extension"
                              : "the plug-in stored nothing");
      return;
    }
    std::string text = "stored " + JoinNames(inserted_) + ": version " + tpkVersion_;
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
    const std::string what =
        removed.empty() ? "removed nothing: no record is named " + name_ : "removed " + JoinNames(removed);
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
    if (entry.EndsWith("]app whitelist empty OR Only RO TPK,ignore its applist value!")) {
      const std::string name = entry.Between("[", "]app whitelist");
      const auto row = call_.after.rows.find(name);
      if (row != call_.after.rows.end() && row->second[kPkgid] == pkgid_) {
        Add(Note::kInfo,
            "allow-list of " + name + " not used: " +
                (row->second[kLocation] == "0" ? "it is in the read-only image only" : "it is empty"));
      }
    } else if (entry.StartsWith("pluginname:[")) {
      App& app = AppNamed(Bracketed(entry, "]tizenid:["));
      const std::string plugin = entry.Between("pluginname:[", "]tizenid:[");
      if (std::find(app.allowedBy.begin(), app.allowedBy.end(), plugin) == app.allowedBy.end()) {
        app.allowedBy.push_back(plugin);
      }
      current_ = static_cast<std::size_t>(&app - apps_.data());
    } else if (entry.Is("vex_get_current_showing_app failed") || entry.Is("vex_get_app_info failed")) {
      if (current_ < apps_.size()) ++apps_[current_].unknown;
    } else if (entry.EndsWith(" is at foreground")) {
      if (current_ < apps_.size()) ++apps_[current_].foreground;
    } else if (entry.StartsWith("vex_terminate_app [")) {
      if (current_ < apps_.size())
        ++(entry.EndsWith("] success") ? apps_[current_].terminated : apps_[current_].failed);
    } else if (entry.Is("update fail!clear DB for next boot")) {
      clearedDb_ = true;
    } else if (entry.file == "WebapisUtil.cpp" && writeFailure_.empty() &&
               (entry.message.find("fail") != std::string::npos ||
                entry.message.find("security risk") != std::string::npos)) {
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

  void Rewrite() {
    const bool rewritten = call_.after.ResultRewrittenSince(call_.before);
    if (clearedDb_) {
      Add(Note::kWarning,
          "the result file could not be written" + (writeFailure_.empty() ? "" : " (" + writeFailure_ + ")") +
              ": the plug-in deleted all its records, so that every package is stored again later");
    } else if (rewritten) {
      const bool changed = !inserted_.empty() || call_.operation == Operation::kUninstall;
      const std::string why = changed                      ? ""
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
};

}  // namespace

std::vector<Note> Explain(const Call& call) { return Explainer(call).Notes(); }

void PrintNotes(const std::vector<Note>& notes, std::ostream& out) {
  for (const Note& note : notes)
    out << (note.kind == Note::kWarning ? "  warning: " : "  ") << note.text << "\n";
}

std::vector<DatabaseEvent> DatabaseEvents(const Log& log) {
  std::vector<DatabaseEvent> events;
  std::string reason;
  bool busy = false;
  auto found = [&](DatabaseEvent::Kind kind) {
    events.push_back({kind, busy ? "busy: another process held it" : reason});
    reason.clear();
    busy = false;
  };
  for (const LogEntry& entry : log) {
    if (entry.StartsWith("database is lock now") || entry.StartsWith("sqlite3 busy")) {
      busy = true;
    } else if (entry.Is("db valid check pass")) {
      found(DatabaseEvent::kPassed);
    } else if (entry.Is("db and backup db are not valid, now create db")) {
      found(DatabaseEvent::kCreated);
    } else if (entry.StartsWith(".AppBinaryManager.db is broken!")) {
      found(DatabaseEvent::kRecoveredStatement);
    } else if (entry.function == "m_versionCpBakUp" && entry.StartsWith("Backup versionDB.") &&
               !reason.empty()) {
      // The copy follows a failed check only when the backup replaces the main file.
      found(DatabaseEvent::kRestored);
    } else if (entry.StartsWith("The copy Size is [") && entry.EndsWith("invalid!")) {
      found(DatabaseEvent::kTruncatedCopy);
    } else if (reason.empty()) {
      reason = ValidityFailure(entry);
    }
  }
  return events;
}

}  // namespace pkgsim
