// VersionSqliteDB: the plug-in version database, one SQLite file (VERSION_DB) with a whole-file backup
// beside it (VERSION_DB_BAKUP). Every read and write first checks the main file (present, non-empty,
// integrity "ok", both tables) and restores it from the backup, or creates it afresh, when it is bad;
// every write runs in an exclusive transaction and is followed by a fresh backup copy.
//
// No connection outlives one call. The only state is a fact for the hardened build: that the open check
// had to start an empty database, until the package handler takes it to rebuild the records. Failures are
// logged and reported as false; a few are reported as success on purpose (a failed COMMIT, a failed backup
// refresh in the default build).
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
  // Stores every record of `records` in one guarded write: all of them, or none when it fails.
  bool InsertPluginDataList(PluginDataMap& records);
  bool DeletePluginData(const std::string& name);
  // Removes every record that package `pkgid` brought.
  bool DeletePackageData(const std::string& pkgid);
  // With `all` true every row of `table` goes and `name` is ignored.
  bool DeleteDBRecord(const std::string& name, bool all, const std::string& table);
  // Adds every row of the plug-in table to `map`, keeping entries already there.
  bool GetPluginList(PluginDataMap& map);
  // True once after the open check started an empty database because both files were damaged (hardened
  // build only; the default build never reports it).
  bool TakeRecordsLost();

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

 private:
  bool m_recordsLost = false;
};

#endif  // WEBAPI_UPGRADE_PLUGIN_VERSION_SQLITE_DB_H_
