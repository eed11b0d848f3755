// pkgsim: the package manager of a TV, on a PC. It installs, upgrades and uninstalls packages on a
// sandbox device, calls the metadata-parser plug-in as the device's package manager does, and shows what
// the plug-in did and why. This file only dispatches the command line that options.cpp parses, through
// the command table below. The commands live in:
//   init, foreground     device_commands.cpp, on device.cpp (the device, laid out by hostkit/layout.h)
//   install, uninstall   install.cpp, on installer.cpp (the installer's steps) and package.cpp
//   check                check.cpp, on scratch.cpp (a scratch copy of the device) and traps.cpp
//   show                 show.cpp, on scratch.cpp
//   demo                 demo.cpp (each step a pkgsim process of its own)
// The plug-in is called through plugin.h (hostkit/plugin_call.h). What a command says of the plug-in's
// decisions comes from explain.cpp, which reads the log through log.cpp; what changed on the device from
// snapshot.cpp and report.cpp. The help texts are in help.cpp.
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "commands.h"
#include "help.h"
#include "options.h"

namespace pkgsim {
namespace {

// The commands. Adding one: its function in a file of its own (the build takes every .cpp here),
// declared in commands.h; its help text in help.cpp (declared in help.h, listed in kGeneralHelp); its line
// here; options that only it takes in kCommandFlags (options.cpp).
struct Command {
  const char* name;
  int (*run)(const Options&);
  const char* help;
};
const Command kCommands[] = {{"init", Init, kInitHelp},
                             {"check", Check, kCheckHelp},
                             {"install", Install, kInstallHelp},
                             {"uninstall", Uninstall, kUninstallHelp},
                             {"show", Show, kShowHelp},
                             {"demo", Demo, kDemoHelp},
                             {"foreground", Foreground, kForegroundHelp}};

const Command* Find(const std::string& name) {
  for (const Command& command : kCommands) {
    if (name == command.name) return &command;
  }
  return nullptr;
}

// The help on a command, or the general help when there is no such command.
const char* HelpFor(const std::string& name) {
  const Command* command = Find(name);
  return command != nullptr ? command->help : kGeneralHelp;
}

int Run(const Options& options) {
  if (options.command.empty() && !options.help) {
    std::cerr << HelpFor("");
    return 2;
  }
  if (options.help || options.command == "help") {
    std::cout << HelpFor(options.command == "help" && !options.args.empty() ? options.args[0]
                                                                            : options.command);
    return 0;
  }
  if (const Command* command = Find(options.command)) return command->run(options);
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
