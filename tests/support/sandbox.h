// A sandbox device: a temporary directory laid out like the TV's file system, the environment variables
// that point the host stand-ins at it, and the file helpers every kind of test uses on it.
#ifndef WUP_TESTS_SUPPORT_SANDBOX_H_
#define WUP_TESTS_SUPPORT_SANDBOX_H_

#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

namespace wup_test {

using Lines = std::vector<std::string>;

struct SandboxLayout {
  std::string root;
  std::string db;          // TZ_SYS_DB
  std::string rwApp;       // TZ_SYS_RW_APP
  std::string roApp;       // TZ_SYS_RO_APP
  std::string rwPackages;  // TZ_SYS_RW_PACKAGES
  std::string roPackages;  // TZ_SYS_RO_PACKAGES
  std::string vex;         // HOST_VEX_DIR
  std::string log;         // HOST_DLOG_FILE

  static SandboxLayout At(const std::string& root);
  void Create() const;  // every directory of the layout (not the log file)
  // Points the stand-ins of this process (and of the processes it starts) at the sandbox.
  void Export() const;
  // Removes everything inside the sandbox and creates it again.
  void Reset() const;
};

// The sandbox of a unit-test process (set up by the test main before the program runs).
const SandboxLayout& Device();

std::string MakeTempDir(const std::string& stem);

std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& content);
void MakeDirs(const std::string& path);
void RemoveTree(const std::string& path);
bool PathExists(const std::string& path);
Lines ReadLines(const std::string& path);

bool Has(const Lines& lines, const std::string& line);

// Runs `sql` on the SQLite file at `path` (never created here), behind the product's back: one line per
// row, its columns joined with "|", NULL as empty; nothing when the file cannot be opened.
Lines Query(const std::string& path, const char* sql);

// A log line without its "file: function(line) > " prefix; the messages of the host log stand-in's file.
std::string LogMessage(const std::string& line);
Lines ReadLog(const std::string& path);

using Metadata = std::vector<std::pair<std::string, std::string>>;

// A package as the package manager leaves it: `dir`/`package`.xml with one ui-application per appid,
// each carrying `metadata`. Sample texts hold no XML markup, so nothing is escaped.
void WriteManifest(const std::string& dir, const std::string& package, const std::string& version,
                   const Lines& appids, const Metadata& metadata = {});

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
  std::string output;   // what it wrote to standard output
};

// Sets the entries "NAME=VALUE" in this process's environment ("NAME" alone unsets); runs a program to its
// end with such entries set for it.
void SetEnvironment(const Lines& entries);
CommandResult RunCommand(const Lines& argv, const Lines& environment = {});

}  // namespace wup_test

#endif  // WUP_TESTS_SUPPORT_SANDBOX_H_
