// Unit-test programs define the platform log call themselves, so every line that the product logs is
// kept here, with the log id, priority and tag it was given.
#ifndef WUP_TESTS_SUPPORT_LOG_CAPTURE_H_
#define WUP_TESTS_SUPPORT_LOG_CAPTURE_H_

#include <string>
#include <vector>

namespace wup_test {

struct LogEntry {
  int logId;
  int priority;
  std::string tag;
  std::string text;  // the whole formatted line, prefix included

  // What follows the "file: function(line) > " prefix.
  std::string Message() const;
};

void ClearLog();
const std::vector<LogEntry>& LogEntries();
// The messages, in order, without their prefix.
std::vector<std::string> LogMessages();
bool LogHas(const std::string& message);

}  // namespace wup_test

#endif  // WUP_TESTS_SUPPORT_LOG_CAPTURE_H_
