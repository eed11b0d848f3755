// check: what the plug-in will do with a package, decided by the plug-in itself. The package is really
// installed, with the plug-in, on a scratch copy of the device, and then uninstalled there to see what an
// uninstall leaves; the plug-in's log, records, result file and terminations on the copy make the
// verdict. The device itself is only read.
#include <unistd.h>

#include <iostream>
#include <sstream>
#include <stdexcept>

#include "commands.h"
#include "installer.h"
#include "report.h"
#include "scratch.h"
#include "traps.h"

namespace pkgsim {
namespace {

bool StoredSomething(const std::vector<Call>& calls) {
  for (const Call& call : calls) {
    for (const LogEntry& entry : call.log) {
      if (entry.Says(LogText::kInserted)) return true;
    }
  }
  return false;
}

// Why nothing was stored: the plug-in's own reason for the first call that gave one.
std::string Refusal(const std::vector<Call>& calls, const Package& package) {
  if (calls.empty()) {
    return "not stored: the plug-in is not called: no application of " + package.Id() + " has metadata of " +
           kNamespace;
  }
  for (const Call& call : calls) {
    for (const Note& note : Explain(call)) {
      if (note.kind != Note::kRefusal) continue;
      return note.text.compare(0, 11, "not stored:") == 0 ? note.text : "not stored: " + note.text;
    }
  }
  return "not stored: the plug-in kept nothing of what it stored (see above)";
}

// The records of the package that an uninstall leaves behind, as the plug-in's own uninstall shows.
std::vector<std::string> UninstallTraps(const Device& device, const std::string& plugin,
                                        const Package& package) {
  std::ostringstream unshown;
  Installer installer(device, plugin, unshown);
  std::vector<Call> calls;
  installer.RunStep(Operation::kUninstall, package.manifest, calls);
  std::vector<std::string> traps;
  for (const Call& call : calls) {
    for (const Note& note : Explain(call)) {
      if (note.kind == Note::kWarning) traps.push_back("uninstall: " + note.text);
    }
  }
  return traps;
}

// Installs the package on the scratch copy, then says what the plug-in did, the traps and the verdict.
bool CheckOnCopy(const Device& copy, const Device& device, const Package& package, const Options& options,
                 std::ostream& out) {
  Installer installer(copy, options.plugin, out);
  out << "check " << package.Id() << " " << package.manifest.version << " on a scratch copy of "
      << (device.Exists() ? device.Root() : "an empty device") << " (the device does not change)\n";
  const Installer::Outcome outcome = installer.Install(package, options.preload, false);
  const Snapshot installed = Snapshot::Take(copy);
  ReportChanges(copy, outcome.before, Relocated(installed, copy, device), out);
  if (!options.quiet) PrintLog(ReadLog(copy.LogFile(), outcome.before.logSize, getpid()), out);

  const PluginRows records = installed.RowsOf(package.Id());
  const bool stored = StoredSomething(outcome.calls) && !records.empty();
  std::vector<std::string> traps = PackageTraps(package, copy, installed);
  if (stored) {
    for (std::string& trap : UninstallTraps(copy, options.plugin, package)) traps.push_back(std::move(trap));
  }
  out << "warnings:" << (traps.empty() ? " none" : "") << "\n";
  for (const std::string& trap : traps) out << "  " << trap << "\n";
  out << "verdict: " << (stored ? "stored: " + JoinNames(NamesOf(records)) : Refusal(outcome.calls, package))
      << "\n";
  return stored;
}

}  // namespace

int Check(const Options& options) {
  ExpectArgs(options, 1, 1);
  const Package package = ReadPackage(options.args[0]);
  // Without --device, a device that is not there is checked as an empty one.
  const Device device = options.deviceGiven ? RequireDevice(options) : Device(Absolute(options.device));
  if (options.preload && device.StateOf(package.Id()).Present()) {
    throw std::runtime_error(NotPreloadable(package.Id()));
  }
  const TempDir scratch("pkgsim-check");
  const Device copy(scratch.Path() + "/device");
  if (device.Exists()) {
    CopyDevice(device, copy);
  } else {
    copy.Create();
  }
  copy.Export();
  std::ostringstream out;
  const bool stored = CheckOnCopy(copy, device, package, options, out);
  std::cout << ReplaceAll(out.str(), copy.Root(), device.Root());
  return stored ? 0 : 1;
}

}  // namespace pkgsim
