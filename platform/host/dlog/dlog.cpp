// Host stand-in for the platform log: one line per call, "P/TAG(pid): message", like dlogutil's brief
// format. The line goes to the file named by HOST_DLOG_FILE (appended, so several processes of one
// sandbox share a log) or, without it, to standard error.
#include <dlog.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

char PriorityLetter(int prio) {
  static const char kLetters[] = "??VDIWEFS";
  return (prio >= 0 && prio <= DLOG_SILENT) ? kLetters[prio] : '?';
}

std::string Format(const char* fmt, va_list args) {
  va_list copy;
  va_copy(copy, args);
  const int size = std::vsnprintf(nullptr, 0, fmt, copy);
  va_end(copy);
  if (size < 0) return std::string();
  std::string text(static_cast<size_t>(size) + 1, '\0');
  std::vsnprintf(text.data(), text.size(), fmt, args);
  text.resize(static_cast<size_t>(size));
  return text;
}

}  // namespace

extern "C" int __dlog_print(log_id_t log_id, int prio, const char* tag, const char* fmt, ...) {
  (void)log_id;
  va_list args;
  va_start(args, fmt);
  std::string message = Format(fmt, args);
  va_end(args);
  // Messages may carry their own line feed; the log shows one line per call either way.
  while (!message.empty() && message.back() == '\n') message.pop_back();

  const std::string line = std::string(1, PriorityLetter(prio)) + "/" + (tag ? tag : "") + "(" +
                           std::to_string(getpid()) + "): " + message + "\n";
  const char* path = std::getenv("HOST_DLOG_FILE");
  FILE* out = (path != nullptr && *path != '\0') ? std::fopen(path, "a") : nullptr;
  std::fputs(line.c_str(), out != nullptr ? out : stderr);
  if (out != nullptr) std::fclose(out);
  return static_cast<int>(line.size());
}
