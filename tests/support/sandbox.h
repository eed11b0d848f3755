// A sandbox device: a temporary directory laid out like the TV's file system, and the environment
// variables that point the host stand-ins at it.
#ifndef WUP_TESTS_SUPPORT_SANDBOX_H_
#define WUP_TESTS_SUPPORT_SANDBOX_H_

#include <string>
#include <vector>

namespace wup_test {

struct SandboxLayout {
  std::string root;
  std::string db;           // TZ_SYS_DB
  std::string rwApp;        // TZ_SYS_RW_APP
  std::string roApp;        // TZ_SYS_RO_APP
  std::string rwPackages;   // TZ_SYS_RW_PACKAGES
  std::string roPackages;   // TZ_SYS_RO_PACKAGES
  std::string vex;          // HOST_VEX_DIR
  std::string log;          // HOST_DLOG_FILE

  static SandboxLayout At(const std::string& root);
  // Creates every directory of the layout (the log file is not created).
  void Create() const;
  // Points the stand-ins of this process (and of the processes it starts) at the sandbox.
  void Export() const;
  // Removes everything inside the sandbox and lays the directories out again.
  void Reset() const;
};

// The sandbox of a unit-test process (set up by the test main before the program runs).
const SandboxLayout& Device();

// A fresh, empty directory under the system's temporary directory.
std::string MakeTempDir(const std::string& stem);

std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& content);
void MakeDirs(const std::string& path);
void RemoveTree(const std::string& path);
bool PathExists(const std::string& path);
std::vector<std::string> ReadLines(const std::string& path);

// Turns a hang into a failure: the process is killed by SIGALRM unless the watchdog goes out of scope
// within `seconds`.
class Watchdog {
 public:
  explicit Watchdog(unsigned seconds = 60);
  ~Watchdog();
  Watchdog(const Watchdog&) = delete;
  Watchdog& operator=(const Watchdog&) = delete;
};

// Number of descriptors this process has open (entries of /proc/self/fd).
int CountOpenFds();

struct CommandResult {
  bool exited = false;     // ended by exit (else by a signal)
  int status = -1;         // exit status, or the signal number
  std::string output;      // what it wrote to standard output
};

// Runs a program to its end. `environment` entries "NAME=VALUE" are set for it, "NAME" alone unsets.
CommandResult RunCommand(const std::vector<std::string>& argv,
                         const std::vector<std::string>& environment = {});

}  // namespace wup_test

#endif  // WUP_TESTS_SUPPORT_SANDBOX_H_
