// demo: a guided tour on a fresh copy of the sample device. Every step runs in a pkgsim process of its
// own, as the package manager runs one request per process: the plug-in's instances live as long as the
// process, so a fresh process per request is what a device sees.
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <iostream>
#include <memory>
#include <stdexcept>

#include "commands.h"
#include "scratch.h"

namespace fs = std::filesystem;

namespace pkgsim {
namespace {

struct DemoStep {
  const char* narration;
  std::vector<std::string> args;
  int expectedStatus;
};

std::vector<DemoStep> Tour(const std::string& root, const std::string& packages) {
  const std::string drmplayer = "com.korvane.tv.pepper.drmplayer";
  return {
      {"A fresh copy of the sample device: a few applications, no plug-in package yet, and the plug-in's\n"
       "registration, read as the installer reads it",
       {"init", "--sample", root},
       0},
      {"The system image brings the DRM player plug-in, preloaded: isUpdate 0, its allow-list unused",
       {"install", "--preload", packages + "drmplayer-1.0.0"},
       0},
      {"Before shipping the media player, check it: the plug-in's own run on a scratch copy of the device",
       {"check", packages + "mediaplayer"},
       0},
      {"Install it: stored, result file rewritten, allow-listed applications terminated",
       {"install", packages + "mediaplayer"},
       0},
      {"A package full of traps: it is stored, and check warns of what will bite later",
       {"check", packages + "voice-traps"},
       0},
      {"The user is watching MovieBox", {"foreground", "Rs8Tu1Vw3X.MovieBox"}, 0},
      {"One request, one process, two packages (the plug-in's state carries over from the first to the "
       "second):\n"
       "a b2b pepper plug-in that MovieBox may use (MovieBox keeps running) and an xwalk plug-in",
       {"install", packages + "signage", packages + "tvinfo"},
       0},
      {"An update of the preloaded DRM player: installed in both places (isUpdate 2)",
       {"install", packages + "drmplayer-1.1.0"},
       0},
      {"The same media player again: same version, nothing stored", {"install", packages + "mediaplayer"}, 0},
      {"An upgrade whose later installation step fails: the installer undoes the plug-in step",
       {"install", "--fail-after-plugin", packages + "mediaplayer-1.3.0"},
       1},
      {"A broken xwalk package: its description file is skipped, nothing stored, nothing lost",
       {"install", packages + "weather-broken"},
       0},
      {"Uninstall the xwalk plug-in: the plug-in removes by the name cut from the id, so the extension "
       "records stay",
       {"uninstall", "com.korvane.tv.xwalk.tvinfo"},
       0},
      {"Uninstall the DRM player's update: the preloaded version comes back", {"uninstall", drmplayer}, 0},
      {"A request for a package that is not there is refused, the device untouched",
       {"uninstall", "com.korvane.tv.pepper.nosuchplayer"},
       1},
      {"Where the device ended up", {"show"}, 0},
  };
}

int RunStep(const Options& options, const std::string& root, const DemoStep& step) {
  std::vector<std::string> argv = {"pkgsim", "--device", root, "--examples", options.examples};
  if (!options.plugin.empty()) argv.insert(argv.end(), {"--plugin", options.plugin});
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

}  // namespace

int Demo(const Options& options) {
  ExpectArgs(options, 0, 0);
  std::unique_ptr<TempDir> temporary;
  std::string root;
  if (options.deviceGiven) {
    root = Absolute(options.device);
    std::error_code error;
    if (fs::exists(root) && !fs::is_empty(root, error))
      throw std::runtime_error(root + " exists and is not empty");
  } else {
    temporary = std::make_unique<TempDir>("pkgsim-demo");
    root = temporary->Path() + "/device";
  }
  for (const DemoStep& step : Tour(root, options.examples + "/packages/")) {
    const int status = RunStep(options, root, step);
    if (status != step.expectedStatus) {
      throw std::runtime_error("demo step ended with status " + std::to_string(status) + ": " +
                               step.narration);
    }
  }
  if (temporary && !options.keep) {
    std::cout << "\nThe demo's device is removed (pkgsim demo --keep keeps it).\n";
    return 0;
  }
  if (temporary) temporary->Release();
  std::error_code error;
  const fs::path self = fs::read_symlink("/proc/self/exe", error);
  std::cout << "\nThe device is at " << root << "; go on with: " << (error ? "pkgsim" : self.string())
            << " --device " << root << " show\n";
  return 0;
}

}  // namespace pkgsim
