#include "DBUtil.h"

#include "VersionSqliteDB.h"

DBUtil::DBUtil() : m_db(CSingleton<VersionSqliteDB>::GetInstance()), m_isUpdate(false) {}

DBUtil::~DBUtil() {
  if (m_db != nullptr) CSingleton<VersionSqliteDB>::DestroyInstance();
}

bool DBUtil::IsUpdate() { return m_isUpdate; }

void DBUtil::SetIsUpdate(bool isUpdate) { m_isUpdate = isUpdate; }

bool DBUtil::GetPluginListFromDB(PluginDataMap& map) {
  PLUGIN_LOG("GetPluginListFromDB");
  map.clear();
  return m_db->GetPluginList(map);
}

bool DBUtil::InsertPluginDataToDB(_PluginData& record) {
  const bool inserted = m_db->InsertPluginData(record);
  if (inserted) m_isUpdate = true;
  return inserted;
}

bool DBUtil::InsertPluginDataListToDB(PluginDataMap& records) {
  const bool inserted = m_db->InsertPluginDataList(records);
  if (inserted && !records.empty()) m_isUpdate = true;
  return inserted;
}

bool DBUtil::RemovePluginDataFromDB(const std::string& name) {
  const bool removed = m_db->DeletePluginData(name);
  if (removed) m_isUpdate = true;
  return removed;
}

// Emptying the table ahead of a rewrite is not a change that calls for one.
bool DBUtil::RemoveAllPluginDataFromDB() { return m_db->DeleteDBRecord("", true, strPLUGIN_TABLE); }

bool DBUtil::TakeRecordsLost() { return m_db->TakeRecordsLost(); }
