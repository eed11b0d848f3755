// pkgsim: the package manager of a TV, on a PC. It installs, upgrades and uninstalls packages on a
// sandbox device, calls the metadata-parser plug-in as the device's package manager does, and shows what
// the plug-in did and why. This file only parses the command line and dispatches; each command lives in
// a file of its own.
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "commands.h"
#include "help.h"
#include "options.h"

namespace pkgsim {
namespace {

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
  static const struct {
    const char* name;
    int (*run)(const Options&);
  } kCommands[] = {{"init", Init}, {"check", Check}, {"install", Install},      {"uninstall", Uninstall},
                   {"show", Show}, {"demo", Demo},   {"foreground", Foreground}};
  for (const auto& command : kCommands) {
    if (options.command == command.name) return command.run(options);
  }
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
