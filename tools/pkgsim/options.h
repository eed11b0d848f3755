// The command line of pkgsim: global options, the command and its arguments. Parsing only; each command
// checks its own arguments with ExpectArgs.
#ifndef PKGSIM_OPTIONS_H_
#define PKGSIM_OPTIONS_H_

#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

namespace pkgsim {

// Misuse of the command line: one line on standard error, exit status 2.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct Options {
  std::string device;
  bool deviceGiven = false;
  std::string plugin;  // --plugin: loaded in place of the library the device's registration names
  std::string examples = PKGSIM_EXAMPLES_DIR;
  bool quiet = false;
  bool help = false;
  bool preload = false;          // install, check
  bool failAfterPlugin = false;  // install
  bool none = false;             // foreground
  bool sample = false;           // init
  bool keep = false;             // demo
  unsigned user = 0;             // install, check, uninstall: --user UID, 0 for all users
  std::string command;
  std::vector<std::string> args;
};

Options Parse(const std::vector<std::string>& argv);

// Throws UsageError unless the command got between `least` and `most` arguments.
void ExpectArgs(const Options& options, std::size_t least, std::size_t most);

// A path made absolute and normal, as pkgsim shows and passes it.
std::string Absolute(const std::string& path);

}  // namespace pkgsim

#endif  // PKGSIM_OPTIONS_H_
