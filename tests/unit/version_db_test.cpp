// The version database on real SQLite files in the sandbox: records, the open check and its recovery,
// the backup copy, failures provoked through SQLite's own hooks, another connection holding the database
// (those tests wait on purpose: the busy handler's waits, the check's one-second sleeps), and the facade.
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <thread>

#include "DBUtil.h"
#include "VersionSqliteDB.h"
#include "unit.h"

namespace {

using namespace wup_test;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsSupersetOf;

std::string Main() { return VERSION_DB; }
std::string Backup() { return VERSION_DB_BAKUP; }
const std::string kGarbage(4096, 'x');
const char kBroken[] =
    ".AppBinaryManager.db is broken! Recover .AppBinaryManager.db from .AppBinaryManager_Backup.db\n";

_PluginData Record(const std::string& name, const std::string& version) {
  // clang-format off
  return {name, version, "/opt/usr/apps/" + name, "com.korvane.tv.xwalk." + name, "tizen.a,tizen.b",
          XWALK_PLUGIN, 1, INSTALLED_BOTH_RO_RW, "app'one,app2", "/usr/apps/" + name};
  // clang-format on
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
  bool Insert(const std::string& name, const std::string& version = "1") {
    _PluginData record = Record(name, version);
    return db_.InsertPluginData(record);
  }
  // A main file and an equal backup, holding the one record "kept".
  void StoreKept() {
    ASSERT_TRUE(Insert("kept", "1.0"));
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
  Query(Main(), "insert into pluginTable(name, pluginType) values('bare', 2)");
  PluginDataMap map{{"other", Record("other", "stale")}};
  ASSERT_TRUE(db_.GetPluginList(map));
  EXPECT_THAT(Names(map), ElementsAre("bare", "it's", "other"));
  EXPECT_EQ(Text(map["it's"]), Text(quoted));
  EXPECT_EQ(map["other"].version, "stale") << "an entry already in the map is kept";
  EXPECT_EQ(Text(map["bare"]), "bare|||||2|0|0||") << "NULL reads as empty text, or 0";

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
  EXPECT_EQ(Query(Main(), "select sql from sqlite_master where type = 'table' order by name"),
            (Lines{hostkit::kPluginTableSchema, hostkit::kVersionTableSchema}));
}

// The function named in the prefix of the first line that logged `message`.
std::string LoggedBy(const std::string& message) {
  for (const std::string& line : LogLines()) {
    if (LogMessage(line) != message) continue;
    const size_t start = line.find(": ") + 2;
    return line.substr(start, line.find('(', start) - start);
  }
  return "(not logged)";
}

std::string Summary(int integrity, int version, int plugin) {
  return "valid check failed, integrity_verify[" + std::to_string(integrity) + "], version table check[" +
         std::to_string(version) + "], plugin table check[" + std::to_string(plugin) + "]";
}

TEST_F(VersionDbTest, DamagedMainIsRestoredFromAGoodBackupOrRecreatedEmpty) {
  // Ways for the main file to go bad, each with what its check reports.
  const std::string tablesChecked = Main() + " DB : table check end";
  const std::string notADatabase =
      "valid check, dbPath : [" + Main() + "], PRAGMA integrity_check error: [26]";
  const struct {
    const char* name;
    void (*apply)();
    Lines reported;
  } damages[] = {
      // clang-format off
      {"missing", [] { unlink(VERSION_DB); }, {"Database " + Main() + " is not exist"}},
      {"empty", [] { WriteFile(Main(), ""); }, {"database " + Main() + "'s size is 0"}},
      // Would block any open for reading until a writer came along, were it kept.
      {"FIFO", [] { RemoveTree(Main()); mkfifo(VERSION_DB, 0644); }, {"database " + Main() + "'s size is 0"}},
      {"garbage", [] { WriteFile(Main(), kGarbage); }, {notADatabase, Summary(0, 0, 0)}},
      {"no versionTable", [] { Query(Main(), "drop table versionTable"); }, {tablesChecked, Summary(1, 0, 1)}},
      {"no pluginTable", [] { Query(Main(), "drop table pluginTable"); }, {tablesChecked, Summary(1, 1, 0)}},
      // Opens and lists both tables, but its integrity check finds pages that nothing uses.
      {"orphaned index pages", [] { Query(Main(), "create table t(a); create index i on t(a); insert into t "
          "values(1),(2); PRAGMA writable_schema=ON; delete from sqlite_master where name='i'"); },
       {"database integrity_check failed with error 101!", Summary(0, 0, 0)}},
      // clang-format on
  };
  for (const auto& damage : damages) {
    for (bool backupValid : {true, false}) {
      SCOPED_TRACE(std::string(damage.name) + (backupValid ? ", good backup" : ", bad backup"));
      const Watchdog watchdog;
      Device().Reset();
      StoreKept();
      damage.apply();
      if (!backupValid) WriteFile(Backup(), kGarbage);
      ClearLog();
      ASSERT_TRUE(db_.m_openDBCheck());
      EXPECT_THAT(LogMessages(), IsSupersetOf(damage.reported));
      for (const std::string& line : damage.reported) EXPECT_EQ(LoggedBy(line), "m_validCheck") << line;
      EXPECT_FALSE(LogHas("db valid check pass"));
      EXPECT_EQ(LogHas("db and backup db are not valid, now create db"), !backupValid);
      EXPECT_EQ(ReadFile(Backup()), ReadFile(Main()));
      EXPECT_EQ(List(), backupValid ? Lines{"kept"} : Lines{});
      EXPECT_TRUE(LogHas("db valid check pass"));
    }
  }
}

TEST_F(VersionDbTest, FailuresAreLoggedAndReportedFalse) {
  StoreKept();
  Query(Main(), "insert into pluginTable(name) values('unsaved')");  // the main file runs ahead of its backup
  EXPECT_FALSE(db_.DeleteDBRecord("", true, "noSuchTable"));
  EXPECT_THAT(List(), ElementsAre("kept")) << "restored from the backup";

  // A directory passes for present and non-empty, but no connection works on it.
  unlink(VERSION_DB);
  MakeDirs(Main());
  EXPECT_FALSE(Insert("new"));
  PluginDataMap map;
  EXPECT_FALSE(db_.GetPluginList(map));
  sqlite3* handle = nullptr;
  EXPECT_FALSE(db_.m_recoverDBExecute(handle, "select 1"));
  sqlite3_close(handle);

  RemoveTree(Device().db);
  EXPECT_FALSE(db_.GetPluginList(map));
  EXPECT_THAT(LogMessages(),
              IsSupersetOf(Lines{
                  "[delete from 'noSuchTable'] failed! ret = [1],error msg = [no such table: noSuchTable]\n",
                  kBroken, "delete from 'noSuchTable' failed:[1, no such table: noSuchTable]\n",
                  "remove fail!!", "database  " + Main() + " open failed! return [14]\n",
                  "insert into pluginTable fail!!", "database " + Main() + " open failed! return [10]\n",
                  "get plugin list fail", "Open .AppBinaryManager.db fail again. return 14\n",
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
  EXPECT_TRUE(Insert("a"));
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
  // FIFOs never block: one as the source has no size, one as the destination is replaced by the copy.
  const std::string fifo = Device().root + "/fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0644), 0);
  {
    const Watchdog watchdog;
    EXPECT_FALSE(db_.m_versionCpBakUp(fifo.c_str(), dest.c_str()));
    EXPECT_TRUE(db_.m_versionCpBakUp(source.c_str(), fifo.c_str()));
  }
  EXPECT_EQ(ReadFile(fifo), std::string("a\0b", 3));
  EXPECT_THAT(
      LogMessages(),
      ElementsAre("Backup versionDB.\n", "The copy Size is [0], invalid!\n", "Backup versionDB.\n",
                  "The copy Size is [3]\n", "Backup versionDB.\n",
                  "source [(null)] or Dest [" + dest + "] path is NULL! .\n", "Backup versionDB.\n",
                  "The copy Size is [-1], invalid!\n", "Backup versionDB.\n", "The copy Size is [3]\n"));
}

TEST_F(VersionDbTest, AStatementRefusedInItsTransactionRunsAgainOnTheRestoredFile) {
  StoreKept();
  // The main file runs ahead of its backup by one record, and refuses inserts after touching a page:
  // the transaction has a journal when the statement fails.
  Query(Main(),
        "insert into pluginTable(name) values('unsaved');"
        "create trigger refuse before insert on pluginTable begin"
        " delete from versionTable; insert into versionTable values('x', 'y', 'z');"
        " select raise(abort, 'refused'); end");
  EXPECT_TRUE(Insert("new"));
  EXPECT_TRUE(LogHas(kBroken));
  EXPECT_FALSE(LogHas("insert into pluginTable fail!!"));
  // The failed transaction is rolled back before the backup is copied, so none of its pages, nor the
  // record the backup never had, come back over the restored file.
  EXPECT_THAT(List(), ElementsAre("kept", "new"));
  EXPECT_EQ(Query(Main(), "PRAGMA integrity_check"), Lines{"ok"});
  EXPECT_EQ(Query(Main(), "select count(*) from sqlite_master where type = 'trigger'"), Lines{"0"});
  EXPECT_EQ(ReadFile(Backup()), ReadFile(Main()));
}

TEST_F(VersionDbTest, FailedCommitStillCountsAsWrittenAndRefreshesTheBackup) {
  StoreKept();
  WriteFile(Backup(), kGarbage);
  g_onOpen = [](sqlite3* db) {
    sqlite3_commit_hook(
        db, [](void*) { return 1; }, nullptr);
    return SQLITE_OK;
  };
  EXPECT_TRUE(Insert("new"));
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

// Another connection that holds the main database under SQLite's exclusive lock, as a second user of the
// version database would: from when a connection of the product first steps `whenStepped` (at once when
// empty) until it is destroyed, or for `milliseconds` (released by a thread of its own).
class LockHolder {
 public:
  explicit LockHolder(const std::string& whenStepped = "", int milliseconds = 0)
      : sql_(whenStepped), milliseconds_(milliseconds) {
    if (sql_.empty())
      Take();
    else
      g_onOpen = [this](sqlite3* db) { return sqlite3_trace_v2(db, SQLITE_TRACE_STMT, Trace, this); };
  }
  ~LockHolder() { release_.joinable() ? release_.join() : Close(); }
  bool locked = false;

 private:
  static int Trace(unsigned, void* self, void* stmt, void*) {
    auto& holder = *static_cast<LockHolder*>(self);
    if (!holder.taken_ && holder.sql_ == sqlite3_sql(static_cast<sqlite3_stmt*>(stmt))) holder.Take();
    return 0;
  }
  void Take() {
    taken_ = true;  // its own statements are traced as well
    sqlite3_open_v2(VERSION_DB, &db_, SQLITE_OPEN_READWRITE, nullptr);
    locked = sqlite3_exec(db_, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr) == SQLITE_OK;
    if (milliseconds_ > 0) {
      release_ = std::thread([this] {
        usleep(milliseconds_ * 1000);
        Close();
      });
    }
  }
  void Close() { sqlite3_close(db_); }  // rolls the empty transaction back

  const std::string sql_;
  const int milliseconds_;
  bool taken_ = false;
  sqlite3* db_ = nullptr;
  std::thread release_;
};

// One blocked call: the busy handler waits five times and gives up; then what its caller logs.
void AddRound(Lines& lines, const Lines& then) {
  for (int count = 0; count < 5; ++count)
    lines.push_back("database is lock now,can not write/read.count is [" + std::to_string(count) + "]\n");
  lines.push_back("wait count is [5], not keep waiting..\n");
  lines.insert(lines.end(), then.begin(), then.end());
}

TEST_F(VersionDbTest, WriteAndReadGiveUpWhileAnotherConnectionHoldsTheDatabase) {
  StoreKept();
  {
    LockHolder holder;
    ASSERT_TRUE(holder.locked);
    EXPECT_FALSE(Insert("blocked"));
    PluginDataMap map;
    EXPECT_FALSE(db_.GetPluginList(map));
  }
  // The check cannot read the locked file and takes the backup instead; the write's own transaction waits
  // in vain, and recovery's retry has no busy handler to wait with. The read waits in vain as well.
  const std::string check = "valid check, dbPath : [" + Main() + "], PRAGMA integrity_check error: [5]";
  Lines expected;
  for (const Lines& then :
       {Lines{check},
        Lines{"begin a transaction fail, ret = 5, errormsg: database is locked", kBroken,
              "BEGIN EXCLUSIVE failed:[5, database is locked]\n", "insert into pluginTable fail!!"},
        Lines{check}, Lines{"prepare object fail : 5", "get plugin list fail"}})
    AddRound(expected, then);
  Lines log;
  for (const std::string& line : LogMessages())
    if (Has(expected, line)) log.push_back(line);
  EXPECT_THAT(log, ElementsAreArray(expected));
  EXPECT_TRUE(Insert("after")) << "usable again once the other connection is gone";
}

TEST_F(VersionDbTest, AWriteWaitsOutAShortLockOfAnotherConnection) {
  StoreKept();
  // Held for 100 ms, well within the busy handler's five waits of 50 ms.
  const LockHolder holder("BEGIN EXCLUSIVE", 100);
  EXPECT_TRUE(Insert("patient"));
  g_onOpen = nullptr;
  ASSERT_TRUE(holder.locked);
  EXPECT_TRUE(LogHas("database is lock now,can not write/read.count is [0]\n"));
  EXPECT_FALSE(LogHas(kBroken));
  EXPECT_THAT(List(), ElementsAre("kept", "patient"));
}

TEST_F(VersionDbTest, CheckSleepsThreeTimesInEachLoopWhileTheDatabaseIsBusyThenFails) {
  StoreKept();
  const std::pair<const char*, int> loops[] = {{"PRAGMA integrity_check;", 0},
                                               {"select name from sqlite_master where type = 'table';", 1}};
  for (const auto& [sql, integrity] : loops) {
    SCOPED_TRACE(sql);
    const LockHolder holder(sql);
    ClearLog();
    EXPECT_FALSE(db_.m_validCheck(VERSION_DB));
    g_onOpen = nullptr;
    ASSERT_TRUE(holder.locked);

    Lines expected = {"set DB busy"};
    for (int count = 0; count < 3; ++count)
      AddRound(expected, {"sqlite3 busy, wait 1 sec and try again. count is " + std::to_string(count)});
    expected.push_back(Summary(integrity, 0, 0));
    EXPECT_THAT(LogMessages(), ElementsAreArray(expected));
    EXPECT_EQ(LoggedBy("sqlite3 busy, wait 1 sec and try again. count is 2"), "m_validCheck");
    EXPECT_EQ(LoggedBy(Summary(integrity, 0, 0)), "m_validCheck");
  }
}

TEST_F(VersionDbTest, FacadeFlagFollowsSuccessfulChangesOnlyAndStartsAfreshWithANewFacade) {
  DBUtil& util = *CSingleton<DBUtil>::GetInstance();
  EXPECT_FALSE(util.IsUpdate());
  EXPECT_TRUE(util.RemoveAllPluginDataFromDB());
  EXPECT_FALSE(util.IsUpdate()) << "emptying the table is not an update";
  _PluginData record = Record("stored", "1");
  EXPECT_TRUE(util.InsertPluginDataToDB(record));
  EXPECT_TRUE(util.IsUpdate());
  util.SetIsUpdate(false);
  EXPECT_TRUE(util.RemovePluginDataFromDB("never stored"));
  EXPECT_TRUE(util.IsUpdate());

  PluginDataMap map{{"leftover", {}}};
  ClearLog();
  EXPECT_TRUE(util.GetPluginListFromDB(map));
  EXPECT_EQ(LogMessages().front(), "GetPluginListFromDB");
  EXPECT_THAT(Names(map), ElementsAre("stored"));

  RemoveTree(Device().db);  // nothing can be stored any more
  util.SetIsUpdate(false);
  EXPECT_FALSE(util.RemovePluginDataFromDB("stored"));
  EXPECT_FALSE(util.InsertPluginDataToDB(record));
  EXPECT_FALSE(util.IsUpdate()) << "failed changes leave the flag as it was";

  // Destroying the facade destroys the shared database object too; a new facade starts afresh.
  util.SetIsUpdate(true);
  CSingleton<DBUtil>::DestroyInstance();
  EXPECT_EQ(CSingleton<VersionSqliteDB>::m_pObj, nullptr);
  EXPECT_FALSE(CSingleton<DBUtil>::GetInstance()->IsUpdate());
  EXPECT_NE(CSingleton<VersionSqliteDB>::m_pObj, nullptr);
  CSingleton<DBUtil>::DestroyInstance();
}

}  // namespace
