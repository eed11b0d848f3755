#include "options.h"

#include <filesystem>

#include "device.h"

namespace pkgsim {
namespace {

// Options that only some commands take; naming one with another command is a usage error.
struct CommandFlag {
  const char* name;
  bool Options::*member;
  std::vector<std::string> commands;
};

const CommandFlag kCommandFlags[] = {
    {"--preload", &Options::preload, {"install", "check"}},
    {"--fail-after-plugin", &Options::failAfterPlugin, {"install"}},
    {"--none", &Options::none, {"foreground"}},
    {"--sample", &Options::sample, {"init"}},
    {"--keep", &Options::keep, {"demo"}},
};

std::string TakeValue(const std::vector<std::string>& argv, std::size_t& i) {
  const std::string& option = argv[i];
  const std::size_t equals = option.find('=');
  if (equals != std::string::npos) return option.substr(equals + 1);
  if (i + 1 >= argv.size()) throw UsageError(option + " needs a value");
  return argv[++i];
}

bool TakeFlag(const std::string& arg, Options& options) {
  for (const CommandFlag& flag : kCommandFlags) {
    if (arg != flag.name) continue;
    options.*flag.member = true;
    return true;
  }
  return false;
}

// A regular user's uid, as the installer takes it for an installation for one user.
unsigned TakeUser(const std::vector<std::string>& argv, std::size_t& i) {
  const std::string uid = TakeValue(argv, i);
  const bool digits =
      !uid.empty() && uid.size() <= 9 && uid.find_first_not_of("0123456789") == std::string::npos;
  if (!digits || std::stoul(uid) < hostkit::kFirstRegularUid) {
    throw UsageError("--user takes the uid of a regular user (" + std::to_string(hostkit::kFirstRegularUid) +
                     " and above); packages for all users are installed without it");
  }
  return static_cast<unsigned>(std::stoul(uid));
}

void CheckFlagsBelong(const Options& options) {
  if (options.help) return;
  const std::string& command = options.command;
  if (options.user != 0 && command != "install" && command != "check" && command != "uninstall") {
    throw UsageError("--user is an option of install, check and uninstall");
  }
  if (options.user != 0 && options.preload) throw UsageError("--user and --preload exclude each other");
  for (const CommandFlag& flag : kCommandFlags) {
    if (!(options.*flag.member) || options.help) continue;
    bool belongs = false;
    std::string owners;
    for (const std::string& command : flag.commands) {
      belongs = belongs || command == options.command;
      owners += (owners.empty() ? "" : " and ") + command;
    }
    if (!belongs) throw UsageError(std::string(flag.name) + " is an option of " + owners);
  }
}

}  // namespace

Options Parse(const std::vector<std::string>& argv) {
  Options options;
  options.device = DefaultDeviceRoot();
  for (std::size_t i = 0; i < argv.size(); ++i) {
    const std::string& arg = argv[i];
    const std::string name = arg.substr(0, arg.find('='));
    if (name == "--device") {
      options.device = TakeValue(argv, i);
      options.deviceGiven = true;
    } else if (name == "--plugin") {
      options.plugin = Absolute(TakeValue(argv, i));
    } else if (name == "--user") {
      options.user = TakeUser(argv, i);
    } else if (name == "--examples") {
      options.examples = TakeValue(argv, i);
    } else if (arg == "--quiet" || arg == "-q") {
      options.quiet = true;
    } else if (arg == "--help" || arg == "-h") {
      options.help = true;
    } else if (arg.size() > 1 && arg[0] == '-') {
      if (!TakeFlag(arg, options)) throw UsageError("unknown option " + arg);
    } else if (options.command.empty()) {
      options.command = arg;
    } else {
      options.args.push_back(arg);
    }
  }
  CheckFlagsBelong(options);
  return options;
}

void ExpectArgs(const Options& options, std::size_t least, std::size_t most) {
  const std::size_t count = options.args.size();
  if (count >= least && count <= most) return;
  const std::string wanted = most == 0 ? "no arguments"
                             : least == most
                                 ? (most == 1 ? "one argument" : std::to_string(most) + " arguments")
                             : most == 1 ? "at most one argument"
                                         : "at least one argument";
  throw UsageError(options.command + " takes " + wanted + " (pkgsim " + options.command + " --help)");
}

std::string Absolute(const std::string& path) {
  std::string absolute = std::filesystem::absolute(path).lexically_normal().string();
  if (absolute.size() > 1 && absolute.back() == '/') absolute.pop_back();
  return absolute;
}

}  // namespace pkgsim
