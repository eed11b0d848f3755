#include "log_capture.h"

#include <dlog.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace wup_test {
namespace {

std::vector<LogEntry>& Entries() {
  static std::vector<LogEntry> entries;
  return entries;
}

}  // namespace

std::string LogEntry::Message() const {
  const size_t separator = text.find(" > ");
  return separator == std::string::npos ? text : text.substr(separator + 3);
}

void ClearLog() { Entries().clear(); }

const std::vector<LogEntry>& LogEntries() { return Entries(); }

std::vector<std::string> LogMessages() {
  std::vector<std::string> messages;
  for (const LogEntry& entry : Entries()) messages.push_back(entry.Message());
  return messages;
}

bool LogHas(const std::string& message) {
  const std::vector<std::string> messages = LogMessages();
  return std::find(messages.begin(), messages.end(), message) != messages.end();
}

}  // namespace wup_test

// Takes the place of the platform log for the product code linked into this program. TEST_LOG_ECHO=1
// also prints each line, for reading a failing test.
extern "C" int __dlog_print(log_id_t log_id, int prio, const char* tag, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  char* text = nullptr;
  const int length = vasprintf(&text, fmt, args);
  va_end(args);
  if (length < 0) return -1;
  wup_test::Entries().push_back({static_cast<int>(log_id), prio, tag ? tag : "", text});
  if (std::getenv("TEST_LOG_ECHO") != nullptr) std::fprintf(stderr, "[log] %s\n", text);
  std::free(text);
  return length;
}
