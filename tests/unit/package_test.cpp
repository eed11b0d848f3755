// PluginDataUtil on the packages of the sandbox device: the metadata queries with their exact log, and
// the records that MakeInsertedMap builds for one package (install location and paths of pepper, b2b
// pepper and xwalk plug-ins, and failures that leave the map as it was). Every package-information record
// is released exactly once on every path.
#include <pkgmgr-info-host.h>

#include <cstdlib>

#include "PluginDataUtil.h"
#include "unit.h"

namespace {

using namespace wup_test;

const std::string kPepper = "com.korvane.tv.pepper.sampleplayer";
const std::string kXwalk = "com.korvane.tv.xwalk.tv";
const std::string kTag = "[" + kPepper + "]";
const std::string& kTypeKey = strMETADATA_TYPE_KEY;
const std::string& kListKey = strMETADATA_APPLIST_KEY;
const std::string& kForceKey = strMETADATA_FORCE_KEY;
const int kLocations[] = {INSTALLED_ONLY_RO, INSTALLED_ONLY_RW, INSTALLED_BOTH_RO_RW};

std::string Found(const std::string& key, const std::string& value) {
  return kTag + "key:[" + key + "]value:[" + value + "]";
}
std::string NotFound(const std::string& key) { return kTag + " NO <" + key + "> metadata"; }
std::string RoResources(const std::string& id) { return Device().roApp + "/" + id + "/shared/res/"; }

class PackageTest : public ::testing::Test {
 protected:
  void SetUp() override {
    unsetenv("HOST_PKGMGRINFO_FAIL");
    Place({});
  }
  void TearDown() override {
    unsetenv("HOST_PKGMGRINFO_FAIL");
    EXPECT_EQ(host_pkgmgrinfo_open_handles(), 0) << "a package-information record was not released";
    EXPECT_EQ(host_pkgmgrinfo_bad_destroys(), 0) << "a record was released twice, or one never obtained";
  }

  // Lays the package out as the package manager would for that install location and returns its root
  // path; an updated preloaded package keeps its read-only copy. The log and the counts start afresh.
  static std::string Place(const Metadata& metadata, const std::string& id = kPepper,
                           int location = INSTALLED_ONLY_RW) {
    Device().Reset();
    const bool preloaded = location == INSTALLED_ONLY_RO;
    WriteManifest(preloaded ? Device().roPackages : Device().rwPackages, id, "1.10.2", {id}, metadata);
    if (location == INSTALLED_BOTH_RO_RW) MakeDirs(RoResources(id));
    const std::string root = (preloaded ? Device().roApp : Device().rwApp) + "/" + id;
    MakeDirs(root + "/shared/res");
    ClearLog();
    host_pkgmgrinfo_reset_counters();
    return root;
  }

  static Lines LocationLog(const std::string& id, const std::string& root, int location) {
    const Lines lines[] = {
        {"Can't find [" + Device().rwApp + "/] keywords in dest[" + root + "]!", "INSTALLED_ONLY_RO!"},
        {"INSTALLED_ONLY_RW!"},
        {"INSTALLED_BOTH_RO_RW!"}};
    Lines log{"[" + id + "]'s root path:[" + root + "]"};
    log.insert(log.end(), lines[location].begin(), lines[location].end());
    return log;
  }

  PluginDataUtil util_;
};

// Type, allow-list and force flag are taken from the metadata value as it is: no trimming, no case folding.
TEST_F(PackageTest, MetadataValuesAreTakenExactly) {
  const std::pair<std::string, PLUGIN_TYPE> cases[] = {
      {"pepperplugin", PEPPER_PLUGIN}, {"xwalkplugin", XWALK_PLUGIN}, {"b2bpepperplugin", B2B_PEPPER_PLUGIN},
      {"xwalkplugin ", UNKNOWN_PLUGIN}, {"Pepperplugin", UNKNOWN_PLUGIN}, {"", UNKNOWN_PLUGIN},
      {"true", UNKNOWN_PLUGIN}, {" true", UNKNOWN_PLUGIN}, {"True", UNKNOWN_PLUGIN},
      {" com.korvane.tv.browser, x ,y", UNKNOWN_PLUGIN}};
  for (const auto& [value, type] : cases) {
    SCOPED_TRACE("[" + value + "]");
    Place({{kTypeKey, value}, {kListKey, value}, {kForceKey, value}});
    std::string list;
    EXPECT_EQ(util_.GetPluginType(kPepper), type);
    EXPECT_TRUE(util_.CheckTPKofAppWhiteList(kPepper, list));
    EXPECT_EQ(list, value);
    EXPECT_EQ(util_.CheckTPKForceMetadata(kPepper), value == "true");
    EXPECT_EQ(LogMessages(), (Lines{Found(kTypeKey, value), kTag + " type is [" + std::to_string(type) + "]",
                                    Found(kListKey, value), Found(kForceKey, value)}));
  }
  // Absent metadata: the key without its namespace is another key; an absent application is silent.
  Place({{"upgradable_webapi_type", "pepperplugin"}});
  std::string list = "before";
  EXPECT_EQ(util_.GetPluginType(kPepper), UNKNOWN_PLUGIN);
  EXPECT_FALSE(util_.CheckTPKofAppWhiteList(kPepper, list));
  EXPECT_FALSE(util_.CheckTPKForceMetadata("com.korvane.tv.pepper.absent"));
  EXPECT_EQ(list, "before");
  EXPECT_EQ(LogMessages(), (Lines{NotFound(kTypeKey), "get plugin type fail!", NotFound(kListKey)}));
}

TEST_F(PackageTest, PluginNameIsWhatFollowsTheFirstPepperOrElseXwalkFragment) {
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
    ClearLog();
    std::string id = constId;
    std::string name = "before";
    EXPECT_EQ(util_.GetPluginNameByID(id, name), !expected.empty() && expected != "before");
    EXPECT_EQ(name, expected);
    EXPECT_EQ(LogMessages(), (Lines{log}));
  }
}

TEST_F(PackageTest, VersionOfThePackageAndItsFailures) {
  std::string version;
  EXPECT_TRUE(util_.GetTPKVersionByID(kPepper, version));
  EXPECT_EQ(version, "1.10.2");
  EXPECT_FALSE(util_.GetTPKVersionByID("", version));
  EXPECT_EQ(host_pkgmgrinfo_calls("pkgmgrinfo_pkginfo_get_pkginfo"), 1) << "an empty id must not reach the platform";
  EXPECT_FALSE(util_.GetTPKVersionByID("com.korvane.tv.pepper.absent", version));
  setenv("HOST_PKGMGRINFO_FAIL", "pkgmgrinfo_pkginfo_get_version", 1);
  EXPECT_FALSE(util_.GetTPKVersionByID(kPepper, version));
  EXPECT_EQ(version, "1.10.2");
  EXPECT_EQ(host_pkgmgrinfo_calls("pkgmgrinfo_pkginfo_destroy_pkginfo"), 2);
  EXPECT_EQ(LogMessages(), (Lines{"the param can't be empty!!", "get [com.korvane.tv.pepper.absent] info fail!!",
                                  "get " + kTag + " version fail!!"}));
}

// Each application query with each of its platform calls failing: the answer, the log line or the
// required silence, and the release of every application record that was obtained.
TEST_F(PackageTest, FailingPlatformCallsAreReportedOrSilentAsRequired) {
  const std::string root = Place({{kTypeKey, "xwalkplugin"}, {kListKey, "a"}});
  const struct {
    std::string call;  // pkgmgrinfo_appinfo_<call>
    int releases;
    Lines log;
  } cases[] = {
      {"get_appinfo", 0, {"get plugin type fail!"}},
      {"get_root_path", 3, {Found(kTypeKey, "xwalkplugin"), kTag + " type is [0]", Found(kListKey, "a")}},
      {"get_metadata_value",
       3,
       {kTag + "'s root path:[" + root + "]", NotFound(kTypeKey), "get plugin type fail!", NotFound(kListKey)}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.call);
    setenv("HOST_PKGMGRINFO_FAIL", ("pkgmgrinfo_appinfo_" + c.call).c_str(), 1);
    ClearLog();
    host_pkgmgrinfo_reset_counters();
    std::string path = "before";
    std::string list = "before";
    EXPECT_EQ(util_.m_GetRootPath(kPepper, path), c.call == "get_metadata_value");
    util_.GetPluginType(kPepper);
    EXPECT_EQ(util_.CheckTPKofAppWhiteList(kPepper, list), c.call == "get_root_path");
    EXPECT_EQ(path, c.call == "get_metadata_value" ? root : "before");
    EXPECT_EQ(list, c.call == "get_root_path" ? "a" : "before");
    EXPECT_EQ(LogMessages(), c.log);
    EXPECT_EQ(host_pkgmgrinfo_calls("pkgmgrinfo_appinfo_destroy_appinfo"), c.releases);
  }
}

TEST_F(PackageTest, PepperPackagesYieldOneRecordForEachInstallLocation) {
  for (PLUGIN_TYPE kind : {PEPPER_PLUGIN, B2B_PEPPER_PLUGIN}) {
    for (int location : kLocations) {
      SCOPED_TRACE("location " + std::to_string(location) + ", kind " + std::to_string(kind));
      const std::string root = Place({}, kPepper, location);
      PluginDataMap out;
      ASSERT_TRUE(util_.MakeInsertedMap(kPepper, "sampleplayer", kind, out));
      ASSERT_EQ(out.size(), 1u);
      const _PluginData& record = out.at("sampleplayer");
      EXPECT_EQ(record.name, "sampleplayer");
      EXPECT_EQ(record.pluginType, kind);
      EXPECT_EQ(record.isUpdate, location);
      EXPECT_EQ(record.path, root + "/shared/res/");
      // A preloaded package's system copy is named without being looked for.
      EXPECT_EQ(record.systemPath, location == INSTALLED_ONLY_RW ? "" : RoResources(kPepper));
      EXPECT_EQ(record.version + record.pkgid + record.entryPoints + record.appWhiteList, "");
      EXPECT_EQ(LogMessages(), LocationLog(kPepper, root, location));
    }
  }
}

TEST_F(PackageTest, XwalkPackagesYieldTheirDescribedExtensionsInTheirOwnResourceDirectory) {
  for (int location : kLocations) {
    SCOPED_TRACE("location " + std::to_string(location));
    const std::string res = Place({}, kXwalk, location) + "/shared/res/";
    WriteFile(res + "channel.json", R"([
      {"name": "tv.channel", "lib": "/usr/lib/tizen-extensions-crosswalk/libtv-channel.so", "version": "3.1"},
      {"name": "tv.channel", "lib": "/elsewhere/libshadowed.so"}])");
    WriteFile(res + "audio.json", R"([{"name": "tv.audio", "lib": "libtv-audio.so"}])");
    PluginDataMap out;
    PLUGIN_TYPE kind = XWALK_PLUGIN;
    ASSERT_TRUE(util_.MakeInsertedMap(kXwalk, "tv", kind, out));
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(out.at("tv.channel").version + " " + out.at("tv.channel").pkgid, "3.1 com.korvane.tv.xwalk.tv.channel");
    // Of a name described twice only the first description counts, and of a library only its file part.
    const std::pair<std::string, std::string> libraries[] = {{"tv.channel", "libtv-channel.so"},
                                                             {"tv.audio", "libtv-audio.so"}};
    for (const auto& [name, file] : libraries) {
      EXPECT_EQ(out.at(name).path, res + file);
      EXPECT_EQ(out.at(name).systemPath, location == INSTALLED_ONLY_RW ? "" : RoResources(kXwalk) + file);
      EXPECT_EQ(out.at(name).isUpdate, location);
    }
  }
}

// Every failure returns before anything is inserted: the caller's map comes back as it went in.
TEST_F(PackageTest, BuilderFailuresLeaveTheMapAsItWasWithTheirOwnLog) {
  const std::string root = Place({}, kXwalk);
  RemoveTree(root + "/shared");
  const std::string res = root + "/shared/res/";
  struct {
    std::string id;
    PLUGIN_TYPE kind;
    Lines log;  // after the install location's log, if any
  } cases[] = {
      {"com.korvane.tv.xwalk.absent", XWALK_PLUGIN, {}},  // no root path: silent here
      {kXwalk,
       XWALK_PLUGIN,
       {"GetXwalkInfo,path = " + res, "open [" + res + "] fail!", "get xwalk extension info fail, path = " + res}},
      {kXwalk, UNKNOWN_PLUGIN, {"unknown plugin type[99]"}},
  };
  PluginDataMap out;
  out["earlier"].path = "/usr/lib/libearlier.so";
  for (auto& c : cases) {
    SCOPED_TRACE(c.id + " kind " + std::to_string(c.kind));
    ClearLog();
    EXPECT_FALSE(util_.MakeInsertedMap(c.id, "tv", c.kind, out));
    Lines expected = c.log.empty() ? Lines{} : LocationLog(kXwalk, root, INSTALLED_ONLY_RW);
    expected.insert(expected.end(), c.log.begin(), c.log.end());
    EXPECT_EQ(LogMessages(), expected);
    EXPECT_EQ(out.size(), 1u);
    EXPECT_EQ(out.at("earlier").path + "|" + out.at("earlier").systemPath, "/usr/lib/libearlier.so|");
  }
}

}  // namespace
