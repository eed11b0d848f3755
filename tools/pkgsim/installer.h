// The package manager's side of an installation, as the device's installer runs it: the package is
// registered (files first, then the manifest, so the package-information service sees the new version),
// then the plug-in step calls each metadata plug-in that the device's registrations name once per
// application that has items of its registered name; an uninstall calls the plug-ins first and
// unregisters the package after. When a later step fails, the installer undoes the plug-in step. Each
// plug-in step loads and unloads the plug-ins (PluginStep). Every call is shown on `out`, followed by
// plain words for what the plug-in decided. The installer runs as root: for a package installed for one
// user (a Device::ForUser device) the plug-in asks the package-information service in vain.
#ifndef PKGSIM_INSTALLER_H_
#define PKGSIM_INSTALLER_H_

#include <ostream>
#include <string>
#include <vector>

#include "device.h"
#include "explain.h"
#include "package.h"
#include "registration.h"

namespace pkgsim {

class Installer {
 public:
  // Reads the device's registrations and loads and unloads each plug-in once; the first operation says
  // on `out` which plug-ins are loaded, of which build, and which the installer skips. Registrations that
  // fail every installation, and a --plugin library (`plugin`, "" for none) that cannot be loaded, are
  // refused with std::runtime_error before the device is touched. The device must already be exported.
  Installer(const Device& device, const std::string& plugin, std::ostream& out);

  struct Outcome {
    Snapshot before;  // the device before the operation
    std::vector<Call> calls;
    bool failed = false;  // a later step failed and the plug-in step was undone
  };

  // Installs, or upgrades when the package is on the device. With `failAfterPlugin` the step after the
  // plug-in's fails and the plug-in step is undone: UNINSTALL for a new package (which is then removed
  // again); for an upgrade the previous package is restored and handed to UPGRADE.
  Outcome Install(const Package& package, bool preload, bool failAfterPlugin);

  // Throws std::runtime_error, before anything is touched, for a package that is not installed.
  Outcome Uninstall(const std::string& pkgid);

  // One plug-in step: each loaded plug-in loaded, called once per application of `manifest` that has
  // items of its registered name, unloaded.
  void RunStep(Operation operation, const hostkit::Manifest& manifest, std::vector<Call>& calls);

  const Registrations& Plugins() const { return registrations_; }

 private:
  void Announce();
  void RunPlugin(const Registration& plugin, Operation operation, const hostkit::Manifest& manifest,
                 std::vector<Call>& calls);

  const Device& device_;
  Registrations registrations_;
  std::ostream& out_;
  bool announced_ = false;
};

// What the plug-in decided in one call on `device` (Explain), and for a package installed for one user
// why it could decide nothing.
std::vector<Note> ExplainCall(const Device& device, const Call& call);

// What the operation changed on the device and, unless quiet, the plug-in's log lines of it.
void ReportOperation(const Device& device, const Installer::Outcome& outcome, bool quiet, std::ostream& out);

}  // namespace pkgsim

#endif  // PKGSIM_INSTALLER_H_
