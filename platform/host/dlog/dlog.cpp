// Host stand-in for the platform log: one line per call, "P/TAG(pid): message", like dlogutil's brief
// format. The line goes to the file named by HOST_DLOG_FILE (appended with one write, so several processes
// of one sandbox share a log) or, without it, to standard error. The file stays open between calls, and
// each line is formatted once.
#include <dlog.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "append_file.h"

namespace {

char PriorityLetter(int prio) {
  static const char kLetters[] = "??VDIWEFS";
  return (prio >= 0 && prio <= DLOG_SILENT) ? kLetters[prio] : '?';
}

// The prefix, then the message formatted after it: in place when it fits the line's room, otherwise once
// more into room made for it.
std::string Line(int prio, const char* tag, const char* fmt, va_list args) {
  std::string line(1, PriorityLetter(prio));
  line += '/';
  line += tag != nullptr ? tag : "";
  line += '(';
  line += std::to_string(getpid());
  line += "): ";
  const size_t prefix = line.size();
  line.resize(prefix + 256);
  va_list copy;
  va_copy(copy, args);
  int size = std::vsnprintf(&line[prefix], line.size() - prefix + 1, fmt, copy);
  va_end(copy);
  if (size < 0) size = 0;
  if (static_cast<size_t>(size) > line.size() - prefix) {
    line.resize(prefix + static_cast<size_t>(size));
    std::vsnprintf(&line[prefix], static_cast<size_t>(size) + 1, fmt, args);
  }
  line.resize(prefix + static_cast<size_t>(size));
  // Messages may carry their own line feed; the log shows one line per call either way.
  while (line.size() > prefix && line.back() == '\n') line.pop_back();
  line += '\n';
  return line;
}

}  // namespace

extern "C" int __dlog_print(log_id_t log_id, int prio, const char* tag, const char* fmt, ...) {
  (void)log_id;
  va_list args;
  va_start(args, fmt);
  const std::string line = Line(prio, tag, fmt, args);
  va_end(args);

  // Never destroyed: a static destructor elsewhere may still log while the process ends.
  static std::mutex* const mutex = new std::mutex;
  static host::AppendFile* const file = new host::AppendFile;
  const char* path = std::getenv("HOST_DLOG_FILE");
  const std::lock_guard<std::mutex> lock(*mutex);
  if (path == nullptr || *path == '\0' || !file->Append(path, line.data(), line.size())) {
    (void)!write(STDERR_FILENO, line.data(), line.size());
  }
  return static_cast<int>(line.size());
}
