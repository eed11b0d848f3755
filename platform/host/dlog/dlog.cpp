// Host stand-in for the platform log: one line per call, "P/TAG(pid): message", like dlogutil's brief
// format. The line goes to the file named by HOST_DLOG_FILE (appended with one write, so several processes
// of one sandbox share a log) or, without it, to standard error. The file stays open between calls, and
// each line is formatted once.
#include <dlog.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "hostkit/append_file.h"

namespace {

char PriorityLetter(int prio) {
  static const char kLetters[] = "??VDIWEFS";
  return (prio >= 0 && prio <= DLOG_SILENT) ? kLetters[prio] : '?';
}

// One line: "P/TAG(pid): ", the message, a line feed. The message is formatted once, straight after the
// prefix in a buffer on the stack; only a line longer than that is formatted again into room made for it.
class Line {
 public:
  Line(int prio, const char* tag, const char* fmt, va_list args) {
    const std::string pid = std::to_string(getpid());  // short enough to stay off the heap
    const size_t pidLength = pid.size();
    const char* tagText = tag != nullptr ? tag : "";
    const size_t tagLength = std::strlen(tagText);
    const size_t prefix = tagLength + pidLength + 6;
    data_ = stack_;
    size_t room = sizeof stack_;
    if (prefix + 2 > room) room = Grow(prefix + 2);
    char* out = data_;
    *out++ = PriorityLetter(prio);
    *out++ = '/';
    out = static_cast<char*>(std::memcpy(out, tagText, tagLength)) + tagLength;
    *out++ = '(';
    out = static_cast<char*>(std::memcpy(out, pid.data(), pidLength)) + pidLength;
    std::memcpy(out, "): ", 3);

    va_list copy;
    va_copy(copy, args);
    // One byte stays free for the line feed.
    const int formatted = std::vsnprintf(data_ + prefix, room - prefix - 1, fmt, copy);
    va_end(copy);
    size_t message = formatted > 0 ? static_cast<size_t>(formatted) : 0;
    if (prefix + message + 2 > room) {
      Grow(prefix + message + 2);
      std::vsnprintf(data_ + prefix, message + 1, fmt, args);
    }
    // Messages may carry their own line feed; the log shows one line per call either way.
    while (message > 0 && data_[prefix + message - 1] == '\n') --message;
    size_ = prefix + message;
    data_[size_++] = '\n';
  }

  const char* data() const { return data_; }
  size_t size() const { return size_; }

 private:
  // Moves what is written so far into a heap buffer of `room` bytes.
  size_t Grow(size_t room) {
    if (data_ == stack_) heap_.assign(stack_, std::min(room, sizeof stack_));
    heap_.resize(room);
    data_ = &heap_[0];
    return room;
  }

  char stack_[1024];
  std::string heap_;
  char* data_ = nullptr;
  size_t size_ = 0;
};

}  // namespace

extern "C" int __dlog_print(log_id_t log_id, int prio, const char* tag, const char* fmt, ...) {
  (void)log_id;
  va_list args;
  va_start(args, fmt);
  const Line line(prio, tag, fmt, args);
  va_end(args);

  // Never destroyed: a static destructor elsewhere may still log while the process ends.
  static std::mutex* const mutex = new std::mutex;
  static hostkit::AppendFile* const file = new hostkit::AppendFile;
  const char* path = std::getenv("HOST_DLOG_FILE");
  const std::lock_guard<std::mutex> lock(*mutex);
  if (path == nullptr || *path == '\0' || !file->Append(path, line.data(), line.size())) {
    (void)!write(STDERR_FILENO, line.data(), line.size());
  }
  return static_cast<int>(line.size());
}
