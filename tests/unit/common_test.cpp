// The shared vocabulary: the process-wide instances, the log line, the file-size helper, the record and
// the constants built at load time from the platform path service (checked in programs of their own).
#include <unistd.h>

#include <stdexcept>

#include "PluginCommon.h"
#include "unit.h"

namespace {

using namespace wup_test;

struct Counted {
  static inline int constructed = 0;
  Counted() { ++constructed; }
};

struct FailsOnce {
  static inline int attempts = 0;
  FailsOnce() {
    if (++attempts == 1) throw std::runtime_error("first construction fails");
  }
};

TEST(Singleton, ConstructsOneInstanceOnFirstRequest) {
  EXPECT_EQ(nullptr, CSingleton<Counted>::m_pObj);
  Counted* first = CSingleton<Counted>::GetInstance();
  EXPECT_EQ(first, CSingleton<Counted>::GetInstance());
  EXPECT_EQ(first, CSingleton<Counted>::m_pObj);
  EXPECT_EQ(1, Counted::constructed);
}

TEST(Singleton, FailedConstructionLeavesNoInstanceAndTheMutexFree) {
  EXPECT_THROW(CSingleton<FailsOnce>::GetInstance(), std::runtime_error);
  EXPECT_EQ(nullptr, CSingleton<FailsOnce>::m_pObj);
  ASSERT_EQ(0, pthread_mutex_trylock(&CSingleton<FailsOnce>::m_tSingletonLock));
  pthread_mutex_unlock(&CSingleton<FailsOnce>::m_tSingletonLock);
  EXPECT_NE(nullptr, CSingleton<FailsOnce>::GetInstance());
  EXPECT_EQ(2, FailsOnce::attempts);
}

TEST(Logging, EveryLineGoesToTheMainBufferAtInfoWithFileFunctionAndLine) {
  ClearLog();
  const int line = __LINE__ + 1;
  PLUGIN_LOG("pkgid(%s) count(%d)", "com.korvane.tv.pepper.x", 3);
  EXPECT_EQ(LogLines(), Lines{"0 4 KelvoManager common_test.cpp: TestBody(" + std::to_string(line) +
                              ") > pkgid(com.korvane.tv.pepper.x) count(3)"});
}

TEST(GetFileSize, SizeOfTheFileBehindThePathOrMinusOne) {
  const std::string dir = Device().root;
  WriteFile(dir + "/empty", "");
  WriteFile(dir + "/five", "12345");
  ASSERT_EQ(0, symlink((dir + "/five").c_str(), (dir + "/link").c_str()));
  ASSERT_EQ(0, symlink((dir + "/gone").c_str(), (dir + "/dangling").c_str()));
  const std::pair<const char*, int> sizes[] = {
      {"missing", -1}, {"empty", 0}, {"five", 5}, {"link", 5}, {"dangling", -1}};
  for (const auto& [name, size] : sizes) EXPECT_EQ(size, GetFileSize((dir + "/" + name).c_str())) << name;
}

TEST(PluginRecord, NewRecordIsAnEmptyPepperRecordInstalledReadOnly) {
  const _PluginData record;
  EXPECT_EQ(PEPPER_PLUGIN, record.pluginType);
  EXPECT_EQ(0, record.hasForceMetaData);
  EXPECT_EQ(INSTALLED_ONLY_RO, record.isUpdate);
  EXPECT_EQ("", record.name + record.version + record.path + record.pkgid + record.entryPoints +
                    record.appWhiteList + record.systemPath);
}

// Runs only in the programs that the next test starts, whose path service knows no writable directory
// (so its fallback applies) and gives a database directory that ends in "/". The other fixed texts
// (table names, default version, kinds ...) are pinned where the plug-in uses them.
TEST(Constants, DISABLED_BuiltWhenTheLibraryIsLoaded) {
  const std::string rw = "/opt/usr/apps/", result = rw + "appbinarymanager/webapi_result",
                    ns = METADATA_NAMESPACE;
  EXPECT_EQ("/tv/metadata/", ns.substr(ns.size() - 13));
  const std::pair<std::string, std::string> constants[] = {
      // clang-format off
      {strRW_APP_DIR, rw}, {strRO_APP_DIR, Device().roApp + "/"}, {strB2B_PEPPER_DIR, rw + "pepper/b2b/"},
      {strRESULT_DIR, result}, {strRESULT_FILE, result + "/upgrade_webapi_result.json"},
      {strRESULT_FILE_BAK, result + "/upgrade_webapi_result.json_bak"}, {strTZ_SYS_DB, "/var/db/"},
      // No separator added or removed.
      {VERSION_DB, strVERSION_DB}, {VERSION_DB, "/var/db//.AppBinaryManager.db"},
      {VERSION_DB_BAKUP, strVERSION_DB_BAKUP}, {VERSION_DB_BAKUP, "/var/db//.AppBinaryManager_Backup.db"},
      {strMETADATA_TYPE_KEY, ns + "upgradable_webapi_type"}, {strMETADATA_FORCE_KEY, ns + "forceupdate_webapi"},
      {strMETADATA_APPLIST_KEY, ns + "upgradable_webapi_applist"},
      {strXWALK_EXTENSION_DIR, "/usr/lib/tizen-extensions-crosswalk/"},
      // clang-format on
  };
  for (const auto& [value, expected] : constants) EXPECT_EQ(expected, value);
}

// Without the writable directory the program loads and the test above passes; without either other
// directory the loader fails to build the constants, before any test runs.
TEST(Constants, ComeFromThePathServiceWithAFallbackForTheWritableDirectoryOnly) {
  for (const char* unset : {"TZ_SYS_RW_APP", "TZ_SYS_RO_APP", "TZ_SYS_DB"}) {
    const bool fallback = std::string(unset) == "TZ_SYS_RW_APP";
    const CommandResult loaded = RunCommand(
        {"/proc/self/exe", "--gtest_also_run_disabled_tests", "--gtest_filter=*BuiltWhenTheLibraryIsLoaded"},
        {"TZ_SYS_DB=/var/db/", std::string("HOST_TZPLATFORM_UNSET=") + unset}, true);
    EXPECT_EQ(fallback, loaded.exited && loaded.status == 0) << unset << loaded.output;
    const char* const printed[] = {"[ RUN      ] Constants.DISABLED_BuiltWhenTheLibraryIsLoaded\n",
                                   "[  PASSED  ] 1 test.\n", "construction from null is not valid"};
    for (const char* text :
         fallback ? std::vector(printed, printed + 2) : std::vector(printed + 2, printed + 3))
      EXPECT_NE(std::string::npos, loaded.output.find(text)) << unset << ": no " << text << "\n"
                                                             << loaded.output;
  }
}

}  // namespace
