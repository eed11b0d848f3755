// The hardened build's version database, on real SQLite files in the sandbox: copies that cannot be
// completed leave their destination as it was, a database that another process holds is waited for and
// never restored, and a plug-in table of another shape counts as damaged. Each case asserts what the
// default build does not do.
#include <signal.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <unistd.h>

#include <thread>

#include "VersionSqliteDB.h"
#include "unit.h"

namespace {

using namespace wup_test;
using ::testing::ElementsAre;

std::string Main() { return VERSION_DB; }
std::string Backup() { return VERSION_DB_BAKUP; }
const char kBroken[] =
    ".AppBinaryManager.db is broken! Recover .AppBinaryManager.db from .AppBinaryManager_Backup.db\n";

_PluginData Record(const std::string& name) {
  _PluginData record;
  record.name = name;
  record.version = "1.0";
  record.pkgid = "com.korvane.tv.pepper." + name;
  return record;
}

// Another connection holding the main database under SQLite's exclusive lock, from construction until
// `milliseconds` later (released by a thread of its own) or until destroyed.
class LockHolder {
 public:
  explicit LockHolder(int milliseconds) {
    sqlite3_open_v2(VERSION_DB, &db_, SQLITE_OPEN_READWRITE, nullptr);
    locked = sqlite3_exec(db_, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr) == SQLITE_OK;
    release_ = std::thread([this, milliseconds] {
      usleep(milliseconds * 1000);
      sqlite3_close(db_);
    });
  }
  ~LockHolder() { release_.join(); }
  bool locked = false;

 private:
  sqlite3* db_ = nullptr;
  std::thread release_;
};

class HardenedDb : public ::testing::Test {
 protected:
  void SetUp() override {
    Device().Reset();
    _PluginData kept = Record("kept");
    ASSERT_TRUE(db_.InsertPluginData(kept));
    ClearLog();
  }
  Lines List() {
    PluginDataMap map;
    EXPECT_TRUE(db_.GetPluginList(map));
    Lines names;
    for (const auto& entry : map) names.push_back(entry.first);
    return names;
  }

  VersionSqliteDB db_;
};

TEST_F(HardenedDb, ACopyThatCannotBeCompletedLeavesItsDestinationAndFails) {
  const std::string source = Device().root + "/source", dest = Device().root + "/dest";
  const std::string staging = dest + ".copy", victim = Device().root + "/victim";
  WriteFile(source, ReadFile(Main()));
  WriteFile(victim, "victim");
  signal(SIGXFSZ, SIG_IGN);
  struct rlimit previous;
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &previous), 0);
  const struct {
    const char* name;
    std::string source;
    rlim_t fileSizeLimit;  // a disk that fills up part-way
  } cases[] = {{"empty source", "", previous.rlim_cur}, {"disk full", ReadFile(Main()), 4096}};
  for (const auto& copy : cases) {
    SCOPED_TRACE(copy.name);
    WriteFile(source, copy.source);
    WriteFile(dest, "older copy");
    const struct rlimit limit = {copy.fileSizeLimit, previous.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    const bool copied = db_.m_versionCpBakUp(source.c_str(), dest.c_str());
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &previous), 0);
    EXPECT_FALSE(copied);
    EXPECT_EQ(ReadFile(dest), "older copy");
    EXPECT_FALSE(PathExists(staging));
  }
  EXPECT_TRUE(
      LogHas("copy of [" + source + "] to [" + dest + "] not completed, [" + dest + "] left as it was"));

  // A complete copy replaces the destination whole; a link left at the staging path is not written through.
  ASSERT_EQ(symlink(victim.c_str(), staging.c_str()), 0);
  EXPECT_TRUE(db_.m_versionCpBakUp(source.c_str(), dest.c_str()));
  EXPECT_EQ(ReadFile(dest), ReadFile(source));
  EXPECT_EQ(ReadFile(victim), "victim");
  EXPECT_FALSE(PathExists(staging));
}

TEST_F(HardenedDb, ADatabaseHeldByAnotherProcessIsWaitedForAndNeverRestored) {
  // The main file runs ahead of its backup by one record: a restore would lose it.
  Query(Main(), "insert into pluginTable(name) values('unsaved')");
  _PluginData record = Record("patient");
  {
    // Held longer than the check's own waits of about four seconds, shorter than the wait for it.
    const LockHolder holder(5000);
    ASSERT_TRUE(holder.locked);
    EXPECT_TRUE(db_.InsertPluginData(record));
  }
  EXPECT_THAT(List(), ElementsAre("kept", "patient", "unsaved"));
  EXPECT_FALSE(LogHas(kBroken));

  // Held throughout: the call gives up with both files as they were.
  const std::string before = ReadFile(Main()), backupBefore = ReadFile(Backup());
  record.name = "blocked";
  {
    const LockHolder holder(9500);
    ASSERT_TRUE(holder.locked);
    ClearLog();
    EXPECT_FALSE(db_.InsertPluginData(record));
  }
  EXPECT_TRUE(
      LogHas("database [" + Main() + "] stays busy: neither file restored nor created, the call gives up"));
  EXPECT_FALSE(LogHas(kBroken));
  EXPECT_FALSE(LogHas("db and backup db are not valid, now create db"));
  EXPECT_EQ(ReadFile(Main()), before);
  EXPECT_EQ(ReadFile(Backup()), backupBefore);
}

TEST_F(HardenedDb, APluginTableOfAnotherShapeCountsAsDamaged) {
  Query(Main(), "drop table pluginTable; create table pluginTable(name TEXT PRIMARY KEY, version TEXT)");
  EXPECT_FALSE(db_.m_validCheck(VERSION_DB));
  EXPECT_TRUE(
      LogHas(Main() + " DB : pluginTable has other columns than the plug-in's own, counted as damaged"));
  EXPECT_THAT(List(), ElementsAre("kept")) << "restored from the backup";
  EXPECT_TRUE(db_.m_validCheck(VERSION_DB));
}

}  // namespace
