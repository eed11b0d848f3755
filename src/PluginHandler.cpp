#include "PluginHandler.h"

#include "DBUtil.h"
#include "PluginDataUtil.h"
#include "PluginPolicy.h"
#include "VersionSqliteDB.h"
#include "WebapisUtil.h"

PluginHandler::PluginHandler() {
  m_pluginMap.clear();
  PLUGIN_LOG("PluginHandler::PluginHandler()");
  PLUGIN_LOG("GetPluginListFromDB");
  CSingleton<DBUtil>::GetInstance()->GetPluginListFromDB(m_pluginMap);
}

PluginHandler::~PluginHandler() = default;

// A null id is not tested for: the string constructor throws, and the exception leaves the plug-in.
void PluginHandler::HandleSingleTpk(const char* pkgid) {
  std::string id(pkgid);
  // The package at hand is left to the steps below, which store it once whatever the rebuild found.
  if constexpr (kPluginPolicy.rebuildLostRecords) m_RebuildLostRecords(id);
  std::string version = strDEFAULT_VERSION;
  // An unreadable version leaves "0.0.0", which a plug-in not yet recorded also has: nothing is stored.
  CSingleton<PluginDataUtil>::GetInstance()->GetTPKVersionByID(id, version);
  PLUGIN_LOG("pkgid = [%s], version = [%s]", id.c_str(), version.c_str());

  if (!m_checkTpk(id, version)) {
    PLUGIN_LOG("check[%s]fail", id.c_str());
    return;
  }
  // The write may have found both files damaged: the records are rebuilt before this process can end, since
  // nothing but this process knows that they were lost.
  if constexpr (kPluginPolicy.rebuildLostRecords) m_RebuildLostRecords("");
  // A missing result file is rebuilt even when nothing changed, so the web runtime always finds one.
  if (CSingleton<DBUtil>::GetInstance()->IsUpdate() ||
      !CSingleton<WebapisUtil>::GetInstance()->CheckUpgradeResultExist()) {
    m_RewriteJson();
  } else if constexpr (kPluginPolicy.rewriteStaleResult) {
    // The update flag lives in memory: a process that died between the commit and the rename took the
    // pending rewrite with it, and only a comparison with the records can tell.
    if (!m_ResultMatchesRecords()) m_RewriteJson();
  }
}

bool PluginHandler::m_checkTpk(std::string& pkgid, std::string& tpkVersion) {
  if (pkgid.empty() || tpkVersion.empty()) {
    PLUGIN_LOG("empty params");
    return false;
  }
  PluginDataUtil* dataUtil = CSingleton<PluginDataUtil>::GetInstance();
  PLUGIN_TYPE type = dataUtil->GetPluginType(pkgid);
  if (type == UNKNOWN_PLUGIN) return false;
  std::string name;
  if (!dataUtil->GetPluginNameByID(pkgid, name)) return false;

  std::string localVersion = strDEFAULT_VERSION;
  const auto recorded = m_pluginMap.find(name);
  if (recorded != m_pluginMap.end()) localVersion = recorded->second.version;
  PLUGIN_LOG("tpkVersion[%s], localVersion[%s]", tpkVersion.c_str(), localVersion.c_str());

  // Versions are not ordered: any difference, a downgrade as much as an upgrade, is stored.
  const bool needInsert = tpkVersion != localVersion;
  if (!needInsert) PLUGIN_LOG("tpkVersion == localVersion");

  PluginDataMap inserted;
  if (!dataUtil->MakeInsertedMap(pkgid, name, type, inserted)) {
    PLUGIN_LOG("Get the inserted list fail");
    return false;
  }
  if (!needInsert) {
    PLUGIN_LOG("no need insert");
    return true;
  }

  std::string whiteList;
  dataUtil->CheckTPKofAppWhiteList(pkgid, whiteList);
  DBUtil* db = CSingleton<DBUtil>::GetInstance();
  for (auto& entry : inserted) {
    _PluginData& record = entry.second;
    record.version = tpkVersion;
    record.pkgid = pkgid;
    record.hasForceMetaData = 0;  // the package's force-update metadata is not honoured on this path
    record.appWhiteList = whiteList;
    // clang-format off
    PLUGIN_LOG("insert new data:name[%s]version[%s]path[%s]pkgid[%s]entrypoints[%s]pluginType[%d]hasForceMetadata[%d]isupdate[%d]appWhiteList[%s]systempath=[%s]",
        record.name.c_str(), record.version.c_str(), record.path.c_str(), record.pkgid.c_str(),
        record.entryPoints.c_str(), record.pluginType, record.hasForceMetaData, record.isUpdate,
        record.appWhiteList.c_str(), record.systemPath.c_str());
    // clang-format on
    if constexpr (!kPluginPolicy.packageInOneTransaction) {
      db->InsertPluginDataToDB(record);  // a failed insert does not stop the others
    }
  }
  if constexpr (kPluginPolicy.packageInOneTransaction) db->InsertPluginDataListToDB(inserted);
  return true;
}

// The records go straight through the database object: the update flag is not involved, so the result
// file is rebuilt whatever it says.
void PluginHandler::RemoveTpk(const char* pkgid) {
  std::string id(pkgid);
  if constexpr (kPluginPolicy.rebuildLostRecords) m_RebuildLostRecords(id);
  std::string name;
  if (!CSingleton<PluginDataUtil>::GetInstance()->GetPluginNameByID(id, name)) {
    PLUGIN_LOG("get tpk name fail");
    return;
  }
  if (!m_RemovePackageRecords(id, name)) {
    PLUGIN_LOG("remove DB record fail");
    return;
  }
  m_RewriteJson();
}

// The default build removes the one record named like the package, straight through the database object;
// an xwalk package's extensions with other names keep theirs. The hardened build removes every record
// that carries the package's id, and rebuilds the others at once when the removal found both files
// damaged: nothing but this process knows that they were lost.
bool PluginHandler::m_RemovePackageRecords(const std::string& pkgid, const std::string& name) {
  VersionSqliteDB* db = CSingleton<VersionSqliteDB>::GetInstance();
  if constexpr (kPluginPolicy.uninstallByPackageId) {
    const bool removed = db->DeletePackageData(pkgid);
    if (removed) m_RebuildLostRecords(pkgid);
    return removed;
  } else {
    return db->DeleteDBRecord(name, false, strPLUGIN_TABLE);
  }
}

bool PluginHandler::m_RewriteJson() {
  DBUtil* db = CSingleton<DBUtil>::GetInstance();
  const bool read = db->GetPluginListFromDB(m_pluginMap);
  if constexpr (kPluginPolicy.keepRecordsOnFailedWrite) {
    // Unread records would publish an empty list: the file stays as it is until they can be read.
    if (!read) {
      PLUGIN_LOG("records unreadable, result file left as it is");
      return false;
    }
  }
  if (CSingleton<WebapisUtil>::GetInstance()->SavePluginUpgradeResult(m_pluginMap)) {
    db->SetIsUpdate(false);
    return true;
  }
  if constexpr (kPluginPolicy.keepRecordsOnFailedWrite) {
    // The update flag stays set for this process, and the comparison with the records catches the
    // stale file in the next one.
    PLUGIN_LOG("update fail!records kept, the result file is written again at the next call");
    return false;
  }
  // With no records left, every plug-in package is compared against "0.0.0" and stored again when the
  // handler is next created, and the result file is rebuilt from them then.
  PLUGIN_LOG("update fail!clear DB for next boot");
  return db->RemoveAllPluginDataFromDB();
}

bool PluginHandler::m_ResultMatchesRecords() {
  PluginDataMap records;
  if (!CSingleton<DBUtil>::GetInstance()->GetPluginListFromDB(records)) return true;  // nothing to compare
  if (m_RebuildLostRecords("")) return false;  // the read found both files damaged
  if (CSingleton<WebapisUtil>::GetInstance()->CheckUpgradeResultMatches(records)) return true;
  PLUGIN_LOG("result file differs from the records, rewrite it");
  return false;
}

bool PluginHandler::m_RebuildLostRecords(const std::string& current) {
  DBUtil* db = CSingleton<DBUtil>::GetInstance();
  if (!db->TakeRecordsLost()) return false;
  PLUGIN_LOG("both database files were damaged: rebuild the records from the installed packages");
  PluginDataUtil* dataUtil = CSingleton<PluginDataUtil>::GetInstance();
  std::set<std::string> packages;
  if (!dataUtil->GetPackagesWithMetadata(strMETADATA_TYPE_KEY, packages)) return true;
  db->GetPluginListFromDB(m_pluginMap);  // empty now: every package compares with "0.0.0"
  for (std::string pkgid : packages) {
    if (pkgid == current) continue;
    std::string version = strDEFAULT_VERSION;
    dataUtil->GetTPKVersionByID(pkgid, version);
    PLUGIN_LOG("rebuild pkgid = [%s], version = [%s]", pkgid.c_str(), version.c_str());
    m_checkTpk(pkgid, version);
  }
  return true;
}
