#include "log.h"

#include <cctype>
#include <fstream>

namespace pkgsim {
namespace {

// The platform log's prefix, "P/TAG(PID): ": a priority letter, the tag, the process id. Returns the
// length of the prefix and sets `pid`, or 0 when the line does not start with one.
std::size_t PrefixLength(const std::string& line, int& pid) {
  if (line.size() < 2 || !std::isupper(static_cast<unsigned char>(line[0])) || line[1] != '/') return 0;
  const std::size_t open = line.find('(', 2);
  const std::size_t close = line.find("): ", 2);
  if (open == std::string::npos || close == std::string::npos || close <= open + 1) return 0;
  for (std::size_t i = open + 1; i < close; ++i) {
    if (!std::isdigit(static_cast<unsigned char>(line[i]))) return 0;
  }
  pid = std::stoi(line.substr(open + 1, close - open - 1));
  return close + 3;
}

// Splits "FILE: FUNCTION(LINE) > MESSAGE"; a text of another form is all message.
void SplitMessage(const std::string& text, LogEntry& entry) {
  entry.message = text;
  const std::size_t colon = text.find(": ");
  const std::size_t arrow = text.find(") > ");
  if (colon == std::string::npos || arrow == std::string::npos || arrow < colon) return;
  const std::size_t open = text.rfind('(', arrow);
  if (open == std::string::npos || open < colon) return;
  entry.file = text.substr(0, colon);
  entry.function = text.substr(colon + 2, open - colon - 2);
  entry.message = text.substr(arrow + 4);
}

}  // namespace

std::string LogEntry::Between(const std::string& before, const std::string& after) const {
  const std::size_t start = message.find(before);
  if (start == std::string::npos) return "";
  const std::size_t from = start + before.size();
  const std::size_t end = message.find(after, from);
  return message.substr(from, end == std::string::npos ? std::string::npos : end - from);
}

Log ReadLog(const std::string& path, off_t offset, int pid) {
  std::ifstream in(path, std::ios::binary);
  in.seekg(offset);
  Log all;
  for (std::string line; std::getline(in, line);) {
    int linePid = 0;
    const std::size_t prefix = PrefixLength(line, linePid);
    if (prefix == 0) {
      // The rest of a message that spans lines; without an entry before it, it belongs to none read here.
      if (all.empty()) continue;
      all.back().message += "\n" + line;
      all.back().lines.push_back(line);
      continue;
    }
    LogEntry entry;
    entry.pid = linePid;
    SplitMessage(line.substr(prefix), entry);
    entry.lines.push_back(line);
    all.push_back(std::move(entry));
  }
  Log mine;
  for (LogEntry& entry : all) {
    if (entry.pid == pid) mine.push_back(std::move(entry));
  }
  return mine;
}

void PrintLog(const Log& log, std::ostream& out) {
  std::size_t lines = 0;
  for (const LogEntry& entry : log) lines += entry.lines.size();
  out << "plug-in log (" << lines << " lines):\n";
  for (const LogEntry& entry : log) {
    for (std::size_t i = 0; i < entry.lines.size(); ++i)
      out << (i == 0 ? "  " : "      ") << entry.lines[i] << "\n";
  }
}

}  // namespace pkgsim
