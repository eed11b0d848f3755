// The version database while another process holds it under an exclusive lock. These tests wait on
// purpose (the busy handler's waits, the check's one-second sleeps), so they are few.
#include <gmock/gmock.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>

#include "VersionSqliteDB.h"
#include "log_capture.h"
#include "sandbox.h"

using namespace wup_test;
using ::testing::ElementsAreArray;
using Lines = std::vector<std::string>;

namespace {

// db_lock_holder, holding the main database from construction until destruction.
class LockHolder {
 public:
  LockHolder() {
    int out[2];
    if (pipe(out) != 0) return;
    if ((pid_ = fork()) == 0) {
      dup2(out[1], STDOUT_FILENO);
      execl(WUP_TEST_TOOLS_DIR "/db_lock_holder", "db_lock_holder", VERSION_DB, nullptr);
      _exit(127);
    }
    close(out[1]);
    char answer[16] = "";
    locked = read(out[0], answer, sizeof answer - 1) > 0 && std::string(answer) == "locked\n";
    close(out[0]);
  }
  ~LockHolder() {
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
  }
  bool locked = false;

 private:
  pid_t pid_ = -1;
};

// One blocked call: the busy handler waits five times, then gives up.
Lines Round() {
  Lines lines;
  for (int count = 0; count < 5; ++count) {
    lines.push_back("database is lock now,can not write/read.count is [" + std::to_string(count) + "]\n");
  }
  lines.push_back("wait count is [5], not keep waiting..\n");
  return lines;
}

Lines Concat(std::initializer_list<Lines> parts) {
  Lines all;
  for (const Lines& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

class ContentionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Device().Reset();
    ASSERT_TRUE(db_.m_openDBCheck());
    ClearLog();
    fds_ = CountOpenFds();
  }
  void TearDown() override { EXPECT_EQ(CountOpenFds(), fds_) << "descriptor leaked"; }

  VersionSqliteDB db_;
  int fds_ = 0;
};

TEST_F(ContentionTest, WriteAndReadGiveUpWhileAnotherProcessHoldsTheDatabase) {
  _PluginData record;
  record.name = "blocked";
  {
    LockHolder holder;
    ASSERT_TRUE(holder.locked);
    EXPECT_FALSE(db_.InsertPluginData(record));
    PluginDataMap map;
    EXPECT_FALSE(db_.GetPluginList(map));
  }
  // The check cannot read the locked file and takes the backup instead; the write's own transaction waits
  // in vain, and recovery's retry has no busy handler to wait with. The read waits in vain as well.
  const Lines check = Concat(
      {Round(),
       {"valid check, dbPath : [" + std::string(VERSION_DB) + "], PRAGMA integrity_check error: [5]"}});
  const Lines expected =
      Concat({check,
              Round(),
              {"begin a transaction fail, ret = 5, errormsg: database is locked",
               ".AppBinaryManager.db is broken! Recover .AppBinaryManager.db from "
               ".AppBinaryManager_Backup.db\n",
               "BEGIN EXCLUSIVE failed:[5, database is locked]\n", "insert into pluginTable fail!!"},
              check,
              Round(),
              {"prepare object fail : 5", "get plugin list fail"}});
  Lines log;
  for (const std::string& line : LogMessages()) {
    if (std::find(expected.begin(), expected.end(), line) != expected.end()) log.push_back(line);
  }
  EXPECT_THAT(log, ElementsAreArray(expected));
  record.name = "after";
  EXPECT_TRUE(db_.InsertPluginData(record)) << "usable again once the other process is gone";
}

// Has the other process take the lock when the check first steps `sql`, after preparing it: the check
// then meets the busy database in its own loop.
struct LockOnStep {
  std::string sql;
  std::unique_ptr<LockHolder> holder;
} g_lockOnStep;

int LockWhenStepped(unsigned, void*, void* stmt, void*) {
  if (!g_lockOnStep.holder && g_lockOnStep.sql == sqlite3_sql(static_cast<sqlite3_stmt*>(stmt))) {
    g_lockOnStep.holder = std::make_unique<LockHolder>();
  }
  return 0;
}

int TraceConnection(sqlite3* db, char**, const sqlite3_api_routines*) {
  return sqlite3_trace_v2(db, SQLITE_TRACE_STMT, LockWhenStepped, nullptr);
}

class BusyLoopTest : public ContentionTest,
                     public ::testing::WithParamInterface<std::pair<const char*, int>> {};

TEST_P(BusyLoopTest, CheckSleepsThreeTimesThenFails) {
  g_lockOnStep.sql = GetParam().first;
  sqlite3_auto_extension(reinterpret_cast<void (*)()>(TraceConnection));
  EXPECT_FALSE(db_.m_validCheck(VERSION_DB));
  sqlite3_reset_auto_extension();
  ASSERT_TRUE(g_lockOnStep.holder && g_lockOnStep.holder->locked);
  g_lockOnStep.holder.reset();

  Lines expected = {"set DB busy"};
  for (int count = 0; count < 3; ++count) {
    expected = Concat(
        {expected, Round(), {"sqlite3 busy, wait 1 sec and try again. count is " + std::to_string(count)}});
  }
  expected.push_back("valid check failed, integrity_verify[" + std::to_string(GetParam().second) +
                     "], version table check[0], plugin table check[0]");
  EXPECT_THAT(LogMessages(), ElementsAreArray(expected));
}

INSTANTIATE_TEST_SUITE_P(
    IntegrityAndTableLoops, BusyLoopTest,
    ::testing::Values(std::make_pair("PRAGMA integrity_check;", 0),
                      std::make_pair("select name from sqlite_master where type = 'table';", 1)));

}  // namespace
