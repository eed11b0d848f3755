// DBUtil: the package handler's door to the version database. It forwards to the process-wide
// VersionSqliteDB and keeps the update flag: set by every successful insert or single removal, cleared
// only by SetIsUpdate(false) once the result file has been rewritten.
#ifndef WEBAPI_UPGRADE_PLUGIN_DB_UTIL_H_
#define WEBAPI_UPGRADE_PLUGIN_DB_UTIL_H_

#include <string>

#include "PluginCommon.h"

class VersionSqliteDB;

class DBUtil {
 public:
  DBUtil();
  // Destroys the shared VersionSqliteDB as well; a later user gets a new one through the singleton.
  ~DBUtil();

  bool IsUpdate();
  void SetIsUpdate(bool isUpdate);

  // Empties `map`, then fills it with every record of the plug-in table.
  bool GetPluginListFromDB(PluginDataMap& map);
  bool InsertPluginDataToDB(_PluginData& record);
  // All records of one package in one write; sets the update flag when it succeeds.
  bool InsertPluginDataListToDB(PluginDataMap& records);
  bool RemovePluginDataFromDB(const std::string& name);
  // Empties the plug-in table; the update flag is left as it is.
  bool RemoveAllPluginDataFromDB();
  // See VersionSqliteDB::TakeRecordsLost.
  bool TakeRecordsLost();

 private:
  VersionSqliteDB* m_db;
  bool m_isUpdate;
};

#endif  // WEBAPI_UPGRADE_PLUGIN_DB_UTIL_H_
