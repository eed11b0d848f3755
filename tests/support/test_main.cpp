// Main of the unit-test programs. The product's constants are built when the program is loaded, from the
// platform path service, so the sandbox device must be in the environment before the program starts:
// the first run lays out a fresh sandbox, runs the program again inside it, and removes it afterwards.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "sandbox.h"

namespace {

int RunAgainInSandbox(char** argv) {
  const std::string root = wup_test::MakeTempDir("wup-unit");
  const wup_test::SandboxLayout layout = wup_test::SandboxLayout::At(root);
  layout.Create();
  layout.Export();
  unsetenv("HOST_DLOG_FILE");  // the log is captured in the program itself
  setenv("WUP_TEST_SANDBOX", root.c_str(), 1);

  const pid_t child = fork();
  if (child == 0) {
    execv("/proc/self/exe", argv);
    std::perror("execv");
    _exit(127);
  }
  int status = 0;
  waitpid(child, &status, 0);
  wup_test::RemoveTree(root);
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  std::fprintf(stderr, "test program ended by signal %d\n", WTERMSIG(status));
  return 128 + WTERMSIG(status);
}

}  // namespace

int main(int argc, char** argv) {
  if (std::getenv("WUP_TEST_SANDBOX") == nullptr) return RunAgainInSandbox(argv);
  ::testing::InitGoogleMock(&argc, argv);
  return RUN_ALL_TESTS();
}
