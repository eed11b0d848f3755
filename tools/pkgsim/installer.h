// The package manager's side of an installation, as the device's installer runs it: the package is
// registered (files first, then the manifest, so the package-information service sees the new version),
// then the plug-in step calls the plug-in once per application that has items of its namespace; an
// uninstall calls the plug-in first and unregisters the package after. When a later step fails, the
// installer undoes the plug-in step. Each plug-in step loads and unloads the plug-in (PluginStep).
// Every call is shown on `out`, followed by plain words for what the plug-in decided.
#ifndef PKGSIM_INSTALLER_H_
#define PKGSIM_INSTALLER_H_

#include <ostream>
#include <string>
#include <vector>

#include "device.h"
#include "explain.h"
#include "package.h"

namespace pkgsim {

class Installer {
 public:
  // Loads and unloads the plug-in once, so that a library that cannot be loaded is refused (with
  // std::runtime_error) before the device is touched. The device must already be exported.
  Installer(const Device& device, std::string pluginPath, std::ostream& out);

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

  // One plug-in step: the plug-in loaded, called once per application of `manifest` that has items of
  // its namespace, unloaded.
  void RunStep(Operation operation, const hostkit::Manifest& manifest, std::vector<Call>& calls);

 private:
  const Device& device_;
  const std::string pluginPath_;
  std::ostream& out_;
};

// What the operation changed on the device and, unless quiet, the plug-in's log lines of it.
void ReportOperation(const Device& device, const Installer::Outcome& outcome, bool quiet, std::ostream& out);

}  // namespace pkgsim

#endif  // PKGSIM_INSTALLER_H_
