#include "VersionSqliteDB.h"

// The database paths exist once, exported, so that tools can name the same files as the plug-in.
const std::string strTZ_SYS_DB = tzplatform_getenv(TZ_SYS_DB);
const std::string strVERSION_DB = strTZ_SYS_DB + "/.AppBinaryManager.db";
const std::string strVERSION_DB_BAKUP = strTZ_SYS_DB + "/.AppBinaryManager_Backup.db";
const char* VERSION_DB = strVERSION_DB.c_str();
const char* VERSION_DB_BAKUP = strVERSION_DB_BAKUP.c_str();
