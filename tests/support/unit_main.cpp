// Main of the unit-test programs: the first run lays out a fresh sandbox, runs the program again inside
// it, and removes it afterwards. The log is captured in the program.
#include <dlog.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "unit.h"

static wup_test::Lines g_log;

void wup_test::ClearLog() { g_log.clear(); }

const wup_test::Lines& wup_test::LogLines() { return g_log; }

// The platform log of the product code in this program (hence ENABLE_EXPORTS); TEST_LOG_ECHO=1 prints too.
extern "C" int __dlog_print(log_id_t log_id, int prio, const char* tag, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  char* text = nullptr;
  const int length = vasprintf(&text, fmt, args);
  va_end(args);
  if (length < 0) return -1;
  g_log.push_back(std::to_string(log_id) + " " + std::to_string(prio) + " " + (tag ? tag : "") + " " + text);
  if (std::getenv("TEST_LOG_ECHO") != nullptr) std::fprintf(stderr, "[log] %s\n", text);
  std::free(text);
  return length;
}

int main(int argc, char** argv) {
  if (std::getenv("WUP_TEST_SANDBOX") != nullptr) {
    ::testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
  }
  const auto layout = wup_test::SandboxLayout::At(wup_test::MakeTempDir("wup-unit"));
  layout.Create();
  layout.Export();
  unsetenv("HOST_DLOG_FILE");
  setenv("WUP_TEST_SANDBOX", layout.root.c_str(), 1);
  const pid_t child = fork();
  if (child == 0) {
    execv("/proc/self/exe", argv);
    _exit(127);
  }
  int status = 0;
  waitpid(child, &status, 0);
  wup_test::RemoveTree(layout.root);
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  std::fprintf(stderr, "test program ended by signal %d\n", WTERMSIG(status));
  return 128 + WTERMSIG(status);
}
