#include "sandbox.h"

#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <stdexcept>

namespace wup_test {

namespace fs = std::filesystem;

const SandboxLayout& Device() {
  static const SandboxLayout layout = SandboxLayout::At(std::getenv("WUP_TEST_SANDBOX"));  // set by the main
  return layout;
}

bool Has(const Lines& lines, const std::string& line) {
  return std::find(lines.begin(), lines.end(), line) != lines.end();
}

Lines Query(const std::string& path, const char* sql) {
  Lines rows;
  auto collect = [](void* out, int count, char** values, char**) {
    std::string row = values[0] != nullptr ? values[0] : "";
    for (int i = 1; i < count; ++i) row += "|" + std::string(values[i] != nullptr ? values[i] : "");
    static_cast<Lines*>(out)->push_back(row);
    return 0;
  };
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK)
    sqlite3_exec(db, sql, collect, &rows, nullptr);
  sqlite3_close(db);
  return rows;
}

std::string LogMessage(const std::string& line) {
  const size_t separator = line.find(" > ");
  return separator == std::string::npos ? line : line.substr(separator + 3);
}

Lines ReadLog(const std::string& path) {
  Lines messages = ReadLines(path);
  for (std::string& line : messages) line = LogMessage(line);
  return messages;
}

int CountOpenFds() {  // less the descriptor of the listing itself
  return static_cast<int>(std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator())) -
         1;
}

void SetEnvironment(const Lines& entries) {
  for (const std::string& entry : entries) {
    const size_t equals = entry.find('=');
    if (equals == std::string::npos)
      unsetenv(entry.c_str());
    else
      setenv(entry.substr(0, equals).c_str(), entry.substr(equals + 1).c_str(), 1);
  }
}

CommandResult RunCommand(const Lines& argv, const Lines& environment, bool withErrors) {
  int pipeFds[2];
  if (pipe(pipeFds) != 0) throw std::runtime_error("pipe failed");
  const pid_t child = fork();
  if (child == 0) {
    dup2(pipeFds[1], STDOUT_FILENO);
    if (withErrors) dup2(pipeFds[1], STDERR_FILENO);
    close(pipeFds[0]);
    close(pipeFds[1]);
    SetEnvironment(environment);
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
