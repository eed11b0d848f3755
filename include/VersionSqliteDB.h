// VersionSqliteDB: the plug-in version database, one SQLite file (VERSION_DB) with a whole-file backup
// beside it (VERSION_DB_BAKUP). Every read and write first checks the main file (present, non-empty,
// integrity "ok", both tables) and restores it from the backup, or creates it afresh, when it is bad;
// every write runs in an exclusive transaction and is followed by a fresh backup copy.
//
// The object holds no state: no connection outlives one call. Failures are logged and reported as
// false; a few are reported as success on purpose (a failed COMMIT, a failed backup refresh).
#ifndef WEBAPI_UPGRADE_PLUGIN_VERSION_SQLITE_DB_H_
#define WEBAPI_UPGRADE_PLUGIN_VERSION_SQLITE_DB_H_

#include <string>

#include "PluginCommon.h"

struct sqlite3;

// SQLite busy handler: waits 50 ms up to five times per blocked call, then gives up.
int callback_db(void* arg, int count);

class VersionSqliteDB {
 public:
  VersionSqliteDB();
  ~VersionSqliteDB();

  // Record operations.
  bool InsertPluginData(_PluginData& record);
  bool DeletePluginData(const std::string& name);
  // With `all` true every row of `table` goes and `name` is ignored.
  bool DeleteDBRecord(const std::string& name, bool all, const std::string& table);
  // Adds every row of the plug-in table to `map`, keeping entries already there.
  bool GetPluginList(PluginDataMap& map);

  // Steps of the operations above, public so that each can be driven on its own.
  bool m_getPluginDataFromPluginTable(char* sql, PluginDataMap& map);
  bool m_openDBCheck();
  bool m_validCheck(const char* path);
  bool m_createDataBase(const char* path);
  bool m_versionCpBakUp(const char* source, const char* dest);
  // Closes the failed connection in `db` first (rolling back its transaction), then restores the main
  // file and leaves in `db` the connection it opened, if any, which the caller closes.
  bool m_recoverDBExecute(sqlite3*& db, const char* sql);
  bool m_modifyTable(char* sql);
};

#endif  // WEBAPI_UPGRADE_PLUGIN_VERSION_SQLITE_DB_H_
