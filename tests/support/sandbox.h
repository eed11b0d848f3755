// What every kind of test uses on a sandbox device (laid out by hostkit/layout.h): its database read
// behind the product's back, its log, descriptors, and programs run to their end.
#ifndef WUP_TESTS_SUPPORT_SANDBOX_H_
#define WUP_TESTS_SUPPORT_SANDBOX_H_

#include <unistd.h>

#include <string>

#include "hostkit/files.h"
#include "hostkit/layout.h"

namespace wup_test {

// The device's layout and the file helpers come from the host side's home.
using hostkit::Lines;
using hostkit::MakeDirs;
using hostkit::MakeTempDir;
using hostkit::Metadata;
using hostkit::PathExists;
using hostkit::ReadFile;
using hostkit::ReadLines;
using hostkit::RemoveTree;
using hostkit::WriteFile;
using hostkit::WriteManifest;
using SandboxLayout = hostkit::Layout;

// The sandbox of a unit-test process (set up by the test main before the program runs).
const SandboxLayout& Device();

bool Has(const Lines& lines, const std::string& line);

// Runs `sql` on the SQLite file at `path` (never created here), behind the product's back: one line per
// row, its columns joined with "|", NULL as empty; nothing when the file cannot be opened.
Lines Query(const std::string& path, const char* sql);

// A log line without its "file: function(line) > " prefix; the messages of the host log stand-in's file.
std::string LogMessage(const std::string& line);
Lines ReadLog(const std::string& path);

// Turns a hang into a failure: SIGALRM kills the process unless the watchdog is gone within `seconds`.
struct Watchdog {
  explicit Watchdog(unsigned seconds = 60) { alarm(seconds); }
  ~Watchdog() { alarm(0); }
};

// Number of descriptors this process has open (entries of /proc/self/fd).
int CountOpenFds();

struct CommandResult {
  bool exited = false;  // ended by exit (else by a signal)
  int status = -1;      // exit status, or the signal number
  std::string output;   // what it wrote to standard output (and standard error, when asked)
};

// Sets the entries "NAME=VALUE" in this process's environment ("NAME" alone unsets); runs a program to its
// end with such entries set for it.
void SetEnvironment(const Lines& entries);
CommandResult RunCommand(const Lines& argv, const Lines& environment = {}, bool withErrors = false);

}  // namespace wup_test

#endif  // WUP_TESTS_SUPPORT_SANDBOX_H_
