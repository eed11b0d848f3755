// The upgrade result: the document the web runtime parses (its text is pinned end to end), the guard that
// terminates allow-listed background applications meanwhile, and the result file, replaced whole through
// its staging file: a refusal or failure leaves the previous result in place and says why in the log.
#include <json/json.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sstream>
#include <stdexcept>

#include "JsonUtil.h"
#include "WebapisUtil.h"
#include "unit.h"

namespace {

using namespace wup_test;

_PluginData Record(const std::string& name, PLUGIN_TYPE type, int isUpdate, const std::string& whiteList,
                   const std::string& entryPoints = "") {
  return {name, "", name + "/", "", entryPoints, type, 0, isUpdate, whiteList, ""};
}

class ResultTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Device().Reset();
    unsetenv("HOST_VEX_FAIL");
    ClearLog();
  }

  static Json::Value Build(std::vector<_PluginData> records) {
    Json::Value document(Json::nullValue);
    for (_PluginData& record : records) JsonUtil::MakeUpgradeWebapiJson(document, record);
    return document;
  }
  static Json::Value Parse(const std::string& text) {
    Json::Value value;
    std::istringstream in(text);
    EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &value, nullptr)) << text;
    return value;
  }
  // Log lines of one guard call.
  static Lines Guard(const std::string& appId) {
    ClearLog();
    JsonUtil::m_TerminateBGApp(appId);
    return LogMessages();
  }
  static Lines Terminated() { return ReadLines(Device().vex + "/terminated"); }

  WebapisUtil util_;
  PluginDataMap empty_;
};

TEST_F(ResultTest, AllowListsAndEntryPointsAreSplitAtEveryComma) {
  const Json::Value document = Build({Record("pep", PEPPER_PLUGIN, INSTALLED_ONLY_RW, "a, b,,c,"),
                                      Record("ext", XWALK_PLUGIN, INSTALLED_ONLY_RW, "c", "x, y,,z,")});

  EXPECT_EQ(document["forceupdate_webapi"]["xwalk"][0]["entry_points"], Parse(R"(["x", " y", "", "z"])"));
  EXPECT_EQ(document["upgradable_webapi_applist"], Parse(R"({
      "pepper": {"a": [{"name": "pep", "path": "pep/"}], "b": [{"name": "pep", "path": "pep/"}],
                 "": [{"name": "pep", "path": "pep/"}], "c": [{"name": "pep", "path": "pep/"}]},
      "xwalk": {"c": [{"name": "ext", "path": "ext/", "entry_points": ["x", " y", "", "z"]}]}})"));
  EXPECT_EQ(Terminated(), (Lines{"a", "b", "", "c", "c"}));

  std::string text = "a \tb\n  c ";
  JsonUtil::m_RemoveAllSpaceChar(text);
  EXPECT_EQ(text, "a\tb\nc");
}

TEST_F(ResultTest, KindsAndInstallLocationsDecideWhatIsListed) {
  _PluginData odd = Record("odd", XWALK_PLUGIN, 99, "shared.app");
  _PluginData pep = Record("pep", PEPPER_PLUGIN, INSTALLED_BOTH_RO_RW, "shared.app");
  odd.hasForceMetaData = 2;
  pep.hasForceMetaData = 1;
  pep.systemPath = "/usr/apps/pep/";
  const Json::Value document = Build({Record("b2b", B2B_PEPPER_PLUGIN, INSTALLED_ONLY_RW, "shared.app"),
                                      Record("ro", PEPPER_PLUGIN, INSTALLED_ONLY_RO, "ro.app"),
                                      Record("nolist", PEPPER_PLUGIN, INSTALLED_ONLY_RW, ""),
                                      Record("unknown", UNKNOWN_PLUGIN, INSTALLED_ONLY_RW, "u1,u2"),
                                      Record("blank", PEPPER_PLUGIN, INSTALLED_ONLY_RW, "   "), odd, pep});

  EXPECT_EQ(document, Parse(R"({"forceupdate_webapi": {
      "pepper": [{"name": "b2b", "path": "b2b/", "forceupdate": false, "systempath": "", "system": false},
                 {"name": "ro", "path": "ro/", "forceupdate": false, "systempath": "", "system": true},
                 {"name": "nolist", "path": "nolist/", "forceupdate": false, "systempath": "", "system": false},
                 {"name": "blank", "path": "blank/", "forceupdate": false, "systempath": "", "system": false},
                 {"name": "pep", "path": "pep/", "forceupdate": true, "systempath": "/usr/apps/pep/", "system": true}],
      "xwalk": [{"name": "odd", "path": "odd/", "forceupdate": false, "systempath": "", "system": true}]},
    "upgradable_webapi_applist": {
      "pepper": {"shared.app": [{"name": "b2b", "path": "b2b/"}, {"name": "pep", "path": "pep/"}]},
      "xwalk": {"shared.app": [{"name": "odd", "path": "odd/"}]}}})"));
  EXPECT_EQ(Terminated(), (Lines{"shared.app", "u1", "u2", "shared.app", "shared.app"}));
  EXPECT_TRUE(LogHas("[ro]app whitelist empty OR Only RO TPK,ignore its applist value!"));
  EXPECT_TRUE(LogHas("[nolist]app whitelist empty OR Only RO TPK,ignore its applist value!"));
}

// Only a known foreground application keeps running; when the foreground cannot be determined nothing is
// terminated, and a failed termination moves on to the next id.
TEST_F(ResultTest, ForegroundGuard) {
  EXPECT_EQ(Guard("a.app"), (Lines{"appId is empty", "vex_terminate_app [a.app] success"}));
  WriteFile(Device().vex + "/foreground", "fg.app\n");
  EXPECT_EQ(Guard("fg.app"), Lines{"fg.app is at foreground"});
  EXPECT_EQ(Guard(""), (Lines{"appId is empty", "vex_terminate_app [] success"}));
  EXPECT_EQ(Guard("fg.app.other"), (Lines{"appId is empty", "vex_terminate_app [fg.app.other] success"}));
  setenv("HOST_VEX_FAIL", "vex_get_current_showing_app", 1);
  EXPECT_EQ(Guard("b.app"), Lines{"vex_get_current_showing_app failed"});
  setenv("HOST_VEX_FAIL", "vex_get_app_info", 1);
  EXPECT_EQ(Guard("b.app"), Lines{"vex_get_app_info failed"});
  EXPECT_EQ(Terminated(), (Lines{"a.app", "", "fg.app.other"}));

  setenv("HOST_VEX_FAIL", "vex_terminate_app", 1);
  ClearLog();
  const Json::Value document = Build({Record("pep", PEPPER_PLUGIN, INSTALLED_ONLY_RW, "a.app,b.app")});
  EXPECT_EQ(LogMessages(),
            (Lines{"strWhiteList = a.app,b.app", "remove space char, strWhiteList = a.app,b.app",
                   "pluginname:[pep]tizenid:[a.app]", "appId is empty", "vex_terminate_app [a.app] fail",
                   "pluginname:[pep]tizenid:[b.app]", "appId is empty", "vex_terminate_app [b.app] fail"}));
  EXPECT_EQ(document["upgradable_webapi_applist"]["pepper"].getMemberNames(), (Lines{"a.app", "b.app"}));
}

// A null foreground id from the service is left to pass out of the rebuild, before anything is written.
TEST_F(ResultTest, ANullForegroundIdPassesOutOfTheRebuild) {
  setenv("HOST_VEX_FAIL", "null_foreground", 1);
  PluginDataMap map{{"pep", Record("pep", PEPPER_PLUGIN, INSTALLED_ONLY_RW, "a.app")}};
  EXPECT_THROW(util_.SavePluginUpgradeResult(map), std::logic_error);
  EXPECT_FALSE(util_.CheckUpgradeResultExist());
  EXPECT_FALSE(PathExists(Device().vex + "/terminated"));
}

TEST_F(ResultTest, SaveCreatesTheDirectoryAndRenamesTheStagingFile) {
  MakeDirs(strMANAGER_DIR);
  const mode_t previousMask = umask(0);
  EXPECT_FALSE(util_.CheckUpgradeResultExist());
  const bool saved = util_.SavePluginUpgradeResult(empty_);
  umask(previousMask);

  ASSERT_TRUE(saved);
  EXPECT_TRUE(util_.CheckUpgradeResultExist());
  EXPECT_EQ(ReadFile(strRESULT_FILE), "null");
  EXPECT_FALSE(PathExists(strRESULT_FILE_BAK));
  struct stat st;
  ASSERT_EQ(stat(strRESULT_DIR.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0775u);
  EXPECT_EQ(LogMessages(),
            (Lines{"create [" + strRESULT_DIR + "] success", "[" + strRESULT_FILE_BAK + "] NOT exist",
                   "write json to local path [" + strRESULT_FILE_BAK + "] success!"}));

  // Without the application manager's directory nothing can be created.
  RemoveTree(strMANAGER_DIR);
  ClearLog();
  EXPECT_FALSE(util_.SavePluginUpgradeResult(empty_));
  EXPECT_EQ(LogMessages(), Lines{"Dest Path [" + strRESULT_DIR +
                                 "] failed to create! return:[-1], errno:[2, No such file or directory, ]"});
  EXPECT_FALSE(util_.CheckUpgradeResultExist());
}

TEST_F(ResultTest, ARefusedOrFailedSaveKeepsThePreviousResultAndNothingWaits) {
  const std::string& staging = strRESULT_FILE_BAK;
  MakeDirs(strRESULT_DIR);
  WriteFile(strRESULT_FILE, "previous");
  const std::string victim = Device().root + "/victim";
  WriteFile(victim, "keep");
  ASSERT_EQ(symlink(victim.c_str(), staging.c_str()), 0);
  EXPECT_FALSE(util_.SavePluginUpgradeResult(empty_));
  EXPECT_TRUE(LogHas("path [" + staging + "] is a symbol link! there's security risk!"));
  EXPECT_EQ(ReadFile(victim), "keep");

  // Nothing written, or less than the whole text (a full disk, here a file-size limit of two bytes):
  // the staging file is never published.
  ASSERT_EQ(unlink(staging.c_str()), 0);
  EXPECT_FALSE(util_.m_WriteUpgradeWebapiToLocal(staging, ""));
  EXPECT_TRUE(LogHas("write json to local path[" + staging + "] fail!"));
  ClearLog();
  struct rlimit previous;
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &previous), 0);
  const struct rlimit tiny = {2, previous.rlim_max};
  signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &tiny), 0);
  const bool saved = util_.SavePluginUpgradeResult(empty_);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &previous), 0);
  EXPECT_FALSE(saved);
  EXPECT_TRUE(LogHas("write json to local path[" + staging + "] fail!"));
  EXPECT_EQ(ReadFile(strRESULT_FILE), "previous");

  // A FIFO there, which a plain open would wait on for a reader, is replaced by the staging file.
  ASSERT_EQ(unlink(staging.c_str()), 0);
  ASSERT_EQ(mkfifo(staging.c_str(), 0644), 0);
  {
    const Watchdog watchdog;
    EXPECT_TRUE(util_.SavePluginUpgradeResult(empty_));
  }
  EXPECT_EQ(ReadFile(strRESULT_FILE), "null");

  // A result path that cannot be replaced: the staged text stays beside it.
  ASSERT_EQ(unlink(strRESULT_FILE.c_str()), 0);
  MakeDirs(strRESULT_FILE + "/occupied");
  EXPECT_FALSE(util_.SavePluginUpgradeResult(empty_));
  EXPECT_TRUE(LogHas("rename[" + staging + "] to[" + strRESULT_FILE + "] fail!errno [21,Is a directory,]"));
  EXPECT_EQ(ReadFile(staging), "null");
}

}  // namespace
