#include "installer.h"

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <stdexcept>

#include "report.h"
#include "scratch.h"

namespace fs = std::filesystem;

namespace pkgsim {
namespace {

std::string Items(std::size_t count) { return std::to_string(count) + (count == 1 ? " item" : " items"); }

std::string ForUser(const Device& device) {
  return device.User() == 0 ? "" : " for user " + std::to_string(device.User());
}

// The plug-in reads the package's kind first, from the application whose id is the package id: a failure
// to read it without a line saying that the application lacks the key means the package-information
// service did not find the application at all.
bool FoundNoApplication(const Log& log) {
  for (const LogEntry& entry : log) {
    if (entry.Says(LogText::kNoMetadataEnd)) return false;
    if (entry.Says(LogText::kTypeFailed)) return true;
  }
  return false;
}

// The installed version of a package, kept aside so that a failed upgrade can put it back.
class PreviousVersion {
 public:
  PreviousVersion(const Device& device, const std::string& pkgid) : stash_("pkgsim-previous") {
    package_.dir = stash_.Path() + "/files";
    package_.manifestPath = stash_.Path() + "/tizen-manifest.xml";
    package_.manifest =
        ReadManifestOrFail(device.Manifest(pkgid, false), "cannot read the manifest of " + pkgid);
    std::error_code error;
    fs::create_directory(package_.dir, error);
    if (fs::exists(device.AppRoot(pkgid, false))) {
      fs::copy(device.AppRoot(pkgid, false), package_.dir,
               fs::copy_options::recursive | fs::copy_options::copy_symlinks, error);
    }
    if (!error) fs::copy_file(device.Manifest(pkgid, false), package_.manifestPath, error);
    if (error)
      throw std::runtime_error("cannot keep the installed version of " + pkgid + ": " + error.message());
  }
  const Package& Get() const { return package_; }

 private:
  TempDir stash_;
  Package package_;
};

}  // namespace

Installer::Installer(const Device& device, const std::string& plugin, std::ostream& out)
    : device_(device), registrations_(LoadRegistrations(device, plugin)), out_(out) {
  registrations_.RequireReadable();
}

// Once per request, when its first operation starts: which plug-ins the installer calls, of which build.
void Installer::Announce() {
  if (announced_) return;
  announced_ = true;
  for (const Registration& entry : registrations_.entries) {
    if (entry.Loaded()) {
      out_ << "plug-in " << entry.name << ": " << entry.Loading() << "\n";
    } else if (entry.IsMetadata()) {
      out_ << "plug-in registration " << entry.file << ": " << entry.Verdict() << "\n";
    }
  }
}

Installer::Outcome Installer::Install(const Package& package, bool preload, bool failAfterPlugin) {
  const std::string& pkgid = package.Id();
  const PackageState state = device_.StateOf(pkgid);
  Outcome outcome;
  outcome.before = Snapshot::Take(device_);
  Announce();
  out_ << "install " << pkgid << " " << package.manifest.version << ForUser(device_);
  if (preload) {
    out_ << ": preloaded into the read-only image\n";
  } else if (state.rw) {
    out_ << ": upgrade of the installed " << VersionOnDevice(device_, pkgid, false) << "\n";
  } else if (state.ro) {
    out_ << ": update of the preloaded " << VersionOnDevice(device_, pkgid, true) << "\n";
  } else {
    out_ << ": new package\n";
  }
  std::unique_ptr<PreviousVersion> previous;
  if (failAfterPlugin && state.rw) previous = std::make_unique<PreviousVersion>(device_, pkgid);

  device_.Place(package.dir, package.manifestPath, pkgid, preload);
  RunStep(state.Present() ? Operation::kUpgrade : Operation::kInstall, package.manifest, outcome.calls);
  if (!failAfterPlugin) return outcome;

  outcome.failed = true;
  out_ << "a later step of the installation fails (--fail-after-plugin): the installer undoes the plug-in "
          "step\n";
  if (!state.Present()) {
    RunStep(Operation::kUninstall, package.manifest, outcome.calls);
    device_.Remove(pkgid, preload);
    out_ << pkgid << " is removed again\n";
  } else if (previous) {
    // The package database reports the previous version again before the plug-in hears of it.
    device_.Place(previous->Get().dir, previous->Get().manifestPath, pkgid, false);
    out_ << pkgid << " is back at its previous version " << previous->Get().manifest.version << "\n";
    RunStep(Operation::kUpgrade, previous->Get().manifest, outcome.calls);
  } else {
    device_.Remove(pkgid, false);
    const hostkit::Manifest preloaded =
        ReadManifestOrFail(device_.Manifest(pkgid, true), "cannot read the preloaded manifest of " + pkgid);
    out_ << pkgid << " is back at its preloaded version " << preloaded.version << "\n";
    RunStep(Operation::kUpgrade, preloaded, outcome.calls);
  }
  return outcome;
}

Installer::Outcome Installer::Uninstall(const std::string& pkgid) {
  const PackageState state = IsSafePackageId(pkgid) ? device_.StateOf(pkgid) : PackageState{};
  if (!state.Present() && device_.User() == 0) {
    for (const auto& [uid, id] : device_.UserPackages()) {
      if (id != pkgid) continue;
      throw std::runtime_error(pkgid + " is installed for user " + std::to_string(uid) +
                               " only (pkgsim uninstall --user " + std::to_string(uid) + " " + pkgid + ")");
    }
  }
  if (!state.Present()) throw std::runtime_error("unknown package: " + pkgid);
  if (!state.rw)
    throw std::runtime_error(pkgid + " is preloaded in the read-only image and cannot be uninstalled");
  const hostkit::Manifest installed =
      ReadManifestOrFail(device_.Manifest(pkgid, false), "cannot read the manifest of " + pkgid);
  hostkit::Manifest preloaded;
  if (state.ro) {
    preloaded =
        ReadManifestOrFail(device_.Manifest(pkgid, true), "cannot read the preloaded manifest of " + pkgid);
  }

  Outcome outcome;
  outcome.before = Snapshot::Take(device_);
  Announce();
  out_ << "uninstall " << pkgid << " " << installed.version << ForUser(device_)
       << (state.ro ? ": the update of a preloaded package\n" : "\n");
  RunStep(Operation::kUninstall, installed, outcome.calls);
  device_.Remove(pkgid, false);
  if (state.ro) {
    out_ << pkgid << " is back at its preloaded version " << preloaded.version << "\n";
    RunStep(Operation::kUpgrade, preloaded, outcome.calls);
  }
  return outcome;
}

// What the plug-in can make of a package installed for one user: nothing, as the device's installer runs
// it as root, whom the package-information service does not show such a package. Its own refusal names
// the symptom; this is the cause.
std::vector<Note> ExplainCall(const Device& device, const Call& call) {
  std::vector<Note> notes = Explain(call);
  if (device.User() == 0 || !FoundNoApplication(call.log)) return notes;
  notes.erase(std::remove_if(notes.begin(), notes.end(),
                             [](const Note& note) { return note.kind == Note::kRefusal; }),
              notes.end());
  notes.insert(notes.begin(),
               {Note::kRefusal, "not stored: installed for user " + std::to_string(device.User()) +
                                    " only: the installer runs the plug-in as root, for which the "
                                    "package-information service does not list per-user packages, so the "
                                    "plug-in found no such application"});
  return notes;
}

void ReportOperation(const Device& device, const Installer::Outcome& outcome, bool quiet, std::ostream& out) {
  ReportChanges(device, outcome.before, Snapshot::Take(device), out);
  if (!quiet) PrintLog(ReadLog(device.LogFile(), outcome.before.logSize, getpid()), out);
}

void Installer::RunStep(Operation operation, const hostkit::Manifest& manifest, std::vector<Call>& calls) {
  bool loaded = false;
  for (const Registration& entry : registrations_.entries) {
    if (!entry.Loaded()) continue;
    loaded = true;
    RunPlugin(entry, operation, manifest, calls);
  }
  if (!loaded) out_ << "the plug-in is not called: " << registrations_.WhyNoneLoaded() << "\n";
}

void Installer::RunPlugin(const Registration& entry, Operation operation, const hostkit::Manifest& manifest,
                          std::vector<Call>& calls) {
  const PluginStep plugin(entry.library);
  bool called = false;
  for (const hostkit::ManifestApp& app : manifest.apps) {
    MetadataItems items = ItemsWithPrefix(app, entry.name);
    if (items.empty()) continue;
    called = true;
    Call call{operation, manifest,    app.appid, std::move(items), {}, Snapshot::Take(device_),
              {},        entry.policy};
    out_ << "calling " << EntryPointName(operation) << "(" << manifest.package << ", " << app.appid << ", "
         << Items(call.items.size()) << ")\n";
    const int result = plugin.Call(operation, manifest.package, app.appid, call.items);
    if (result != 0) out_ << "  returned " << result << "\n";
    call.after = Snapshot::Take(device_);
    call.log = ReadLog(device_.LogFile(), call.before.logSize, getpid());
    PrintNotes(ExplainCall(device_, call), out_);
    calls.push_back(std::move(call));
  }
  if (!called) {
    out_ << "no application of " << manifest.package << " has metadata of " << entry.name
         << ": the plug-in is not called\n";
  }
}

}  // namespace pkgsim
