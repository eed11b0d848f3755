// show: the device as the plug-in sees it. The health of the database and whether the result file is
// stale are the plug-in's own verdicts: on a scratch copy of the device the plug-in is called for an
// uninstall of a plug-in that has no record, so it opens its database (checking it, and recovering it
// the way the next operation on the device will), deletes nothing and rebuilds the result file from
// its records.
#include <json/json.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <set>
#include <sstream>

#include "commands.h"
#include "explain.h"
#include "package.h"
#include "plugin.h"
#include "registration.h"
#include "report.h"
#include "scratch.h"

namespace pkgsim {
namespace {

struct Probe {
  std::string registrations;  // as the installer reads them, with the device's paths
  DatabaseEvent opened{DatabaseEvent::kPassed, "", "", ""};
  std::string policy;    // the build of the plug-in probed
  bool checked = false;  // the plug-in opened its database
  Snapshot after;
  bool rebuilt = false;  // the plug-in rebuilt the result file
};

Probe ProbeDevice(const Device& device, const std::string& plugin, const PluginRows& rows) {
  const TempDir scratch("pkgsim-show");
  const Device copy(scratch.Path() + "/device");
  CopyDevice(device, copy);
  copy.Export();
  Probe probe;
  const Registrations registrations = LoadRegistrations(copy, plugin);
  std::ostringstream text;
  PrintRegistrations(copy, registrations, text);
  probe.registrations = ReplaceAll(text.str(), copy.Root(), device.Root());
  const auto loaded = std::find_if(registrations.entries.begin(), registrations.entries.end(),
                                   [](const Registration& entry) { return entry.Loaded(); });
  if (loaded == registrations.entries.end()) return probe;
  probe.policy = loaded->policy;
  std::string name = "pkgsim-probe";
  while (rows.count(name) != 0) name += "-";
  const std::string pkgid = "pkgsim.probe.pepper." + name;
  const Snapshot before = Snapshot::Take(copy);
  PluginStep(loaded->library).Call(Operation::kUninstall, pkgid, pkgid, {{kTypeKey, "pepperplugin"}});
  const std::vector<DatabaseEvent> events = DatabaseEvents(ReadLog(copy.LogFile(), 0, getpid()));
  probe.checked = !events.empty();
  if (probe.checked) probe.opened = events.front();
  probe.after = Snapshot::Take(copy);
  probe.rebuilt = probe.after.ResultRewrittenSince(before);
  return probe;
}

std::string Records(const PluginRows& rows) {
  return std::to_string(rows.size()) + (rows.size() == 1 ? " record" : " records") +
         (rows.empty() ? "" : " (" + JoinNames(NamesOf(rows)) + ")");
}

std::string DatabaseHealth(const Device& device, const Probe& probe) {
  if (!probe.checked) return "unknown: the plug-in did not open it";
  const std::string& reason = probe.opened.reason;
  switch (probe.opened.kind) {
    case DatabaseEvent::kRestored:
      return (reason == "missing" ? std::string("missing") : "damaged (" + reason + ")") +
             ": the next operation restores it from the backup, with " + Records(probe.after.rows);
    case DatabaseEvent::kCreated:
      if (reason == "missing" && !std::filesystem::exists(device.BackupFile())) {
        return "none yet: the first operation of the plug-in creates it";
      }
      return "damaged (" + reason +
             "), and so is its backup: the next operation deletes it and creates an empty database; its "
             "records " +
             (probe.policy == "hardened" ? "are rebuilt from the installed packages" : "are lost");
    case DatabaseEvent::kBusyGaveUp:
      return "held busy by another process: the next operation gives up, leaving both files as they are";
    default:
      return "valid";
  }
}

// The plug-in names a result document lists, or "" when it is not JSON.
std::string PluginNames(const std::string& text) {
  Json::Value document;
  std::string errors;
  std::istringstream in(text);
  if (!Json::parseFromStream(Json::CharReaderBuilder(), in, &document, &errors)) return "";
  std::set<std::string> names;
  const Json::Value& plugins = document.isObject() ? document["forceupdate_webapi"] : Json::Value();
  for (const char* kind : {"pepper", "xwalk"}) {
    if (!plugins.isObject() || !plugins[kind].isArray()) continue;
    for (const Json::Value& entry : plugins[kind]) {
      if (entry.isObject()) names.insert(entry["name"].asString());
    }
  }
  return names.empty() ? "no plug-in" : JoinNames({names.begin(), names.end()});
}

std::string ResultState(const Snapshot& snapshot, const Probe& probe) {
  if (!snapshot.resultExists) return "absent";
  if (!probe.rebuilt) return "present (the plug-in could not rebuild it to compare)";
  if (probe.after.resultText == snapshot.resultText) return "current: the document the records give";
  const std::string listed = PluginNames(snapshot.resultText), given = PluginNames(probe.after.resultText);
  const std::string difference = listed == given  ? "the same plug-ins, other content"
                                 : listed.empty() ? "it is not JSON; the records give " + given
                                                  : "it lists " + listed + "; the records give " + given;
  return "stale: it differs from the document the records give (" + difference +
         "); the next rewrite replaces it";
}

void PrintPackages(const Device& device) {
  const auto packages = device.Packages();
  std::cout << "packages (" << packages.size() << "):\n";
  for (const auto& [pkgid, state] : packages) {
    std::cout << "  " << pkgid << " ";
    if (state.ro) std::cout << VersionOnDevice(device, pkgid, true) << " preloaded";
    if (state.ro && state.rw) std::cout << ", updated to ";
    if (state.rw) std::cout << VersionOnDevice(device, pkgid, false) << (state.ro ? "" : " installed");
    std::cout << "\n";
  }
  // The installer runs the plug-in as root, and root is not shown a user's own packages.
  const auto forUsers = device.UserPackages();
  if (forUsers.empty()) return;
  std::cout << "packages installed for one user (" << forUsers.size()
            << "), which the plug-in, run as root by the installer, does not see:\n";
  for (const auto& [uid, pkgid] : forUsers) {
    const Device user = device.ForUser(uid);
    std::cout << "  " << pkgid << " " << VersionOnDevice(user, pkgid, false) << " for user " << uid << " ("
              << std::filesystem::path(user.UserHome(uid)).lexically_relative(device.Root()).string()
              << ")\n";
  }
}

}  // namespace

int Show(const Options& options) {
  ExpectArgs(options, 0, 0);
  const Device device = RequireDevice(options);
  const Snapshot snapshot = Snapshot::Take(device);
  const Probe probe = ProbeDevice(device, options.plugin, snapshot.rows);

  std::cout << "device " << device.Root() << "\n" << probe.registrations;
  PrintPackages(device);
  const std::string foreground = device.Foreground();
  std::cout << "foreground: " << (foreground.empty() ? "none" : foreground) << "\n";
  std::cout << "database: " << DatabaseHealth(device, probe) << "\n";
  PrintRecords(snapshot, std::cout);
  std::cout << "result file " << device.ResultFile() << ": " << ResultState(snapshot, probe) << "\n";
  if (snapshot.resultExists) std::cout << snapshot.resultText << "\n";
  const std::vector<std::string> terminated = LinesFrom(device.TerminatedFile(), 0);
  std::cout << "terminated applications (" << terminated.size() << "):\n";
  for (const std::string& appid : terminated) std::cout << "  " << appid << "\n";
  return 0;
}

}  // namespace pkgsim
