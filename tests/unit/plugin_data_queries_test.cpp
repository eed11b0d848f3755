// Package metadata queries of PluginDataUtil against packages on the sandbox device: the kind, name,
// allow-list, force flag, root path and version of a package, what is logged for each answer, and that
// every record of the package-information service is released exactly once on every path.
#include <gtest/gtest.h>
#include <pkgmgr-info-host.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "PluginDataUtil.h"
#include "log_capture.h"
#include "sample_packages.h"

namespace {

using wup_test::Device;
using wup_test::LogMessages;
using Lines = std::vector<std::string>;

const std::string kPepper = "com.korvane.tv.pepper.sampleplayer";

class PluginDataQueriesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Device().Reset();
    unsetenv("HOST_PKGMGRINFO_FAIL");
    host_pkgmgrinfo_reset_counters();
    wup_test::ClearLog();
  }
  void TearDown() override {
    unsetenv("HOST_PKGMGRINFO_FAIL");
    EXPECT_EQ(host_pkgmgrinfo_open_handles(), 0) << "a package-information record was not released";
    EXPECT_EQ(host_pkgmgrinfo_bad_destroys(), 0) << "a record was released twice or never obtained";
  }

  // The package manager is installing a package that exists only with this metadata.
  void Install(const wup_test::Metadata& metadata) {
    wup_test::InstallWritable(kPepper, "1.0.0", metadata);
    wup_test::ClearLog();
    host_pkgmgrinfo_reset_counters();
  }

  static int Calls(const char* function) { return host_pkgmgrinfo_calls(function); }

  PluginDataUtil util_;
};

TEST_F(PluginDataQueriesTest, PluginTypeIsDecidedByTheExactMetadataValue) {
  const struct {
    std::string value;
    PLUGIN_TYPE type;
  } cases[] = {
      {"pepperplugin", PEPPER_PLUGIN},
      {"xwalkplugin", XWALK_PLUGIN},
      {"b2bpepperplugin", B2B_PEPPER_PLUGIN},
      {"xwalkplugin ", UNKNOWN_PLUGIN},
      {"Pepperplugin", UNKNOWN_PLUGIN},
      {" b2bpepperplugin", UNKNOWN_PLUGIN},
      {"", UNKNOWN_PLUGIN},
      {"pepper", UNKNOWN_PLUGIN},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE("value [" + c.value + "]");
    Install({{strMETADATA_TYPE_KEY, c.value}});
    EXPECT_EQ(util_.GetPluginType(kPepper), c.type);
    EXPECT_EQ(LogMessages(),
              (Lines{"[" + kPepper + "]key:[" + strMETADATA_TYPE_KEY + "]value:[" + c.value + "]",
                     "[" + kPepper + "] type is [" + std::to_string(c.type) + "]"}));
    EXPECT_EQ(Calls("pkgmgrinfo_appinfo_destroy_appinfo"), 1);
  }
  // The kind line is what a field engineer filters for: tag, priority and place in front of it.
  const wup_test::LogEntry& line = wup_test::LogEntries().back();
  EXPECT_EQ(line.logId, 0);
  EXPECT_EQ(line.priority, 4);
  EXPECT_EQ(line.tag, "KelvoManager");
  EXPECT_EQ(line.text.rfind("PluginDataUtil.cpp: GetPluginType(", 0), 0u) << line.text;
}

TEST_F(PluginDataQueriesTest, MissingTypeKeyIsUnknownAndAMissingApplicationIsSilentAboutMetadata) {
  Install({{strMETADATA_FORCE_KEY, "true"}, {"upgradable_webapi_type", "pepperplugin"}});
  EXPECT_EQ(util_.GetPluginType(kPepper), UNKNOWN_PLUGIN);
  EXPECT_EQ(LogMessages(),
            (Lines{"[" + kPepper + "] NO <" + strMETADATA_TYPE_KEY + "> metadata", "get plugin type fail!"}));
  EXPECT_EQ(Calls("pkgmgrinfo_appinfo_destroy_appinfo"), 1);

  wup_test::ClearLog();
  EXPECT_EQ(util_.GetPluginType("com.korvane.tv.pepper.absent"), UNKNOWN_PLUGIN);
  EXPECT_EQ(LogMessages(), (Lines{"get plugin type fail!"}));
}

TEST_F(PluginDataQueriesTest, PluginNameIsWhatFollowsTheFirstPepperOrElseXwalkFragment) {
  const struct {
    std::string id;
    bool ok;
    std::string name;  // the output afterwards; it starts as "before"
    std::string log;
  } cases[] = {
      {"com.korvane.tv.pepper.sampleplayer", true, "sampleplayer", "pluginName[sampleplayer]"},
      {"com.korvane.tv.xwalk.tv.channel", true, "tv.channel", "pluginName[tv.channel]"},
      {"org.pepper.xwalk.a", true, "xwalk.a", "pluginName[xwalk.a]"},
      {"com.korvane.tv.xwalk.pepper.x", true, "x", "pluginName[x]"},
      {"mypepper.pepper.y", true, "pepper.y", "pluginName[pepper.y]"},
      // The pepper fragment wins even when nothing follows it.
      {"xwalk.a.pepper.", false, "", "get plugin name fail"},
      {"com.korvane.tv.pepper.", false, "", "get plugin name fail"},
      {"com.korvane.tv.xwalk.", false, "", "get plugin name fail"},
      {"com.korvane.tv.webapi.pepper", false, "before", "invalid pkgid:[com.korvane.tv.webapi.pepper]"},
      {"com.korvane.tv.Pepper.x", false, "before", "invalid pkgid:[com.korvane.tv.Pepper.x]"},
      {"", false, "before", "empty id"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE("id [" + c.id + "]");
    wup_test::ClearLog();
    std::string id = c.id;
    std::string name = "before";
    EXPECT_EQ(util_.GetPluginNameByID(id, name), c.ok);
    EXPECT_EQ(name, c.name);
    EXPECT_EQ(LogMessages(), (Lines{c.log}));
  }
  EXPECT_EQ(Calls("pkgmgrinfo_appinfo_get_appinfo") + Calls("pkgmgrinfo_pkginfo_get_pkginfo"), 0)
      << "the name comes from the id alone";
}

TEST_F(PluginDataQueriesTest, AllowListIsTheRawMetadataText) {
  const std::string raw = " com.korvane.tv.browser, com.korvane.tv.store ,x";
  Install({{strMETADATA_APPLIST_KEY, raw}});
  std::string list = "before";
  EXPECT_TRUE(util_.CheckTPKofAppWhiteList(kPepper, list));
  EXPECT_EQ(list, raw);
  EXPECT_EQ(LogMessages(),
            (Lines{"[" + kPepper + "]key:[" + strMETADATA_APPLIST_KEY + "]value:[" + raw + "]"}));

  Install({{strMETADATA_TYPE_KEY, "pepperplugin"}});
  list = "before";
  EXPECT_FALSE(util_.CheckTPKofAppWhiteList(kPepper, list));
  EXPECT_EQ(list, "before");
  EXPECT_EQ(LogMessages(), (Lines{"[" + kPepper + "] NO <" + strMETADATA_APPLIST_KEY + "> metadata"}));
}

TEST_F(PluginDataQueriesTest, ForcedUpdateOnlyForExactlyTrue) {
  Install({{strMETADATA_FORCE_KEY, "true"}});
  EXPECT_TRUE(util_.CheckTPKForceMetadata(kPepper));
  for (const std::string value : {"TRUE", "True", "true ", " true", "1", "yes", ""}) {
    SCOPED_TRACE("value [" + value + "]");
    Install({{strMETADATA_FORCE_KEY, value}});
    EXPECT_FALSE(util_.CheckTPKForceMetadata(kPepper));
    EXPECT_EQ(LogMessages(),
              (Lines{"[" + kPepper + "]key:[" + strMETADATA_FORCE_KEY + "]value:[" + value + "]"}));
  }
  Install({});
  EXPECT_FALSE(util_.CheckTPKForceMetadata(kPepper));
  EXPECT_FALSE(util_.CheckTPKForceMetadata("com.korvane.tv.pepper.absent"));
}

TEST_F(PluginDataQueriesTest, RootPathOfWritableAndPreloadedPackages) {
  wup_test::InstallWritable(kPepper, "1.0.0", {});
  wup_test::InstallReadOnly("com.korvane.tv.xwalk.tv", "1.0.0", {});
  wup_test::ClearLog();
  std::string root;
  EXPECT_TRUE(util_.m_GetRootPath(kPepper, root));
  EXPECT_EQ(root, Device().rwApp + "/" + kPepper);
  EXPECT_TRUE(util_.m_GetRootPath("com.korvane.tv.xwalk.tv", root));
  EXPECT_EQ(root, Device().roApp + "/com.korvane.tv.xwalk.tv");
  EXPECT_EQ(LogMessages(), (Lines{"[" + kPepper + "]'s root path:[" + Device().rwApp + "/" + kPepper + "]",
                                  "[com.korvane.tv.xwalk.tv]'s root path:[" + Device().roApp +
                                      "/com.korvane.tv.xwalk.tv]"}));

  wup_test::ClearLog();
  root = "before";
  EXPECT_FALSE(util_.m_GetRootPath("com.korvane.tv.pepper.absent", root));
  EXPECT_EQ(root, "before");
  EXPECT_TRUE(LogMessages().empty());
}

TEST_F(PluginDataQueriesTest, VersionOfThePackageAndItsFailures) {
  wup_test::InstallReadOnly(kPepper, "1.0.0", {});
  wup_test::InstallWritable(kPepper, "1.10.2", {});
  wup_test::ClearLog();
  std::string version;
  EXPECT_TRUE(util_.GetTPKVersionByID(kPepper, version));
  EXPECT_EQ(version, "1.10.2");
  EXPECT_TRUE(LogMessages().empty());
  EXPECT_EQ(Calls("pkgmgrinfo_pkginfo_destroy_pkginfo"), 1);

  version = "before";
  EXPECT_FALSE(util_.GetTPKVersionByID("", version));
  EXPECT_EQ(LogMessages(), (Lines{"the param can't be empty!!"}));
  EXPECT_EQ(Calls("pkgmgrinfo_pkginfo_get_pkginfo"), 1) << "an empty id must not reach the platform";

  wup_test::ClearLog();
  EXPECT_FALSE(util_.GetTPKVersionByID("com.korvane.tv.pepper.absent", version));
  EXPECT_EQ(LogMessages(), (Lines{"get [com.korvane.tv.pepper.absent] info fail!!"}));

  wup_test::ClearLog();
  wup_test::WriteFile(Device().rwPackages + "/broken.xml", "<manifest");
  EXPECT_FALSE(util_.GetTPKVersionByID("broken", version));
  EXPECT_EQ(LogMessages(), (Lines{"get [broken] info fail!!"}));

  wup_test::ClearLog();
  setenv("HOST_PKGMGRINFO_FAIL", "pkgmgrinfo_pkginfo_get_version", 1);
  EXPECT_FALSE(util_.GetTPKVersionByID(kPepper, version));
  EXPECT_EQ(LogMessages(), (Lines{"get [" + kPepper + "] version fail!!"}));
  EXPECT_EQ(version, "before");
  EXPECT_EQ(Calls("pkgmgrinfo_pkginfo_destroy_pkginfo"), 2) << "the record must be released after a failure";
}

// Each application query with each of its platform calls failing: the answer, the log line or the
// required silence, and the release of the application record whenever one was obtained.
TEST_F(PluginDataQueriesTest, FailingPlatformCallsAreReportedOrSilentAsRequired) {
  Install({{strMETADATA_TYPE_KEY, "xwalkplugin"}, {strMETADATA_APPLIST_KEY, "a"}});
  const std::string noType = "[" + kPepper + "] NO <" + strMETADATA_TYPE_KEY + "> metadata";
  const std::string noList = "[" + kPepper + "] NO <" + strMETADATA_APPLIST_KEY + "> metadata";
  const std::string noForce = "[" + kPepper + "] NO <" + strMETADATA_FORCE_KEY + "> metadata";
  const struct {
    std::string failing;
    int releases;  // application records obtained, and so to be released, by the four queries below
    Lines log;
  } cases[] = {
      {"pkgmgrinfo_appinfo_get_appinfo", 0, {"get plugin type fail!"}},
      {"pkgmgrinfo_appinfo_get_root_path",
       4,
       {"[" + kPepper + "]key:[" + strMETADATA_TYPE_KEY + "]value:[xwalkplugin]",
        "[" + kPepper + "] type is [0]", "[" + kPepper + "]key:[" + strMETADATA_APPLIST_KEY + "]value:[a]",
        noForce}},
      {"pkgmgrinfo_appinfo_get_metadata_value",
       4,
       {"[" + kPepper + "]'s root path:[" + Device().rwApp + "/" + kPepper + "]", noType,
        "get plugin type fail!", noList, noForce}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.failing);
    setenv("HOST_PKGMGRINFO_FAIL", c.failing.c_str(), 1);
    wup_test::ClearLog();
    host_pkgmgrinfo_reset_counters();
    std::string root = "before";
    std::string list = "before";
    const bool rootFound = util_.m_GetRootPath(kPepper, root);
    util_.GetPluginType(kPepper);
    const bool listFound = util_.CheckTPKofAppWhiteList(kPepper, list);
    EXPECT_FALSE(util_.CheckTPKForceMetadata(kPepper));
    EXPECT_EQ(rootFound, c.failing == "pkgmgrinfo_appinfo_get_metadata_value");
    EXPECT_EQ(root, rootFound ? Device().rwApp + "/" + kPepper : "before");
    EXPECT_EQ(listFound, c.failing == "pkgmgrinfo_appinfo_get_root_path");
    EXPECT_EQ(list, listFound ? "a" : "before");
    EXPECT_EQ(LogMessages(), c.log);
    EXPECT_EQ(Calls("pkgmgrinfo_appinfo_destroy_appinfo"), c.releases);
    EXPECT_EQ(host_pkgmgrinfo_open_handles(), 0);
  }
}

}  // namespace
