#include "fuzz_support.h"

#include <dlog.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unordered_map>

namespace wup_fuzz {
namespace {

hostkit::Layout* sandbox = nullptr;

std::unordered_map<std::string, int>& LineCounts() {
  static std::unordered_map<std::string, int> counts;
  return counts;
}

void RemoveSandbox() { hostkit::RemoveTree(sandbox->root); }

// The product's constants are built by the C++ initialisers of this program from the platform path
// service, which reads the environment; a prioritised constructor runs before all of them.
__attribute__((constructor(101))) void LayOutSandbox() {
  const char* base = std::getenv("WUP_FUZZ_TMP");
  if (base == nullptr || *base == '\0') base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
  setenv("TMPDIR", base, 1);
  sandbox = new hostkit::Layout(hostkit::Layout::At(hostkit::MakeTempDir("wup-fuzz")));
  sandbox->Create();
  sandbox->Export();
  std::atexit(RemoveSandbox);
}

}  // namespace

const hostkit::Layout& Device() { return *sandbox; }

int LoggedLines(const std::string& message) {
  const auto found = LineCounts().find(message);
  return found == LineCounts().end() ? 0 : found->second;
}

// Counts are zeroed, not erased: an input that frees more or less than it allocates makes libFuzzer look
// for leaks, which costs more than the input itself.
void ResetLog() {
  for (auto& count : LineCounts()) count.second = 0;
}

void Fail(const std::string& what) {
  std::fprintf(stderr, "property broken: %s\n", what.c_str());
  std::abort();
}

}  // namespace wup_fuzz

// Takes the place of the platform log. Each line is formatted (the sanitizers check every argument on
// the way) and counted by its message; it is printed only with WUP_FUZZ_LOG=1, for replaying a finding.
extern "C" int __dlog_print(log_id_t, int, const char*, const char* fmt, ...) {
  static const bool echo = std::getenv("WUP_FUZZ_LOG") != nullptr;
  char line[4096];
  va_list args;
  va_start(args, fmt);
  const int length = std::vsnprintf(line, sizeof line, fmt, args);
  va_end(args);
  if (echo) std::fprintf(stderr, "[log] %s\n", line);
  const char* message = std::strstr(fmt, " > ");
  ++wup_fuzz::LineCounts()[message != nullptr ? message + 3 : fmt];
  return length;
}
