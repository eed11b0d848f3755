// The hardened build's version database on real SQLite files: a copy that cannot be completed leaves its
// destination, a database held by another process is waited for and never restored, and a plug-in table
// of another shape counts as damaged. The default build does none of these.
#include <signal.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <unistd.h>

#include <functional>
#include <thread>

#include "VersionSqliteDB.h"
#include "unit.h"

namespace {

using namespace wup_test;
using ::testing::ElementsAre;

// Functions: the product's paths are built while the program starts, in an order of their own.
std::string Main() { return VERSION_DB; }
std::string Backup() { return VERSION_DB_BAKUP; }
const char kBroken[] =
    ".AppBinaryManager.db is broken! Recover .AppBinaryManager.db from .AppBinaryManager_Backup.db\n";

class HardenedDb : public ::testing::Test {
 protected:
  void SetUp() override {
    Device().Reset();
    ASSERT_TRUE(Insert("kept"));
    ClearLog();
  }
  bool Insert(const std::string& name) {
    _PluginData record;
    record.name = name;
    return db_.InsertPluginData(record);
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
  signal(SIGXFSZ, SIG_IGN);
  struct rlimit previous;
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &previous), 0);
  // An empty source, and a disk that fills up part-way.
  for (const auto& [content, limit] :
       {std::pair{std::string(), previous.rlim_cur}, {ReadFile(Main()), 4096}}) {
    SCOPED_TRACE(limit);
    WriteFile(source, content);
    WriteFile(dest, "older copy");
    const struct rlimit tiny = {limit, previous.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &tiny), 0);
    const bool copied = db_.m_versionCpBakUp(source.c_str(), dest.c_str());
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &previous), 0);
    EXPECT_FALSE(copied);
    EXPECT_EQ(ReadFile(dest), "older copy");
    EXPECT_FALSE(PathExists(staging));
  }
  EXPECT_TRUE(
      LogHas("copy of [" + source + "] to [" + dest + "] not completed, [" + dest + "] left as it was"));

  // A complete copy replaces the destination whole; a link left at the staging path is not written through.
  WriteFile(victim, "victim");
  ASSERT_EQ(symlink(victim.c_str(), staging.c_str()), 0);
  EXPECT_TRUE(db_.m_versionCpBakUp(source.c_str(), dest.c_str()));
  EXPECT_EQ(ReadFile(dest), ReadFile(source));
  EXPECT_EQ(ReadFile(victim), "victim");
  EXPECT_FALSE(PathExists(staging));
}

// Another connection holds the main database under SQLite's exclusive lock for `milliseconds`.
void HoldWhile(int milliseconds, const std::function<void()>& call) {
  sqlite3* other = nullptr;
  sqlite3_open_v2(VERSION_DB, &other, SQLITE_OPEN_READWRITE, nullptr);
  ASSERT_EQ(sqlite3_exec(other, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);
  std::thread release([other, milliseconds] {
    usleep(milliseconds * 1000);
    sqlite3_close(other);
  });
  call();
  release.join();
}

TEST_F(HardenedDb, ADatabaseHeldByAnotherProcessIsWaitedForAndNeverRestored) {
  // The main file runs ahead of its backup by one record: a restore would lose it.
  Query(Main(), "insert into pluginTable(name) values('unsaved')");
  // Held longer than the check's own waits of about four seconds, shorter than the wait for it.
  HoldWhile(5000, [this] { EXPECT_TRUE(Insert("patient")); });
  EXPECT_THAT(List(), ElementsAre("kept", "patient", "unsaved"));
  EXPECT_FALSE(LogHas(kBroken));

  // Held throughout: the call gives up with both files as they were.
  const std::string main = ReadFile(Main()), backup = ReadFile(Backup());
  HoldWhile(9500, [this] { EXPECT_FALSE(Insert("blocked")); });
  EXPECT_TRUE(
      LogHas("database [" + Main() + "] stays busy: neither file restored nor created, the call gives up"));
  EXPECT_FALSE(LogHas(kBroken));
  EXPECT_FALSE(LogHas("db and backup db are not valid, now create db"));
  EXPECT_EQ(ReadFile(Main()), main);
  EXPECT_EQ(ReadFile(Backup()), backup);
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
