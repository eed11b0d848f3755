// pkgsim: the package manager of a TV, on a PC. It installs, upgrades and uninstalls packages on a
// sandbox device, calls the metadata-parser plug-in as the device's package manager does, and shows what
// the plug-in did. Every check on the user's input runs before the device is touched.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "device.h"
#include "manifest.h"
#include "plugin.h"
#include "snapshot.h"

namespace fs = std::filesystem;

namespace pkgsim {
namespace {

const char kNamespace[] = METADATA_NAMESPACE;
const char kManifestName[] = "tizen-manifest.xml";

// Bad input: one line for the user, exit status 1. Misuse of the command line: exit status 2.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct Options {
  std::string device = DefaultDeviceRoot();
  bool deviceGiven = false;
  std::string plugin = PKGSIM_DEFAULT_PLUGIN;
  std::string examples = PKGSIM_EXAMPLES_DIR;
  bool quiet = false;
  bool help = false;
  bool preload = false;
  bool none = false;
  bool sample = false;
  std::string command;
  std::vector<std::string> args;
};

const char kGeneralHelp[] =
    "usage: pkgsim [--device DIR] [--plugin LIB] [--quiet] COMMAND [ARGS]\n"
    "\n"
    "The TV's package manager on a PC: places packages on a sandbox device and calls the web-API\n"
    "upgrade plug-in as the device does, then shows what changed.\n"
    "\n"
    "commands:\n"
    "  init [--sample] [DIR]      create a device (with --sample: a copy of the sample device)\n"
    "  install [--preload] PKGDIR install or upgrade the package in PKGDIR\n"
    "  uninstall PKGID            uninstall a package (or the update of a preloaded one)\n"
    "  show                       packages, plug-in records, result file, terminated applications\n"
    "  foreground APPID|--none    set the application in the foreground\n"
    "  demo                       a guided tour on a fresh copy of the sample device\n"
    "\n"
    "options:\n"
    "  --device DIR    the device (default: $PKGSIM_DEVICE, else ./pkgsim-device)\n"
    "  --plugin LIB    the plug-in to load (default: the one this pkgsim was built with)\n"
    "  --examples DIR  the sample device and packages (default: the source tree's examples/)\n"
    "  --quiet         do not print the plug-in's log lines\n"
    "  --help          help on pkgsim or on one command (pkgsim COMMAND --help)\n"
    "\n"
    "Exit status: 0 done, 1 bad input (the device is left as it was), 2 bad command line.\n";

const char kInitHelp[] =
    "usage: pkgsim init [--sample] [DIR]\n"
    "\n"
    "Creates a device at DIR (default: the --device directory), laid out as the TV's file system:\n"
    "  opt/dbspace          the plug-in's database (TZ_SYS_DB)\n"
    "  opt/usr/apps         installed applications (TZ_SYS_RW_APP)\n"
    "  opt/usr/apps/appbinarymanager  home of the result file (webapi_result/)\n"
    "  usr/apps             the read-only image's applications (TZ_SYS_RO_APP)\n"
    "  opt/share/packages   manifests of installed packages (TZ_SYS_RW_PACKAGES)\n"
    "  usr/share/packages   manifests of preloaded packages (TZ_SYS_RO_PACKAGES)\n"
    "  run/vex              the application service: foreground, terminated\n"
    "  var/log/dlog.log     the platform log\n"
    "With --sample the device starts as a copy of the sample device (applications that the sample\n"
    "packages' allow-lists name). DIR must not exist or be empty.\n";

const char kInstallHelp[] =
    "usage: pkgsim install [--preload] PKGDIR\n"
    "\n"
    "PKGDIR holds the package's tizen-manifest.xml and its files. The files go to\n"
    "opt/usr/apps/PKGID/, the manifest to opt/share/packages/PKGID.xml, replacing an earlier\n"
    "installed version; then the plug-in is called, once per application that has metadata of\n"
    "the plug-in's namespace: PKGMGR_MDPARSER_PLUGIN_INSTALL for a new package,\n"
    "PKGMGR_MDPARSER_PLUGIN_UPGRADE for one already on the device (also the first update of a\n"
    "preloaded package).\n"
    "\n"
    "--preload places the package in the read-only image instead (usr/apps, usr/share/packages),\n"
    "as the system image does; the package must not be on the device yet.\n";

const char kUninstallHelp[] =
    "usage: pkgsim uninstall PKGID\n"
    "\n"
    "Calls PKGMGR_MDPARSER_PLUGIN_UNINSTALL for the installed package, then removes its files and\n"
    "manifest. For the update of a preloaded package only the update goes: the preloaded version in\n"
    "the read-only image stays and becomes the package again, so the plug-in is then called with\n"
    "PKGMGR_MDPARSER_PLUGIN_UPGRADE for it. A package that exists only in the read-only image\n"
    "cannot be uninstalled.\n";

const char kShowHelp[] =
    "usage: pkgsim show\n"
    "\n"
    "Prints the packages on the device, the application in the foreground, the plug-in's records\n"
    "(read from its database), the result file and the applications terminated so far.\n";

const char kForegroundHelp[] =
    "usage: pkgsim foreground APPID|--none\n"
    "\n"
    "Puts APPID in the foreground (or nothing, with --none). The plug-in leaves the application in\n"
    "the foreground running when it terminates the applications of an allow-list.\n";

const char kDemoHelp[] =
    "usage: pkgsim demo [--device DIR] [--quiet]\n"
    "\n"
    "A guided tour: copies the sample device to DIR (default: a new temporary directory) and runs,\n"
    "each in a fresh pkgsim process as the package manager would, a preload, installs of a pepper,\n"
    "a b2b pepper and an xwalk plug-in, an update of the preloaded plug-in, a reinstall of the same\n"
    "version, a broken package, uninstalls and a bad request, printing what each step changed.\n";

const char* HelpFor(const std::string& command) {
  if (command == "init") return kInitHelp;
  if (command == "install") return kInstallHelp;
  if (command == "uninstall") return kUninstallHelp;
  if (command == "show") return kShowHelp;
  if (command == "foreground") return kForegroundHelp;
  if (command == "demo") return kDemoHelp;
  return kGeneralHelp;
}

std::string Absolute(const std::string& path) { return fs::absolute(path).lexically_normal().string(); }

std::string TakeValue(const std::vector<std::string>& argv, std::size_t& i) {
  const std::string& option = argv[i];
  const std::size_t equals = option.find('=');
  if (equals != std::string::npos) return option.substr(equals + 1);
  if (i + 1 >= argv.size()) throw UsageError(option + " needs a value");
  return argv[++i];
}

Options Parse(const std::vector<std::string>& argv) {
  Options options;
  for (std::size_t i = 0; i < argv.size(); ++i) {
    const std::string& arg = argv[i];
    const std::string name = arg.substr(0, arg.find('='));
    if (name == "--device") {
      options.device = TakeValue(argv, i);
      options.deviceGiven = true;
    } else if (name == "--plugin") {
      options.plugin = TakeValue(argv, i);
    } else if (name == "--examples") {
      options.examples = TakeValue(argv, i);
    } else if (arg == "--quiet" || arg == "-q") {
      options.quiet = true;
    } else if (arg == "--help" || arg == "-h") {
      options.help = true;
    } else if (arg == "--preload") {
      options.preload = true;
    } else if (arg == "--none") {
      options.none = true;
    } else if (arg == "--sample") {
      options.sample = true;
    } else if (arg.size() > 1 && arg[0] == '-') {
      throw UsageError("unknown option " + arg);
    } else if (options.command.empty()) {
      options.command = arg;
    } else {
      options.args.push_back(arg);
    }
  }
  if (options.preload && options.command != "install") throw UsageError("--preload is an option of install");
  if (options.none && options.command != "foreground") throw UsageError("--none is an option of foreground");
  if (options.sample && options.command != "init") throw UsageError("--sample is an option of init");
  return options;
}

void ExpectArgs(const Options& options, std::size_t count) {
  if (options.args.size() != count) {
    throw UsageError(options.command + " takes " + (count == 0 ? "no arguments" : "one argument") +
                     " (pkgsim " + options.command + " --help)");
  }
}

Device RequireDevice(const Options& options) {
  Device device(Absolute(options.device));
  if (!device.Exists()) {
    throw std::runtime_error("no device at " + device.Root() + " (create one: pkgsim init " + device.Root() +
                             ")");
  }
  return device;
}

host::Manifest ReadManifestOrFail(const std::string& path, const std::string& what) {
  host::Manifest manifest;
  std::string reason;
  if (!host::ReadManifest(path, manifest, reason)) throw std::runtime_error(what + ": " + reason);
  return manifest;
}

std::string VersionOnDevice(const Device& device, const std::string& pkgid, bool readOnly) {
  host::Manifest manifest;
  std::string reason;
  if (!host::ReadManifest(device.Manifest(pkgid, readOnly), manifest, reason)) return "(unreadable manifest)";
  return manifest.version;
}

// ---------------------------------------------------------------------------------------------------

int Init(const Options& options) {
  if (options.args.size() > 1) ExpectArgs(options, 1);
  const Device device(Absolute(options.args.empty() ? options.device : options.args[0]));
  std::error_code error;
  if (fs::exists(device.Root()) && !fs::is_empty(device.Root(), error)) {
    throw std::runtime_error(device.Root() + " exists and is not empty");
  }
  const std::string sample = options.examples + "/device";
  if (options.sample && !fs::is_directory(sample)) throw std::runtime_error("no sample device at " + sample);
  device.Create();
  if (options.sample) {
    fs::copy(sample, device.Root(), fs::copy_options::recursive | fs::copy_options::overwrite_existing,
             error);
    if (error) throw std::runtime_error("cannot copy the sample device: " + error.message());
  }
  std::cout << "device created at " << device.Root() << (options.sample ? " (from the sample device)" : "")
            << "\n";
  return 0;
}

int Install(const Options& options) {
  ExpectArgs(options, 1);
  const Device device = RequireDevice(options);
  const std::string packageDir = Absolute(options.args[0]);
  if (!fs::is_directory(packageDir))
    throw std::runtime_error(options.args[0] + " is not a package directory");
  const std::string manifestPath = packageDir + "/" + kManifestName;
  if (!fs::is_regular_file(manifestPath)) {
    throw std::runtime_error(std::string("no ") + kManifestName + " in " + options.args[0]);
  }
  const host::Manifest manifest = ReadManifestOrFail(manifestPath, "malformed manifest");
  const std::string& pkgid = manifest.package;
  if (!IsSafePackageId(pkgid))
    throw std::runtime_error(manifestPath + ": unusable package id [" + pkgid + "]");
  const PackageState state = device.StateOf(pkgid);
  if (options.preload && state.Present()) {
    throw std::runtime_error(pkgid +
                             " is already on the device; only a package that is not there can be preloaded");
  }

  device.Export();
  const Plugin plugin = Plugin::Load(options.plugin);
  const Snapshot before = Snapshot::Take(device);

  std::cout << "install " << pkgid << " " << manifest.version;
  if (options.preload) {
    std::cout << ": preloaded into the read-only image\n";
  } else if (state.rw) {
    std::cout << ": upgrade of the installed " << VersionOnDevice(device, pkgid, false) << "\n";
  } else if (state.ro) {
    std::cout << ": update of the preloaded " << VersionOnDevice(device, pkgid, true) << "\n";
  } else {
    std::cout << ": new package\n";
  }
  device.Place(packageDir, manifestPath, pkgid, options.preload);
  plugin.CallForPackage(state.Present() ? Operation::kUpgrade : Operation::kInstall, manifest, kNamespace,
                        std::cout);
  ReportChanges(device, before, Snapshot::Take(device), options.quiet, std::cout);
  return 0;
}

int Uninstall(const Options& options) {
  ExpectArgs(options, 1);
  const Device device = RequireDevice(options);
  const std::string& pkgid = options.args[0];
  const PackageState state = IsSafePackageId(pkgid) ? device.StateOf(pkgid) : PackageState{};
  if (!state.Present()) throw std::runtime_error("unknown package: " + pkgid);
  if (!state.rw) {
    throw std::runtime_error(pkgid + " is preloaded in the read-only image and cannot be uninstalled");
  }
  const host::Manifest installed =
      ReadManifestOrFail(device.Manifest(pkgid, false), "cannot read the manifest of " + pkgid);
  host::Manifest preloaded;
  if (state.ro)
    preloaded =
        ReadManifestOrFail(device.Manifest(pkgid, true), "cannot read the preloaded manifest of " + pkgid);

  device.Export();
  const Plugin plugin = Plugin::Load(options.plugin);
  const Snapshot before = Snapshot::Take(device);

  std::cout << "uninstall " << pkgid << " " << installed.version
            << (state.ro ? ": the update of a preloaded package\n" : "\n");
  plugin.CallForPackage(Operation::kUninstall, installed, kNamespace, std::cout);
  device.Remove(pkgid, false);
  if (state.ro) {
    std::cout << pkgid << " is back at its preloaded version " << preloaded.version << "\n";
    plugin.CallForPackage(Operation::kUpgrade, preloaded, kNamespace, std::cout);
  }
  ReportChanges(device, before, Snapshot::Take(device), options.quiet, std::cout);
  return 0;
}

int Show(const Options& options) {
  ExpectArgs(options, 0);
  const Device device = RequireDevice(options);
  const Snapshot snapshot = Snapshot::Take(device);
  std::cout << "device " << device.Root() << "\n";
  const auto packages = device.Packages();
  std::cout << "packages (" << packages.size() << "):\n";
  for (const auto& [pkgid, state] : packages) {
    std::cout << "  " << pkgid << " ";
    if (state.ro) std::cout << VersionOnDevice(device, pkgid, true) << " preloaded";
    if (state.ro && state.rw) std::cout << ", updated to ";
    if (state.rw) std::cout << VersionOnDevice(device, pkgid, false) << (state.ro ? "" : " installed");
    std::cout << "\n";
  }
  const std::string foreground = device.Foreground();
  std::cout << "foreground: " << (foreground.empty() ? "none" : foreground) << "\n";
  PrintRecords(snapshot, std::cout);
  std::cout << "result file " << device.ResultFile() << ":";
  if (snapshot.resultExists) {
    std::cout << "\n" << snapshot.resultText << "\n";
  } else {
    std::cout << " absent\n";
  }
  const std::vector<std::string> terminated = LinesFrom(device.TerminatedFile(), 0);
  std::cout << "terminated applications (" << terminated.size() << "):\n";
  for (const std::string& appid : terminated) std::cout << "  " << appid << "\n";
  return 0;
}

int Foreground(const Options& options) {
  ExpectArgs(options, options.none ? 0 : 1);
  const Device device = RequireDevice(options);
  const std::string appid = options.none ? "" : options.args[0];
  if (!options.none && (appid.empty() || appid.find('\n') != std::string::npos)) {
    throw std::runtime_error("not an application id: [" + appid + "]");
  }
  device.SetForeground(appid);
  std::cout << "foreground: " << (appid.empty() ? "none" : appid) << "\n";
  return 0;
}

// ---------------------------------------------------------------------------------------------------
// The demo runs every step in a pkgsim process of its own: the plug-in's instances live as long as the
// package manager's process, and a fresh process per operation is what a device sees.

struct DemoStep {
  const char* narration;
  std::vector<std::string> args;
  int expectedStatus;
};

int RunStep(const Options& options, const std::string& root, const DemoStep& step) {
  std::vector<std::string> argv = {"pkgsim",     "--device",      root, "--plugin", options.plugin,
                                   "--examples", options.examples};
  if (options.quiet) argv.push_back("--quiet");
  argv.insert(argv.end(), step.args.begin(), step.args.end());

  std::cout << "\n== " << step.narration << "\n$ pkgsim";
  for (const std::string& arg : step.args) std::cout << " " << arg;
  std::cout << std::endl;

  const pid_t child = fork();
  if (child < 0) throw std::runtime_error("cannot start a pkgsim process");
  if (child == 0) {
    std::vector<char*> raw;
    for (std::string& arg : argv) raw.push_back(arg.data());
    raw.push_back(nullptr);
    execv("/proc/self/exe", raw.data());
    _exit(127);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int Demo(const Options& options) {
  ExpectArgs(options, 0);
  std::string root;
  if (options.deviceGiven) {
    root = Absolute(options.device);
    std::error_code error;
    if (fs::exists(root) && !fs::is_empty(root, error))
      throw std::runtime_error(root + " exists and is not empty");
  } else {
    std::string pattern = (fs::temp_directory_path() / "pkgsim-demo.XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("cannot create a temporary directory");
    root = pattern;
  }
  const std::string packages = options.examples + "/packages/";
  const std::vector<DemoStep> steps = {
      {"A fresh copy of the sample device: a few applications, no plug-in yet",
       {"init", "--sample", root},
       0},
      {"The system image brings the DRM player plug-in, preloaded (isUpdate 0: read-only only)",
       {"install", "--preload", packages + "drmplayer-1.0.0"},
       0},
      {"A pepper plug-in from the store: stored, result file rewritten, allow-listed applications terminated",
       {"install", packages + "mediaplayer"},
       0},
      {"The user is watching MovieBox", {"foreground", "Rs8Tu1Vw3X.MovieBox"}, 0},
      {"A b2b pepper plug-in that MovieBox may use: MovieBox is in the foreground and keeps running",
       {"install", packages + "signage"},
       0},
      {"An xwalk plug-in: one record per extension of its description files",
       {"install", packages + "tvinfo"},
       0},
      {"An update of the preloaded DRM player: newer version, installed in both places (isUpdate 2)",
       {"install", packages + "drmplayer-1.1.0"},
       0},
      {"The same media player again: same version, nothing to store, result file left alone",
       {"install", packages + "mediaplayer"},
       0},
      {"A broken xwalk package (bad description file): logged, nothing stored, nothing lost",
       {"install", packages + "weather-broken"},
       0},
      {"Uninstall the media player: its record goes, the result file is rewritten",
       {"uninstall", "com.korvane.tv.pepper.mediaplayer"},
       0},
      {"Uninstall the DRM player's update: the preloaded version comes back",
       {"uninstall", "com.korvane.tv.pepper.drmplayer"},
       0},
      {"A request for a package that is not there is refused, the device untouched",
       {"uninstall", "com.korvane.tv.pepper.nosuchplayer"},
       1},
      {"Where the device ended up", {"show"}, 0},
  };
  for (const DemoStep& step : steps) {
    const int status = RunStep(options, root, step);
    if (status != step.expectedStatus) {
      throw std::runtime_error("demo step ended with status " + std::to_string(status) + ": " +
                               step.narration);
    }
  }
  std::error_code error;
  const fs::path self = fs::read_symlink("/proc/self/exe", error);
  std::cout << "\nThe device is at " << root << "; go on with: " << (error ? "pkgsim" : self.string())
            << " --device " << root << " show\n";
  return 0;
}

int Run(const Options& options) {
  if (options.command.empty() && !options.help) {
    std::cerr << kGeneralHelp;
    return 2;
  }
  if (options.help || options.command == "help") {
    std::cout << HelpFor(options.command == "help" && !options.args.empty() ? options.args[0]
                                                                            : options.command);
    return 0;
  }
  if (options.command == "init") return Init(options);
  if (options.command == "install") return Install(options);
  if (options.command == "uninstall") return Uninstall(options);
  if (options.command == "show") return Show(options);
  if (options.command == "foreground") return Foreground(options);
  if (options.command == "demo") return Demo(options);
  throw UsageError("unknown command " + options.command + " (pkgsim --help)");
}

}  // namespace
}  // namespace pkgsim

int main(int argc, char** argv) {
  try {
    return pkgsim::Run(pkgsim::Parse(std::vector<std::string>(argv + 1, argv + argc)));
  } catch (const pkgsim::UsageError& error) {
    std::cerr << "pkgsim: " << error.what() << "\n";
    return 2;
  } catch (const std::exception& error) {
    std::cout.flush();
    std::cerr << "pkgsim: " << error.what() << "\n";
    return 1;
  }
}
