// Package metadata queries of PluginDataUtil on the sandbox device: the answer and exact log of each, and
// the release of every package-information record exactly once on every path.
#include <gtest/gtest.h>
#include <pkgmgr-info-host.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "PluginDataUtil.h"
#include "log_capture.h"
#include "sample_packages.h"

namespace {

using wup_test::LogMessages;
using Lines = std::vector<std::string>;

const std::string kId = "com.korvane.tv.pepper.sampleplayer";
const std::string kTag = "[" + kId + "]";
const std::string& kTypeKey = strMETADATA_TYPE_KEY;
const std::string& kListKey = strMETADATA_APPLIST_KEY;
const std::string& kForceKey = strMETADATA_FORCE_KEY;

class PluginDataQueriesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    unsetenv("HOST_PKGMGRINFO_FAIL");
    Install({});
  }
  void TearDown() override {
    unsetenv("HOST_PKGMGRINFO_FAIL");
    EXPECT_EQ(host_pkgmgrinfo_open_handles(), 0) << "a package-information record was not released";
    EXPECT_EQ(host_pkgmgrinfo_bad_destroys(), 0) << "a record was released twice, or one never obtained";
  }

  static void Install(const wup_test::Metadata& metadata) {
    wup_test::Device().Reset();
    wup_test::WriteManifest(wup_test::Device().rwPackages, kId, "1.10.2", {kId}, metadata);
    wup_test::ClearLog();
    host_pkgmgrinfo_reset_counters();
  }
  static std::string Found(const std::string& key, const std::string& value) {
    return kTag + "key:[" + key + "]value:[" + value + "]";
  }
  static std::string NotFound(const std::string& key) { return kTag + " NO <" + key + "> metadata"; }

  PluginDataUtil util_;
};

// Type, allow-list and force flag are taken from the metadata value as it is: no trimming, no case folding.
TEST_F(PluginDataQueriesTest, MetadataValuesAreTakenExactly) {
  const std::pair<std::string, PLUGIN_TYPE> cases[] = {{"pepperplugin", PEPPER_PLUGIN},
                                                       {"xwalkplugin", XWALK_PLUGIN},
                                                       {"b2bpepperplugin", B2B_PEPPER_PLUGIN},
                                                       {"xwalkplugin ", UNKNOWN_PLUGIN},
                                                       {"Pepperplugin", UNKNOWN_PLUGIN},
                                                       {"", UNKNOWN_PLUGIN},
                                                       {"true", UNKNOWN_PLUGIN},
                                                       {" true", UNKNOWN_PLUGIN},
                                                       {"True", UNKNOWN_PLUGIN},
                                                       {" com.korvane.tv.browser, x ,y", UNKNOWN_PLUGIN}};
  for (const auto& [value, type] : cases) {
    SCOPED_TRACE("[" + value + "]");
    Install({{kTypeKey, value}, {kListKey, value}, {kForceKey, value}});
    std::string list;
    EXPECT_EQ(util_.GetPluginType(kId), type);
    EXPECT_TRUE(util_.CheckTPKofAppWhiteList(kId, list));
    EXPECT_EQ(list, value);
    EXPECT_EQ(util_.CheckTPKForceMetadata(kId), value == "true");
    EXPECT_EQ(LogMessages(), (Lines{Found(kTypeKey, value), kTag + " type is [" + std::to_string(type) + "]",
                                    Found(kListKey, value), Found(kForceKey, value)}));
  }
  // Absent metadata: the key without its namespace is another key; an absent application is silent.
  Install({{"upgradable_webapi_type", "pepperplugin"}});
  std::string list = "before";
  EXPECT_EQ(util_.GetPluginType(kId), UNKNOWN_PLUGIN);
  EXPECT_FALSE(util_.CheckTPKofAppWhiteList(kId, list));
  EXPECT_FALSE(util_.CheckTPKForceMetadata("com.korvane.tv.pepper.absent"));
  EXPECT_EQ(list, "before");
  EXPECT_EQ(LogMessages(), (Lines{NotFound(kTypeKey), "get plugin type fail!", NotFound(kListKey)}));
}

TEST_F(PluginDataQueriesTest, PluginNameIsWhatFollowsTheFirstPepperOrElseXwalkFragment) {
  const std::string cases[][3] = {
      // id, the name afterwards (it starts as "before"), log
      {"com.korvane.tv.pepper.sampleplayer", "sampleplayer", "pluginName[sampleplayer]"},
      {"com.korvane.tv.xwalk.tv.channel", "tv.channel", "pluginName[tv.channel]"},
      {"com.korvane.tv.xwalk.pepper.x", "x", "pluginName[x]"},
      {"my.pepper.pepper.y", "pepper.y", "pluginName[pepper.y]"},
      {"xwalk.a.pepper.", "", "get plugin name fail"},
      {"com.korvane.tv.xwalk.", "", "get plugin name fail"},
      {"com.korvane.tv.Pepper.x", "before", "invalid pkgid:[com.korvane.tv.Pepper.x]"},
      {"", "before", "empty id"},
  };
  for (const auto& [constId, expected, log] : cases) {
    SCOPED_TRACE("[" + constId + "]");
    wup_test::ClearLog();
    std::string id = constId;
    std::string name = "before";
    EXPECT_EQ(util_.GetPluginNameByID(id, name), !expected.empty() && expected != "before");
    EXPECT_EQ(name, expected);
    EXPECT_EQ(LogMessages(), (Lines{log}));
  }
}

TEST_F(PluginDataQueriesTest, VersionOfThePackageAndItsFailures) {
  std::string version;
  EXPECT_TRUE(util_.GetTPKVersionByID(kId, version));
  EXPECT_EQ(version, "1.10.2");
  EXPECT_FALSE(util_.GetTPKVersionByID("", version));
  EXPECT_EQ(host_pkgmgrinfo_calls("pkgmgrinfo_pkginfo_get_pkginfo"), 1)
      << "an empty id must not reach the platform";
  EXPECT_FALSE(util_.GetTPKVersionByID("com.korvane.tv.pepper.absent", version));
  setenv("HOST_PKGMGRINFO_FAIL", "pkgmgrinfo_pkginfo_get_version", 1);
  EXPECT_FALSE(util_.GetTPKVersionByID(kId, version));
  EXPECT_EQ(version, "1.10.2");
  EXPECT_EQ(host_pkgmgrinfo_calls("pkgmgrinfo_pkginfo_destroy_pkginfo"), 2);
  EXPECT_EQ(LogMessages(),
            (Lines{"the param can't be empty!!", "get [com.korvane.tv.pepper.absent] info fail!!",
                   "get " + kTag + " version fail!!"}));
}

// Each application query with each of its platform calls failing: the answer, the log line or the
// required silence, and the release of every application record that was obtained.
TEST_F(PluginDataQueriesTest, FailingPlatformCallsAreReportedOrSilentAsRequired) {
  Install({{kTypeKey, "xwalkplugin"}, {kListKey, "a"}});
  const std::string root = wup_test::Device().rwApp + "/" + kId;
  const struct {
    std::string call;  // pkgmgrinfo_appinfo_<call>
    int releases;
    Lines log;
  } cases[] = {
      {"get_appinfo", 0, {"get plugin type fail!"}},
      {"get_root_path", 3, {Found(kTypeKey, "xwalkplugin"), kTag + " type is [0]", Found(kListKey, "a")}},
      {"get_metadata_value",
       3,
       {kTag + "'s root path:[" + root + "]", NotFound(kTypeKey), "get plugin type fail!",
        NotFound(kListKey)}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.call);
    setenv("HOST_PKGMGRINFO_FAIL", ("pkgmgrinfo_appinfo_" + c.call).c_str(), 1);
    wup_test::ClearLog();
    host_pkgmgrinfo_reset_counters();
    std::string path = "before";
    std::string list = "before";
    EXPECT_EQ(util_.m_GetRootPath(kId, path), c.call == "get_metadata_value");
    util_.GetPluginType(kId);
    EXPECT_EQ(util_.CheckTPKofAppWhiteList(kId, list), c.call == "get_root_path");
    EXPECT_EQ(path, c.call == "get_metadata_value" ? root : "before");
    EXPECT_EQ(list, c.call == "get_root_path" ? "a" : "before");
    EXPECT_EQ(LogMessages(), c.log);
    EXPECT_EQ(host_pkgmgrinfo_calls("pkgmgrinfo_appinfo_destroy_appinfo"), c.releases);
  }
}

}  // namespace
