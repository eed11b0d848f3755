#include "log.h"

#include <cctype>
#include <cstring>
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

const std::vector<LogPattern>& LogPatterns() {
  using T = LogText;
  using P = LogPattern;
  static const std::vector<LogPattern> patterns = {
      // clang-format off
      {T::kBusy, "callback_db", P::kStart, "database is lock now"},
      {T::kBusy, "m_validCheck", P::kStart, "sqlite3 busy"},
      {T::kDbPassed, "m_openDBCheck", P::kWhole, "db valid check pass"},
      {T::kDbCreated, "m_openDBCheck", P::kWhole, "db and backup db are not valid, now create db"},
      {T::kDbMissing, "m_validCheck", P::kEnd, " is not exist"},
      {T::kDbEmpty, "m_validCheck", P::kEnd, "'s size is 0"},
      {T::kDbUnopened, "m_validCheck", P::kStart, "Failed to open database ["},
      {T::kDbIntegrity, "m_validCheck", P::kWithin, ", PRAGMA integrity_check error: ["},
      {T::kDbIntegrity, "m_validCheck", P::kStart, "database integrity_check failed"},
      {T::kDbTablesUnlisted, "m_validCheck", P::kStart, "table not exist"},
      {T::kDbInvalid, "m_validCheck", P::kStart, "valid check failed, integrity_verify["},
      {T::kDbInvalidTables, "m_validCheck", P::kWithin, "], version table check["},
      {T::kBackupCopy, "m_versionCpBakUp", P::kWhole, "Backup versionDB."},
      {T::kCopyTruncated, "m_versionCpBakUp", P::kEnd, "], invalid!"},
      {T::kStatementRecovered, "m_getPluginDataFromPluginTable", P::kStart,
       ".AppBinaryManager.db is broken!"},
      {T::kStatementRecovered, "m_recoverDBExecute", P::kStart,
       ".AppBinaryManager.db is broken!"},
      {T::kOtherColumns, "m_validCheck", P::kEnd,
       " DB : pluginTable has other columns than the plug-in's own, counted as damaged"},
      {T::kBusyGaveUp, "m_openDBCheck", P::kEnd,
       "] stays busy: neither file restored nor created, the call gives up"},
      {T::kBusyNothingWritten, "m_modifyTable", P::kEnd, "] stays busy: nothing written, nothing restored"},
      {T::kCopyIncomplete, "m_versionCpBakUp", P::kStart, "copy of ["},
      {T::kCopyIncompleteTo, "m_versionCpBakUp", P::kWithin, "] to ["},
      {T::kCopyIncompleteEnd, "m_versionCpBakUp", P::kWithin, "] not completed, ["},

      {T::kNoMetadata, "m_CheckTPKByMetadata", P::kWithin, "] NO <"},
      {T::kNoMetadataEnd, "m_CheckTPKByMetadata", P::kEnd, "> metadata"},
      {T::kMetadataKey, "m_CheckTPKByMetadata", P::kWithin, "]key:["},
      {T::kMetadataValue, "m_CheckTPKByMetadata", P::kWithin, "]value:["},
      {T::kTypeFailed, "GetPluginType", P::kWhole, "get plugin type fail!"},
      {T::kTypeIs, "GetPluginType", P::kWithin, "] type is ["},
      {T::kInvalidPkgid, "GetPluginNameByID", P::kStart, "invalid pkgid"},
      {T::kNameFailed, "GetPluginNameByID", P::kWhole, "get plugin name fail"},
      {T::kPluginName, "GetPluginNameByID", P::kStart, "pluginName["},
      {T::kVersionUnread, "GetTPKVersionByID", P::kEnd, "] info fail!!"},
      {T::kVersionUnread, "GetTPKVersionByID", P::kEnd, "] version fail!!"},
      {T::kEmptyParams, "m_checkTpk", P::kWhole, "empty params"},
      {T::kTpkVersion, "m_checkTpk", P::kStart, "tpkVersion["},
      {T::kLocalVersion, "m_checkTpk", P::kWithin, "], localVersion["},
      {T::kSameVersion, "m_checkTpk", P::kWhole, "tpkVersion == localVersion"},
      {T::kRootPath, "m_GetRootPath", P::kWithin, "]'s root path:["},
      {T::kInstalledRo, "MakeInsertedMap", P::kWhole, "INSTALLED_ONLY_RO!"},
      {T::kInstalledRw, "MakeInsertedMap", P::kWhole, "INSTALLED_ONLY_RW!"},
      {T::kInstalledBoth, "MakeInsertedMap", P::kWhole, "INSTALLED_BOTH_RO_RW!"},
      {T::kWalkPath, "GetXwalkInfo", P::kStart, "GetXwalkInfo,path = "},
      {T::kWalkFile, "GetXwalkInfo", P::kStart, "strFile = "},
      {T::kFileUnopened, "m_ParseXwalkJsonFile", P::kStart, "open "},
      {T::kFileError, "m_ParseXwalkJsonFile", P::kWithin, "],err:["},
      {T::kFileNotArray, "m_ParseXwalkJsonFile", P::kEnd, "] holds no array of extensions, skipped"},
      {T::kFileBadElement, "m_ParseXwalkJsonFile", P::kWithin, "] element "},
      {T::kXwalkInfoFailed, "MakeInsertedMap", P::kStart, "get xwalk extension info fail"},
      {T::kInsertedListFailed, "m_checkTpk", P::kWhole, "Get the inserted list fail"},
      {T::kInserted, "m_checkTpk", P::kStart, "insert new data:name["},
      {T::kInsertedVersion, "m_checkTpk", P::kWithin, "]version["},
      {T::kInsertFailed, "InsertPluginData", P::kWhole, "insert into pluginTable fail!!"},
      {T::kCheckFailed, "HandleSingleTpk", P::kEnd, "]fail"},
      {T::kRemoveFailed, "RemoveTpk", P::kWhole, "remove DB record fail"},
      {T::kHandlingPackage, "HandleSingleTpk", P::kStart, "pkgid = ["},
      {T::kStoredInOneWrite, "InsertPluginDataList", P::kStart, "insert into pluginTable successfully, "},
      {T::kStoredInOneWriteEnd, "InsertPluginDataList", P::kEnd, " records in one write"},
      {T::kNoneStored, "InsertPluginDataList", P::kStart, "insert into pluginTable fail!! none of the "},
      {T::kNoneStoredEnd, "InsertPluginDataList", P::kEnd, " records stored"},
      {T::kPackageRecordsRemoved, "DeletePackageData", P::kStart, "remove the records of ["},
      {T::kRecordsLost, "m_RebuildLostRecords", P::kWhole,
       "both database files were damaged: rebuild the records from the installed packages"},
      {T::kPackagesUnlisted, "GetPackagesWithMetadata", P::kWhole, "create metadata filter fail!!"},
      {T::kPackagesUnlisted, "GetPackagesWithMetadata", P::kStart, "list the applications with <"},
      {T::kRebuilt, "m_RebuildLostRecords", P::kStart, "rebuild pkgid = ["},
      {T::kRebuiltVersion, "m_RebuildLostRecords", P::kWithin, "], version = ["},

      {T::kAllowListUnused, "MakeUpgradeWebapiJson", P::kEnd,
       "]app whitelist empty OR Only RO TPK,ignore its applist value!"},
      {T::kPublished, "MakeUpgradeWebapiJson", P::kStart, "pluginname:["},
      {T::kPublishedApp, "MakeUpgradeWebapiJson", P::kWithin, "]tizenid:["},
      {T::kForegroundUnknown, "m_TerminateBGApp", P::kWhole, "vex_get_current_showing_app failed"},
      {T::kForegroundUnknown, "m_TerminateBGApp", P::kWhole, "vex_get_app_info failed"},
      {T::kForeground, "m_TerminateBGApp", P::kEnd, " is at foreground"},
      {T::kTerminated, "m_TerminateBGApp", P::kEnd, "] success"},
      {T::kTerminateFailed, "m_TerminateBGApp", P::kEnd, "] fail"},
      {T::kResultFailed, "m_WriteUpgradeWebapiToLocal", P::kEnd, "] fail!"},  // opening or writing
      {T::kResultFailed, "m_RenameFile", P::kStart, "rename["},
      {T::kResultFailed, "m_CreateDirectory", P::kWithin, "] failed to create!"},
      {T::kResultFailed, "m_IsFileSymbolLink", P::kEnd, "] fail"},  // lstat
      {T::kResultFailed, "m_IsFileSymbolLink", P::kEnd, "there's security risk!"},
      {T::kClearedDb, "m_RewriteJson", P::kWhole, "update fail!clear DB for next boot"},
      {T::kKeptRecords, "m_RewriteJson", P::kWhole,
       "update fail!records kept, the result file is written again at the next call"},
      {T::kRecordsUnreadable, "m_RewriteJson", P::kWhole, "records unreadable, result file left as it is"},
      {T::kStaleResult, "m_ResultMatchesRecords", P::kWhole, "result file differs from the records, rewrite it"},
      // clang-format on
  };
  return patterns;
}

bool LogPattern::Fits(const std::string& line) const {
  const std::size_t length = std::strlen(text);
  switch (where) {
    case kWhole:
      return line == text;
    case kStart:
      return line.compare(0, length, text) == 0;
    case kEnd:
      return line.size() >= length && line.compare(line.size() - length, length, text) == 0;
    case kWithin:
      return line.find(text) != std::string::npos;
  }
  return false;
}

const LogPattern* LogEntry::Match(LogText id) const {
  for (const LogPattern& pattern : LogPatterns()) {
    if (pattern.id != id || (*pattern.function != '\0' && function != pattern.function)) continue;
    if (pattern.Fits(message)) return &pattern;
  }
  return nullptr;
}

bool LogEntry::Says(LogText text) const { return Match(text) != nullptr; }

bool LogEntry::From(LogText text) const {
  for (const LogPattern& pattern : LogPatterns()) {
    if (pattern.id == text) return function == pattern.function;
  }
  return false;
}

std::size_t LogEntry::Position(const LogPattern& pattern) const {
  switch (pattern.where) {
    case LogPattern::kWithin:
      return message.find(pattern.text);
    case LogPattern::kEnd:
      return message.size() - std::strlen(pattern.text);
    default:
      return 0;
  }
}

std::string LogEntry::After(LogText text) const {
  const LogPattern* mark = Match(text);
  if (mark == nullptr) return "";
  const std::size_t length = std::strlen(mark->text);
  std::string field = message.substr(Position(*mark) + length);
  if (mark->text[length - 1] == '[' && !field.empty() && field.back() == ']') field.pop_back();
  return field;
}

std::string LogEntry::Before(LogText text) const {
  const LogPattern* mark = Match(text);
  if (mark == nullptr) return "";
  std::string field = message.substr(0, Position(*mark));
  if (mark->text[0] == ']' && !field.empty() && field.front() == '[') field.erase(0, 1);
  return field;
}

std::string LogEntry::Between(LogText open, LogText close) const {
  const LogPattern* start = Match(open);
  const LogPattern* end = Match(close);
  if (start == nullptr || end == nullptr) return "";
  const std::size_t from = Position(*start) + std::strlen(start->text);
  const std::size_t to = message.find(end->text, from);
  return message.substr(from, to == std::string::npos ? std::string::npos : to - from);
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
