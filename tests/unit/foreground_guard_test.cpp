// Allow-listed applications are terminated so they restart with the upgraded plug-in, except the one the
// viewer is looking at; when the foreground cannot be determined nothing is terminated.
#include <gtest/gtest.h>
#include <json/json.h>

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "JsonUtil.h"
#include "WebapisUtil.h"
#include "log_capture.h"
#include "sandbox.h"

namespace {

using wup_test::Device;
using Lines = std::vector<std::string>;

class ForegroundGuardTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Device().Reset();
    unsetenv("HOST_VEX_FAIL");
  }

  // Log lines of one guard call.
  static Lines Guard(const std::string& appId) {
    wup_test::ClearLog();
    JsonUtil::m_TerminateBGApp(appId);
    return wup_test::LogMessages();
  }
  static void SetForeground(const std::string& id) { wup_test::WriteFile(Device().vex + "/foreground", id); }
  static Lines Terminated() { return wup_test::ReadLines(Device().vex + "/terminated"); }
};

TEST_F(ForegroundGuardTest, OnlyAKnownForegroundApplicationKeepsRunning) {
  EXPECT_EQ(Guard("a.app"), (Lines{"appId is empty", "vex_terminate_app [a.app] success"}));

  SetForeground("fg.app\n");
  EXPECT_EQ(Guard("fg.app"), Lines{"fg.app is at foreground"});
  EXPECT_EQ(Guard(""), (Lines{"appId is empty", "vex_terminate_app [] success"}));
  EXPECT_EQ(Guard("fg.app.other"), (Lines{"appId is empty", "vex_terminate_app [fg.app.other] success"}));

  setenv("HOST_VEX_FAIL", "vex_get_current_showing_app", 1);
  EXPECT_EQ(Guard("b.app"), Lines{"vex_get_current_showing_app failed"});
  setenv("HOST_VEX_FAIL", "vex_get_app_info", 1);
  EXPECT_EQ(Guard("b.app"), Lines{"vex_get_app_info failed"});
  EXPECT_EQ(Terminated(), (Lines{"a.app", "", "fg.app.other"}));
}

TEST_F(ForegroundGuardTest, AFailedTerminationMovesOnToTheNextId) {
  setenv("HOST_VEX_FAIL", "vex_terminate_app", 1);
  _PluginData record{"pep", "", "", "", "", PEPPER_PLUGIN, 0, INSTALLED_ONLY_RW, "a.app,b.app", ""};
  Json::Value document(Json::nullValue);
  wup_test::ClearLog();
  JsonUtil::MakeUpgradeWebapiJson(document, record);

  EXPECT_EQ(wup_test::LogMessages(),
            (Lines{"strWhiteList = a.app,b.app", "remove space char, strWhiteList = a.app,b.app",
                   "pluginname:[pep]tizenid:[a.app]", "appId is empty", "vex_terminate_app [a.app] fail",
                   "pluginname:[pep]tizenid:[b.app]", "appId is empty", "vex_terminate_app [b.app] fail"}));
  EXPECT_EQ(document["upgradable_webapi_applist"]["pepper"].getMemberNames(), (Lines{"a.app", "b.app"}));
}

TEST_F(ForegroundGuardTest, ANullForegroundIdPassesOutOfTheRebuild) {
  setenv("HOST_VEX_FAIL", "null_foreground", 1);
  PluginDataMap map{{"pep", {"pep", "", "", "", "", PEPPER_PLUGIN, 0, INSTALLED_ONLY_RW, "a.app", ""}}};
  WebapisUtil util;
  EXPECT_THROW(util.SavePluginUpgradeResult(map), std::logic_error);
  EXPECT_FALSE(util.CheckUpgradeResultExist());
  EXPECT_FALSE(wup_test::PathExists(Device().vex + "/terminated"));
}

}  // namespace
