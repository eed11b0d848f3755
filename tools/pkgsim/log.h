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

// The plug-in's messages that pkgsim reads, and the marks inside them that its fields sit between.
enum class LogText {
  // its database
  kBusy,
  kDbPassed,
  kDbCreated,
  kDbMissing,
  kDbEmpty,
  kDbUnopened,
  kDbIntegrity,
  kDbTablesUnlisted,
  kDbInvalid,
  kDbInvalidTables,  // ends the integrity verdict of kDbInvalid
  kBackupCopy,
  kCopyTruncated,
  kStatementRecovered,
  kOtherColumns,        // hardened: a plug-in table of another shape counts as damaged
  kBusyGaveUp,          // hardened: the open check leaves both files and gives up
  kBusyNothingWritten,  // hardened: a write gives up
  kCopyIncomplete,      // hardened: a copy that leaves its destination as it was; "copy of [" SOURCE
  kCopyIncompleteTo,    // "] to [" DEST
  kCopyIncompleteEnd,   // "] not completed, ["
  // the package and the handler's decision
  kNoMetadata,
  kNoMetadataEnd,
  kMetadataKey,
  kMetadataValue,
  kTypeFailed,
  kTypeIs,
  kInvalidPkgid,
  kNameFailed,
  kPluginName,
  kVersionUnread,
  kEmptyParams,
  kTpkVersion,
  kLocalVersion,
  kSameVersion,
  kRootPath,
  kInstalledRo,
  kInstalledRw,
  kInstalledBoth,
  kWalkPath,
  kWalkFile,
  kFileUnopened,
  kFileError,
  kFileNotArray,
  kFileBadElement,
  kXwalkInfoFailed,
  kInsertedListFailed,
  kInserted,
  kInsertedVersion,
  kInsertFailed,
  kCheckFailed,
  kRemoveFailed,
  kHandlingPackage,   // the call's own package, after any rebuild
  kStoredInOneWrite,  // hardened: all records of a package in one write
  kStoredInOneWriteEnd,
  kNoneStored,
  kNoneStoredEnd,
  kPackageRecordsRemoved,  // hardened: the uninstall removes by package id
  // hardened: records rebuilt from the installed packages after both database files were lost
  kRecordsLost,
  kPackagesUnlisted,
  kRebuilt,
  kRebuiltVersion,
  // the result file and the applications it names
  kAllowListUnused,
  kPublished,
  kPublishedApp,
  kForegroundUnknown,
  kForeground,
  kTerminated,
  kTerminateFailed,
  kResultFailed,
  kClearedDb,
  kKeptRecords,        // hardened: a failed result write keeps the records
  kRecordsUnreadable,  // hardened: the result file stays as it is
  kStaleResult,        // hardened: the result file differs from the records
};

// One of them: a literal part of the format string that the plug-in logs it with, where in the message
// that part stands, and the function that logs it (the function named by the line's prefix). A text
// that several functions log has an entry for each; one that is the same in all of them names none.
struct LogPattern {
  enum Where { kWhole, kStart, kEnd, kWithin };
  LogText id;
  const char* function;  // "" for any
  Where where;
  const char* text;

  // The text stands where the pattern says in `line` (a message, or a format string of the plug-in).
  bool Fits(const std::string& line) const;
};

// Every text that pkgsim reads in the plug-in's log; nothing else in pkgsim knows one.
const std::vector<LogPattern>& LogPatterns();

struct LogEntry {
  int pid = 0;
  std::string file;  // the plug-in's source file, function and line, when the message carries them
  std::string function;
  std::string message;  // what follows "FILE: FUNCTION(LINE) > ", continuation lines joined by '\n'
  std::vector<std::string> lines;  // the entry as written, first line included

  // The entry is `text`, from a function that logs it.
  bool Says(LogText text) const;
  // The entry comes from the function that logs `text`.
  bool From(LogText text) const;
  // The field after the mark `text` up to the end of the message, without the ']' that closes it when
  // the mark ends with '['; "" when the mark is not in the message.
  std::string After(LogText text) const;
  // The field before the mark `text`, without the '[' that opens it when the mark starts with ']'.
  std::string Before(LogText text) const;
  // The field between the marks `open` and `close`.
  std::string Between(LogText open, LogText close) const;

 private:
  const LogPattern* Match(LogText text) const;  // the entry of the table for `text` that this one fits
  std::size_t Position(const LogPattern& pattern) const;  // where its text stands in the message
};

using Log = std::vector<LogEntry>;

// The entries that process `pid` wrote to the log at `path` from byte `offset` on. Other processes
// may share the log; their entries are left out.
Log ReadLog(const std::string& path, off_t offset, int pid);

// The entries as written, indented, continuation lines deeper than first lines.
void PrintLog(const Log& log, std::ostream& out);

}  // namespace pkgsim

#endif  // PKGSIM_LOG_H_
