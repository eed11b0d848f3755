// The version database on real SQLite files in the sandbox: records, the open check and its recovery,
// the backup copy, and failures provoked through SQLite's own hooks.
#include <gmock/gmock.h>
#include <sqlite3.h>
#include <unistd.h>

#include <functional>
#include <tuple>

#include "VersionSqliteDB.h"
#include "log_capture.h"
#include "sandbox.h"

using namespace wup_test;
using ::testing::ElementsAre;
using ::testing::IsSupersetOf;
using Lines = std::vector<std::string>;

namespace {

// The product's paths are built while the program loads; they are read only once tests run.
std::string Main() { return VERSION_DB; }
std::string Backup() { return VERSION_DB_BAKUP; }
const std::string kGarbage(4096, 'x');
const char kBroken[] =
    ".AppBinaryManager.db is broken! Recover .AppBinaryManager.db from .AppBinaryManager_Backup.db\n";

// Runs SQL on a file behind the product's back; returns the first column of each row, one a line.
std::string Sql(const std::string& path, const char* sql) {
  sqlite3* db = nullptr;
  sqlite3_open(path.c_str(), &db);
  std::string rows;
  auto collect = [](void* out, int, char** values, char**) {
    *static_cast<std::string*>(out) += std::string(values[0] ? values[0] : "NULL") + "\n";
    return 0;
  };
  EXPECT_EQ(sqlite3_exec(db, sql, collect, &rows, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
  sqlite3_close(db);
  return rows;
}

_PluginData Record(const std::string& name, const std::string& version) {
  return {name,
          version,
          "/opt/usr/apps/" + name,
          "com.korvane.tv.xwalk." + name,
          "tizen.a,tizen.b",
          XWALK_PLUGIN,
          1,
          INSTALLED_BOTH_RO_RW,
          "app'one,app2",
          "/usr/apps/" + name};
}

auto Fields(const _PluginData& r) {
  return std::tie(r.name, r.version, r.path, r.pkgid, r.entryPoints, r.pluginType, r.hasForceMetaData,
                  r.isUpdate, r.appWhiteList, r.systemPath);
}

Lines Names(const PluginDataMap& map) {
  Lines names;
  for (const auto& entry : map) names.push_back(entry.first);
  return names;
}

// Runs on every connection this process opens (SQLite's automatic extension); set per test.
std::function<int(sqlite3*)> g_onOpen;
int OnOpen(sqlite3* db, char**, const sqlite3_api_routines*) { return g_onOpen ? g_onOpen(db) : SQLITE_OK; }

class VersionDbTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Device().Reset();
    sqlite3_auto_extension(reinterpret_cast<void (*)()>(OnOpen));
    fds_ = CountOpenFds();
  }
  void TearDown() override {
    sqlite3_reset_auto_extension();
    g_onOpen = nullptr;
    EXPECT_EQ(CountOpenFds(), fds_) << "descriptor leaked";
  }
  // A main file and an equal backup, holding the one record "kept".
  void StoreKept() {
    _PluginData kept = Record("kept", "1.0");
    ASSERT_TRUE(db_.InsertPluginData(kept));
    ClearLog();
  }
  Lines List() {
    PluginDataMap map;
    EXPECT_TRUE(db_.GetPluginList(map));
    return Names(map);
  }

  VersionSqliteDB db_;
  int fds_ = 0;
};

TEST_F(VersionDbTest, RecordsAreReplacedByNameKeptIntactAndDeleted) {
  _PluginData quoted = Record("it's", "1.0"), other = Record("other", "1.0");
  ASSERT_TRUE(db_.InsertPluginData(quoted));
  ASSERT_TRUE(db_.InsertPluginData(other));
  quoted.version = "2.0";
  ASSERT_TRUE(db_.InsertPluginData(quoted));
  Sql(Main(), "insert into pluginTable(name, pluginType) values('bare', 2)");
  PluginDataMap map{{"other", Record("other", "stale")}};
  ASSERT_TRUE(db_.GetPluginList(map));
  EXPECT_THAT(Names(map), ElementsAre("bare", "it's", "other"));
  EXPECT_EQ(Fields(map["it's"]), Fields(quoted));
  EXPECT_EQ(map["other"].version, "stale") << "an entry already in the map is kept";
  _PluginData bare;
  bare.name = "bare";
  bare.pluginType = B2B_PEPPER_PLUGIN;
  EXPECT_EQ(Fields(map["bare"]), Fields(bare)) << "NULL text reads as empty";

  EXPECT_TRUE(db_.DeletePluginData("it's"));
  EXPECT_TRUE(db_.DeletePluginData("never stored"));
  EXPECT_THAT(List(), ElementsAre("bare", "other"));
  EXPECT_TRUE(db_.DeleteDBRecord("ignored", true, strPLUGIN_TABLE));
  EXPECT_THAT(List(), ElementsAre());
  EXPECT_EQ(ReadFile(Backup()), ReadFile(Main())) << "backup refreshed after every write";
  EXPECT_THAT(
      LogMessages(),
      IsSupersetOf(Lines{"insert sql:[insert or replace into pluginTable values('it''s','2.0',"
                         "'/opt/usr/apps/it''s','com.korvane.tv.xwalk.it''s','tizen.a,tizen.b',0,1,2,"
                         "'app''one,app2','/usr/apps/it''s')]",
                         "Current remove sql is [delete from pluginTable where name='it''s']",
                         "Current remove sql is [delete from 'pluginTable']", "remove successfully"}));
  EXPECT_EQ(
      Sql(Main(), "select sql from sqlite_master where type = 'table' order by name"),
      "CREATE TABLE pluginTable(name TEXT PRIMARY KEY, version TEXT, path TEXT, pkgid\tTEXT, entryPoints "
      "TEXT, pluginType INTEGER, hasForceMetaData INTEGER, isUpdate INTEGER, appWhiteList TEXT, "
      "systemPath TEXT)\nCREATE TABLE versionTable(name TEXT PRIMARY KEY, version TEXT, size TEXT)\n");
}

std::string Summary(int integrity, int version, int plugin) {
  return "valid check failed, integrity_verify[" + std::to_string(integrity) + "], version table check[" +
         std::to_string(version) + "], plugin table check[" + std::to_string(plugin) + "]";
}

// Ways for the main file to go bad, each with what its check reports.
struct Damage {
  const char* name;
  void (*apply)();
  Lines (*reported)();
};
const Damage kDamages[] = {
    {"Missing", [] { unlink(VERSION_DB); }, [] { return Lines{"Database " + Main() + " is not exist"}; }},
    {"Empty", [] { WriteFile(Main(), ""); }, [] { return Lines{"database " + Main() + "'s size is 0"}; }},
    {"Garbage", [] { WriteFile(Main(), kGarbage); },
     [] {
       return Lines{"valid check, dbPath : [" + Main() + "], PRAGMA integrity_check error: [26]",
                    Summary(0, 0, 0)};
     }},
    {"NoVersionTable", [] { Sql(Main(), "drop table versionTable"); },
     [] {
       return Lines{Main() + " DB : table check end", Summary(1, 0, 1)};
     }},
    {"NoPluginTable", [] { Sql(Main(), "drop table pluginTable"); },
     [] {
       return Lines{Main() + " DB : table check end", Summary(1, 1, 0)};
     }},
    // Opens and lists both tables, but its integrity check finds pages that nothing uses.
    {"OrphanedIndexPages",
     [] {
       Sql(Main(),
           "create table t(a); create index i on t(a); insert into t values(1),(2);"
           "PRAGMA writable_schema=ON; delete from sqlite_master where name='i'");
     },
     [] {
       return Lines{"database integrity_check failed with error 101!", Summary(0, 0, 0)};
     }},
};

class OpenCheckTest : public VersionDbTest, public ::testing::WithParamInterface<std::tuple<Damage, bool>> {};

TEST_P(OpenCheckTest, DamagedMainIsRestoredFromAGoodBackupOrRecreatedEmpty) {
  const auto [damage, backupValid] = GetParam();
  StoreKept();
  damage.apply();
  if (!backupValid) WriteFile(Backup(), kGarbage);
  ClearLog();
  ASSERT_TRUE(db_.m_openDBCheck());
  EXPECT_THAT(LogMessages(), IsSupersetOf(damage.reported()));
  EXPECT_FALSE(LogHas("db valid check pass"));
  EXPECT_EQ(LogHas("db and backup db are not valid, now create db"), !backupValid);
  EXPECT_EQ(ReadFile(Backup()), ReadFile(Main()));
  EXPECT_EQ(List(), backupValid ? Lines{"kept"} : Lines{});
  EXPECT_TRUE(LogHas("db valid check pass"));
}

INSTANTIATE_TEST_SUITE_P(Damages, OpenCheckTest,
                         ::testing::Combine(::testing::ValuesIn(kDamages), ::testing::Bool()),
                         [](const auto& info) {
                           return std::get<0>(info.param).name +
                                  std::string(std::get<1>(info.param) ? "_GoodBackup" : "_BadBackup");
                         });

TEST_F(VersionDbTest, FailuresAreLoggedAndReportedFalse) {
  StoreKept();
  Sql(Main(), "insert into pluginTable(name) values('unsaved')");  // the main file runs ahead of its backup
  EXPECT_FALSE(db_.DeleteDBRecord("", true, "noSuchTable"));
  EXPECT_THAT(List(), ElementsAre("kept")) << "restored from the backup";

  // A directory passes for present and non-empty, but no connection works on it.
  unlink(VERSION_DB);
  MakeDirs(Main());
  _PluginData record = Record("new", "1");
  EXPECT_FALSE(db_.InsertPluginData(record));
  PluginDataMap map;
  EXPECT_FALSE(db_.GetPluginList(map));
  sqlite3* handle = nullptr;
  EXPECT_FALSE(db_.m_recoverDBExecute(handle, "select 1"));
  sqlite3_close(handle);

  RemoveTree(Device().db);
  EXPECT_FALSE(db_.GetPluginList(map));
  EXPECT_THAT(
      LogMessages(),
      IsSupersetOf(Lines{
          "[delete from 'noSuchTable'] failed! ret = [1],error msg = [no such table: noSuchTable]\n", kBroken,
          // the abandoned connection still holds its transaction's lock while the statement is retried
          "delete from 'noSuchTable' failed:[5, database is locked]\n", "remove fail!!",
          "database  " + Main() + " open failed! return [14]\n", "insert into pluginTable fail!!",
          "database " + Main() + " open failed! return [10]\n", "get plugin list fail",
          "Open .AppBinaryManager.db fail again. return 14\n",
          "Create [" + Main() + "] failed! return [14]\n", "db valid check fail"}));

  // Checking the backup, the open failure still names the main file.
  MakeDirs(Backup());
  ClearLog();
  EXPECT_FALSE(db_.m_validCheck(VERSION_DB_BAKUP));
  EXPECT_THAT(LogMessages(), ElementsAre("Failed to open database [" + Main() + "], errcode [14].\n"));
}

TEST_F(VersionDbTest, BackupCopyRefusesLinksAndTruncatesBeforeTheSizeTest) {
  const std::string target = Device().root + "/precious", source = Device().root + "/source",
                    dest = Device().root + "/dest";
  WriteFile(target, "precious");
  ASSERT_EQ(symlink(target.c_str(), VERSION_DB_BAKUP), 0);
  _PluginData record = Record("a", "1");
  EXPECT_TRUE(db_.InsertPluginData(record));
  EXPECT_TRUE(LogHas("path [" + Backup() + "] is a symb link! there's security risk!"));
  EXPECT_EQ(ReadFile(target), "precious");

  WriteFile(source, "");
  WriteFile(dest, "older copy");
  ClearLog();
  EXPECT_FALSE(db_.m_versionCpBakUp(source.c_str(), dest.c_str()));
  EXPECT_TRUE(PathExists(dest));
  EXPECT_EQ(ReadFile(dest), "");
  WriteFile(source, std::string("a\0b", 3));
  EXPECT_TRUE(db_.m_versionCpBakUp(source.c_str(), dest.c_str()));
  EXPECT_EQ(ReadFile(dest), std::string("a\0b", 3));
  EXPECT_FALSE(db_.m_versionCpBakUp(nullptr, dest.c_str()));
  EXPECT_THAT(LogMessages(),
              ElementsAre("Backup versionDB.\n", "The copy Size is [0], invalid!\n", "Backup versionDB.\n",
                          "The copy Size is [3]\n", "Backup versionDB.\n",
                          "source [(null)] or Dest [" + dest + "] path is NULL! .\n"));
}

TEST_F(VersionDbTest, FailedCommitStillCountsAsWrittenAndRefreshesTheBackup) {
  StoreKept();
  WriteFile(Backup(), kGarbage);
  g_onOpen = [](sqlite3* db) {
    sqlite3_commit_hook(
        db, [](void*) { return 1; }, nullptr);
    return SQLITE_OK;
  };
  _PluginData record = Record("new", "1");
  EXPECT_TRUE(db_.InsertPluginData(record));
  EXPECT_THAT(LogMessages(), IsSupersetOf(Lines{"Database write COMMIT failed, ret = 19, constraint failed\n",
                                                "insert into pluginTable successfully"}));
  EXPECT_EQ(ReadFile(Backup()), ReadFile(Main()));
  g_onOpen = nullptr;
  EXPECT_THAT(List(), ElementsAre("kept")) << "the refused commit rolled the write back";
}

TEST_F(VersionDbTest, ReadRecoversFromDamageAfterItsCheckOrFailsCleanly) {
  StoreKept();
  // Damage strikes between the check and the read, on the first read-only open; `failOpen` refuses one.
  int readOpens = 0, failOpen = -1;
  g_onOpen = [&](sqlite3* db) {
    if (sqlite3_db_readonly(db, "main") != 1) return SQLITE_OK;
    if (readOpens == failOpen) return SQLITE_CANTOPEN;
    if (readOpens++ == 0) WriteFile(Main(), kGarbage);
    return SQLITE_OK;
  };
  EXPECT_THAT(List(), ElementsAre("kept"));
  EXPECT_TRUE(LogHas(kBroken));
  PluginDataMap map;
  readOpens = 0, failOpen = 1;
  EXPECT_FALSE(db_.GetPluginList(map));
  EXPECT_TRUE(LogHas("Open .AppBinaryManager.db fail again. return 14\n"));
  readOpens = 0, failOpen = -1;
  WriteFile(Backup(), kGarbage);
  EXPECT_FALSE(db_.GetPluginList(map));
  EXPECT_TRUE(LogHas("build prepare object fail again : 26"));
  char missingTable[] = "select * from noSuchTable;";
  EXPECT_FALSE(db_.m_getPluginDataFromPluginTable(missingTable, map));
  EXPECT_TRUE(LogHas("prepare object fail : 1"));
  EXPECT_TRUE(map.empty());
}

}  // namespace
