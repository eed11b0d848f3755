// What every unit-test program shares: GoogleTest, the sandbox device it runs in (laid out before the
// program starts: the product's constants are built at load time) and the log, captured exactly.
#ifndef WUP_TESTS_SUPPORT_UNIT_H_
#define WUP_TESTS_SUPPORT_UNIT_H_

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "PluginCommon.h"
#include "sandbox.h"

namespace wup_test {

// Every line logged since the last ClearLog, as "<log id> <priority> <tag> " and the formatted text.
const Lines& LogLines();
void ClearLog();

inline Lines LogMessages() {
  Lines messages;
  for (const std::string& line : LogLines()) messages.push_back(LogMessage(line));
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
