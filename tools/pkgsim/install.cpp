// install and uninstall: the package manager's operations on the device, as one request per command, for
// all users or (--user) for one.
#include <cstdint>
#include <iostream>
#include <set>
#include <stdexcept>

#include "commands.h"
#include "installer.h"
#include "report.h"

namespace pkgsim {

int Install(const Options& options) {
  ExpectArgs(options, 1, SIZE_MAX);
  const Device device = RequireDevice(options);
  std::vector<Package> packages;
  std::set<std::string> requested;
  for (const std::string& dir : options.args) {
    packages.push_back(ReadPackage(dir));
    const std::string& pkgid = packages.back().Id();
    const bool again = !requested.insert(pkgid).second;
    if (options.preload && (again || device.StateOf(pkgid).Present())) {
      throw std::runtime_error(NotPreloadable(pkgid));
    }
    RequireOneOwner(device, options.user, pkgid);
  }
  const Device target = options.user != 0 ? device.ForUser(options.user) : device;
  target.Export();
  Installer installer(target, options.plugin, std::cout);
  std::vector<std::string> failed;
  for (const Package& package : packages) {
    const Installer::Outcome outcome = installer.Install(package, options.preload, options.failAfterPlugin);
    ReportOperation(target, outcome, options.quiet, std::cout);
    if (outcome.failed) failed.push_back(package.Id());
  }
  if (failed.empty()) return 0;
  std::cout.flush();
  std::cerr << "pkgsim: the installation of " << JoinNames(failed)
            << " failed (--fail-after-plugin); the plug-in step was undone\n";
  return 1;
}

int Uninstall(const Options& options) {
  ExpectArgs(options, 1, 1);
  const Device device = RequireDevice(options);
  const Device target = options.user != 0 ? device.ForUser(options.user) : device;
  target.Export();
  Installer installer(target, options.plugin, std::cout);
  ReportOperation(target, installer.Uninstall(options.args[0]), options.quiet, std::cout);
  return 0;
}

}  // namespace pkgsim
