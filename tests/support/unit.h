// What every unit-test program shares: GoogleTest, the sandbox device it runs in (laid out by its main
// before the program starts, since the product's constants are built at load time) and the log. The
// programs define the platform log call themselves and keep every line the product logs, exactly.
#ifndef WUP_TESTS_SUPPORT_UNIT_H_
#define WUP_TESTS_SUPPORT_UNIT_H_

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "PluginCommon.h"
#include "sandbox.h"

namespace wup_test {

struct LogEntry {
  int logId;
  int priority;
  std::string tag;
  std::string text;  // the whole formatted line, prefix included
};

void ClearLog();
const std::vector<LogEntry>& LogEntries();

inline Lines LogMessages() {
  Lines messages;
  for (const LogEntry& entry : LogEntries()) messages.push_back(LogMessage(entry.text));
  return messages;
}
inline bool LogHas(const std::string& message) { return Has(LogMessages(), message); }

// A record as one line, its fields in column order joined with "|", as Query gives a row.
inline std::string Text(const _PluginData& r) {
  return r.name + "|" + r.version + "|" + r.path + "|" + r.pkgid + "|" + r.entryPoints + "|" +
         std::to_string(r.pluginType) + "|" + std::to_string(r.hasForceMetaData) + "|" +
         std::to_string(r.isUpdate) + "|" + r.appWhiteList + "|" + r.systemPath;
}

}  // namespace wup_test

#endif  // WUP_TESTS_SUPPORT_UNIT_H_
