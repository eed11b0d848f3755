#include "sandbox.h"

#include <dirent.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace wup_test {

SandboxLayout SandboxLayout::At(const std::string& root) {
  SandboxLayout layout;
  layout.root = root;
  layout.db = root + "/opt/dbspace";
  layout.rwApp = root + "/opt/usr/apps";
  layout.roApp = root + "/usr/apps";
  layout.rwPackages = root + "/opt/share/packages";
  layout.roPackages = root + "/usr/share/packages";
  layout.vex = root + "/run/vex";
  layout.log = root + "/dlog.txt";
  return layout;
}

void SandboxLayout::Create() const {
  for (const std::string* dir : {&db, &rwApp, &roApp, &rwPackages, &roPackages, &vex}) MakeDirs(*dir);
}

void SandboxLayout::Export() const {
  setenv("TZ_SYS_DB", db.c_str(), 1);
  setenv("TZ_SYS_RW_APP", rwApp.c_str(), 1);
  setenv("TZ_SYS_RO_APP", roApp.c_str(), 1);
  setenv("TZ_SYS_RW_PACKAGES", rwPackages.c_str(), 1);
  setenv("TZ_SYS_RO_PACKAGES", roPackages.c_str(), 1);
  setenv("HOST_VEX_DIR", vex.c_str(), 1);
  setenv("HOST_DLOG_FILE", log.c_str(), 1);
}

void SandboxLayout::Reset() const {
  RemoveTree(root);
  Create();
}

const SandboxLayout& Device() {
  static const SandboxLayout layout = [] {
    const char* root = std::getenv("WUP_TEST_SANDBOX");
    if (root == nullptr) throw std::runtime_error("test program started without its sandbox");
    return SandboxLayout::At(root);
  }();
  return layout;
}

std::string MakeTempDir(const std::string& stem) {
  const char* tmp = std::getenv("TMPDIR");
  std::string pattern = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/" + stem + "-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed for " + pattern);
  return pattern;
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

void WriteFile(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
  if (!out) throw std::runtime_error("cannot write " + path);
}

void MakeDirs(const std::string& path) {
  for (size_t pos = 1; pos != std::string::npos;) {
    pos = path.find('/', pos + 1);
    const std::string prefix = path.substr(0, pos);
    if (mkdir(prefix.c_str(), 0755) != 0 && errno != EEXIST) {
      throw std::runtime_error("cannot create " + prefix);
    }
  }
}

void RemoveTree(const std::string& path) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) return;
  if (S_ISDIR(st.st_mode)) {
    if (DIR* dir = opendir(path.c_str())) {
      while (dirent* entry = readdir(dir)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") RemoveTree(path + "/" + name);
      }
      closedir(dir);
    }
    rmdir(path.c_str());
  } else {
    unlink(path.c_str());
  }
}

bool PathExists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

std::vector<std::string> ReadLines(const std::string& path) {
  std::vector<std::string> lines;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

Watchdog::Watchdog(unsigned seconds) { alarm(seconds); }

Watchdog::~Watchdog() { alarm(0); }

int CountOpenFds() {
  int count = 0;
  if (DIR* dir = opendir("/proc/self/fd")) {
    while (dirent* entry = readdir(dir)) {
      if (entry->d_name[0] != '.') ++count;
    }
    closedir(dir);
  }
  return count - 1;  // the descriptor of the listing itself
}

CommandResult RunCommand(const std::vector<std::string>& argv, const std::vector<std::string>& environment) {
  int pipeFds[2];
  if (pipe(pipeFds) != 0) throw std::runtime_error("pipe failed");
  const pid_t child = fork();
  if (child == 0) {
    dup2(pipeFds[1], STDOUT_FILENO);
    close(pipeFds[0]);
    close(pipeFds[1]);
    for (const std::string& entry : environment) {
      const size_t equals = entry.find('=');
      if (equals == std::string::npos) {
        unsetenv(entry.c_str());
      } else {
        setenv(entry.substr(0, equals).c_str(), entry.substr(equals + 1).c_str(), 1);
      }
    }
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
  }
  close(pipeFds[1]);
  CommandResult result;
  char buffer[4096];
  for (ssize_t n; (n = read(pipeFds[0], buffer, sizeof buffer)) > 0;) result.output.append(buffer, n);
  close(pipeFds[0]);
  int status = 0;
  waitpid(child, &status, 0);
  result.exited = WIFEXITED(status);
  result.status = result.exited ? WEXITSTATUS(status) : WTERMSIG(status);
  return result;
}

}  // namespace wup_test
