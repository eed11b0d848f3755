// Package metadata queries of PluginDataUtil on the sandbox device: kind, name, allow-list, force flag,
// root path and version, the exact log of each answer, and the release of every package-information
// record exactly once on every path.
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

TEST_F(PluginDataQueriesTest, PluginTypeIsDecidedByTheExactMetadataValue) {
  const std::pair<std::string, PLUGIN_TYPE> cases[] = {
      {"pepperplugin", PEPPER_PLUGIN},        {"xwalkplugin", XWALK_PLUGIN},
      {"b2bpepperplugin", B2B_PEPPER_PLUGIN}, {"xwalkplugin ", UNKNOWN_PLUGIN},
      {"Pepperplugin", UNKNOWN_PLUGIN},       {"", UNKNOWN_PLUGIN}};
  for (const auto& [value, type] : cases) {
    SCOPED_TRACE("[" + value + "]");
    Install({{strMETADATA_TYPE_KEY, value}});
    EXPECT_EQ(util_.GetPluginType(kId), type);
    EXPECT_EQ(LogMessages(),
              (Lines{Found(strMETADATA_TYPE_KEY, value), kTag + " type is [" + std::to_string(type) + "]"}));
  }
  const wup_test::LogEntry& line = wup_test::LogEntries().back();
  EXPECT_EQ(line.text.rfind("PluginDataUtil.cpp: GetPluginType(", 0), 0u) << line.text;
  EXPECT_EQ(line.tag + std::to_string(line.logId) + std::to_string(line.priority), "KelvoManager04");

  Install({{"upgradable_webapi_type", "pepperplugin"}});  // the key without its namespace is another key
  EXPECT_EQ(util_.GetPluginType(kId), UNKNOWN_PLUGIN);
  EXPECT_EQ(LogMessages(), (Lines{NotFound(strMETADATA_TYPE_KEY), "get plugin type fail!"}));
}

TEST_F(PluginDataQueriesTest, PluginNameIsWhatFollowsTheFirstPepperOrElseXwalkFragment) {
  const struct {
    std::string id, name, log;  // the output starts as "before"
  } cases[] = {
      {"com.korvane.tv.pepper.sampleplayer", "sampleplayer", "pluginName[sampleplayer]"},
      {"com.korvane.tv.xwalk.tv.channel", "tv.channel", "pluginName[tv.channel]"},
      {"org.pepper.xwalk.a", "xwalk.a", "pluginName[xwalk.a]"},
      {"com.korvane.tv.xwalk.pepper.x", "x", "pluginName[x]"},
      {"my.pepper.pepper.y", "pepper.y", "pluginName[pepper.y]"},
      {"xwalk.a.pepper.", "", "get plugin name fail"},
      {"com.korvane.tv.pepper.", "", "get plugin name fail"},
      {"com.korvane.tv.xwalk.", "", "get plugin name fail"},
      {"com.korvane.tv.Pepper.x", "before", "invalid pkgid:[com.korvane.tv.Pepper.x]"},
      {"", "before", "empty id"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE("[" + c.id + "]");
    wup_test::ClearLog();
    std::string id = c.id;
    std::string name = "before";
    EXPECT_EQ(util_.GetPluginNameByID(id, name), !c.name.empty() && c.name != "before");
    EXPECT_EQ(name, c.name);
    EXPECT_EQ(LogMessages(), (Lines{c.log}));
  }
}

TEST_F(PluginDataQueriesTest, AllowListIsRawTextAndForceNeedsExactlyTrue) {
  const std::string raw = " com.korvane.tv.browser, com.korvane.tv.store ,x";
  Install({{strMETADATA_APPLIST_KEY, raw}, {strMETADATA_FORCE_KEY, "true"}});
  std::string list;
  EXPECT_TRUE(util_.CheckTPKofAppWhiteList(kId, list));
  EXPECT_EQ(list, raw);
  EXPECT_TRUE(util_.CheckTPKForceMetadata(kId));
  EXPECT_EQ(LogMessages(),
            (Lines{Found(strMETADATA_APPLIST_KEY, raw), Found(strMETADATA_FORCE_KEY, "true")}));
  for (const std::string value : {"TRUE", "True", " true", "1", "yes"}) {
    Install({{strMETADATA_FORCE_KEY, value}});
    EXPECT_FALSE(util_.CheckTPKForceMetadata(kId)) << value;
  }
  list = "before";
  EXPECT_FALSE(util_.CheckTPKofAppWhiteList(kId, list));
  EXPECT_FALSE(util_.CheckTPKForceMetadata("com.korvane.tv.pepper.absent"));
  EXPECT_EQ(list, "before");
  EXPECT_EQ(LogMessages().back(), NotFound(strMETADATA_APPLIST_KEY)) << "an absent application is silent";
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
  Install({{strMETADATA_TYPE_KEY, "xwalkplugin"}, {strMETADATA_APPLIST_KEY, "a"}});
  const std::string root = wup_test::Device().rwApp + "/" + kId;
  const struct {
    std::string failing;
    int releases;
    Lines log;
  } cases[] = {
      {"pkgmgrinfo_appinfo_get_appinfo", 0, {"get plugin type fail!"}},
      {"pkgmgrinfo_appinfo_get_root_path",
       3,
       {Found(strMETADATA_TYPE_KEY, "xwalkplugin"), kTag + " type is [0]",
        Found(strMETADATA_APPLIST_KEY, "a")}},
      {"pkgmgrinfo_appinfo_get_metadata_value",
       3,
       {kTag + "'s root path:[" + root + "]", NotFound(strMETADATA_TYPE_KEY), "get plugin type fail!",
        NotFound(strMETADATA_APPLIST_KEY)}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.failing);
    setenv("HOST_PKGMGRINFO_FAIL", c.failing.c_str(), 1);
    wup_test::ClearLog();
    host_pkgmgrinfo_reset_counters();
    std::string path = "before";
    std::string list = "before";
    EXPECT_EQ(util_.m_GetRootPath(kId, path), c.failing == "pkgmgrinfo_appinfo_get_metadata_value");
    util_.GetPluginType(kId);
    EXPECT_EQ(util_.CheckTPKofAppWhiteList(kId, list), c.failing == "pkgmgrinfo_appinfo_get_root_path");
    EXPECT_EQ(path, c.failing == "pkgmgrinfo_appinfo_get_metadata_value" ? root : "before");
    EXPECT_EQ(list, c.failing == "pkgmgrinfo_appinfo_get_root_path" ? "a" : "before");
    EXPECT_EQ(LogMessages(), c.log);
    EXPECT_EQ(host_pkgmgrinfo_calls("pkgmgrinfo_appinfo_destroy_appinfo"), c.releases);
  }
}

}  // namespace
