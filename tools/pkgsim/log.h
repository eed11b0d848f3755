// The platform log as pkgsim reads it back: the plug-in's only voice. Each call of the log is one entry;
// a message that holds line feeds (a JSON parser's error text, for instance) spans several lines of the
// file, and the lines that do not start with the log's prefix continue the entry before them.
#ifndef PKGSIM_LOG_H_
#define PKGSIM_LOG_H_

#include <sys/types.h>

#include <ostream>
#include <string>
#include <vector>

namespace pkgsim {

struct LogEntry {
  int pid = 0;
  std::string file;  // the plug-in's source file, function and line, when the message carries them
  std::string function;
  std::string message;  // what follows "FILE: FUNCTION(LINE) > ", continuation lines joined by '\n'
  std::vector<std::string> lines;  // the entry as written, first line included

  bool Is(const char* text) const { return message == text; }
  bool StartsWith(const std::string& text) const { return message.compare(0, text.size(), text) == 0; }
  bool EndsWith(const std::string& text) const {
    return message.size() >= text.size() &&
           message.compare(message.size() - text.size(), text.size(), text) == 0;
  }
  // The text between `before` and the next `after` in the message, or "" when `before` is not in it.
  std::string Between(const std::string& before, const std::string& after) const;
};

using Log = std::vector<LogEntry>;

// The entries that process `pid` wrote to the log at `path` from byte `offset` on. Other processes
// may share the log; their entries are left out.
Log ReadLog(const std::string& path, off_t offset, int pid);

// The entries as written, indented, continuation lines deeper than first lines.
void PrintLog(const Log& log, std::ostream& out);

}  // namespace pkgsim

#endif  // PKGSIM_LOG_H_
