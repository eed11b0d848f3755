// PluginDataUtil on the sandbox device: the metadata queries with their exact log, extension description
// files, and the records MakeInsertedMap builds for one package (install location and paths, failures that
// leave the map as it was). Every package-information record is released exactly once on every path.
#include <json/json.h>
#include <pkgmgr-info-host.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <sstream>

#include "PluginDataUtil.h"
#include "unit.h"

namespace {

using namespace wup_test;
using ::testing::IsSupersetOf;

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

class PluginDataTest : public ::testing::Test {
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

  // Lays the package out at that install location (an updated preloaded one keeps its read-only copy).
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

  void Write(const std::string& name, const std::string& content) { WriteFile(dir_ + name, content); }

  PluginDataUtil util_;
  PluginDataMap map_;
  const std::string dir_ = Device().root + "/";  // of description files
};

// Type, allow-list and force flag are taken from the metadata value as it is: no trimming, no case folding.
TEST_F(PluginDataTest, MetadataValuesAreTakenExactly) {
  // The three kinds, then values of none.
  const std::string values[] = {
      "pepperplugin", "xwalkplugin", "b2bpepperplugin", "xwalkplugin ", "Pepperplugin", "", "true",
      " true",        "True",        " app.one, x ,y"};
  const PLUGIN_TYPE kinds[] = {PEPPER_PLUGIN, XWALK_PLUGIN, B2B_PEPPER_PLUGIN};
  for (size_t i = 0; i < std::size(values); ++i) {
    const std::string& value = values[i];
    const PLUGIN_TYPE type = i < std::size(kinds) ? kinds[i] : UNKNOWN_PLUGIN;
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

TEST_F(PluginDataTest, PluginNameIsWhatFollowsTheFirstPepperOrElseXwalkFragment) {
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
    std::string id = constId, name = "before";
    EXPECT_EQ(util_.GetPluginNameByID(id, name), !expected.empty() && expected != "before");
    EXPECT_EQ(name, expected);
    EXPECT_EQ(LogMessages(), (Lines{log}));
  }
}

TEST_F(PluginDataTest, VersionOfThePackageAndItsFailures) {
  std::string version;
  EXPECT_TRUE(util_.GetTPKVersionByID(kPepper, version));
  EXPECT_EQ(version, "1.10.2");
  EXPECT_FALSE(util_.GetTPKVersionByID("", version));
  EXPECT_EQ(host_pkgmgrinfo_calls("pkgmgrinfo_pkginfo_get_pkginfo"), 1)
      << "an empty id must not reach the platform";
  EXPECT_FALSE(util_.GetTPKVersionByID("com.korvane.tv.pepper.absent", version));
  setenv("HOST_PKGMGRINFO_FAIL", "pkgmgrinfo_pkginfo_get_version", 1);
  EXPECT_FALSE(util_.GetTPKVersionByID(kPepper, version));
  EXPECT_EQ(version, "1.10.2");
  EXPECT_EQ(host_pkgmgrinfo_calls("pkgmgrinfo_pkginfo_destroy_pkginfo"), 2);
  EXPECT_EQ(LogMessages(),
            (Lines{"the param can't be empty!!", "get [com.korvane.tv.pepper.absent] info fail!!",
                   "get " + kTag + " version fail!!"}));
}

// Each application query with each of its platform calls failing: the answer, the log line or silence.
TEST_F(PluginDataTest, FailingPlatformCallsAreReportedOrSilentAsRequired) {
  const std::string root = Place({{kTypeKey, "xwalkplugin"}, {kListKey, "a"}});
  const struct {
    std::string call;  // pkgmgrinfo_appinfo_<call>
    int releases;
    Lines log;
  } cases[] = {
      // clang-format off
      {"get_appinfo", 0, {"get plugin type fail!"}},
      {"get_root_path", 3, {Found(kTypeKey, "xwalkplugin"), kTag + " type is [0]", Found(kListKey, "a")}},
      {"get_metadata_value", 3, {kTag + "'s root path:[" + root + "]", NotFound(kTypeKey),
          "get plugin type fail!", NotFound(kListKey)}},
      // clang-format on
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.call);
    setenv("HOST_PKGMGRINFO_FAIL", ("pkgmgrinfo_appinfo_" + c.call).c_str(), 1);
    ClearLog();
    host_pkgmgrinfo_reset_counters();
    std::string path = "before", list = "before";
    EXPECT_EQ(util_.m_GetRootPath(kPepper, path), c.call == "get_metadata_value");
    util_.GetPluginType(kPepper);
    EXPECT_EQ(util_.CheckTPKofAppWhiteList(kPepper, list), c.call == "get_root_path");
    EXPECT_EQ(path, c.call == "get_metadata_value" ? root : "before");
    EXPECT_EQ(list, c.call == "get_root_path" ? "a" : "before");
    EXPECT_EQ(LogMessages(), c.log);
    EXPECT_EQ(host_pkgmgrinfo_calls("pkgmgrinfo_appinfo_destroy_appinfo"), c.releases);
  }
}

TEST_F(PluginDataTest, RecordCarriesTheDescriptionAndDefaultsForWhatIsMissing) {
  // Only files whose names end in ".json" (and are longer than that) are read.
  for (const char* name : {"a.json", "b.JSON", ".json", "x.json.bak", ".hidden.json", "json"})
    Write(name, std::string(R"([{"name": ")") + name + "\"}]");
  Write("ext.json", R"([
    {"name": "tv.channel", "lib": "/usr/lib/ext/libchannel.so", "version": "2.1.0",
     "entry_points": ["tizen.tvchannel", "tizen.tvwindow"], "unknown": 1},
    {"name": "n", "lib": "libn.so"},
    {"name": "typed", "version": 3, "lib": true, "entry_points": ["a", ""]},
    {"name": "blank", "version": ""},
    {"name": "n", "lib": "second description of n"}, {"name": "kept", "version": "file"}, null
  ])");
  map_["kept"].version = "caller";
  ASSERT_TRUE(util_.GetXwalkInfo(dir_, map_));
  ASSERT_EQ(map_.size(), 8u);
  EXPECT_EQ(map_.count("a.json") + map_.count(".hidden.json"), 2u);
  EXPECT_THAT(LogMessages(), IsSupersetOf(Lines{"GetXwalkInfo,path = " + dir_, "strFile = " + dir_ + "a.json",
                                                "m_ParseXwalkJsonFile, path = " + dir_ + "a.json"}));

  EXPECT_EQ(Text(map_["tv.channel"]),
            "tv.channel|2.1.0|/usr/lib/ext/libchannel.so|com.korvane.tv.xwalk.tv.channel|"
            "tizen.tvchannel,tizen.tvwindow|0|0|0||");
  // The first description of a name wins, and an entry the caller's map already had stays.
  EXPECT_EQ(Text(map_["n"]), "n|0.0.0|libn.so|com.korvane.tv.xwalk.n||0|0|0||");
  EXPECT_EQ(map_["kept"].version, "caller");
  // Numbers and booleans in text positions arrive as their text; an empty entry keeps its separator.
  EXPECT_EQ(Text(map_["typed"]), "typed|3|true|com.korvane.tv.xwalk.typed|a,|0|0|0||");
  EXPECT_EQ(map_["blank"].version, "0.0.0");
  // A null element describes an extension without a name.
  EXPECT_EQ(Text(map_[""]), "|0.0.0||com.korvane.tv.xwalk.||0|0|0||");
}

// A bad description file is logged and skipped, never thrown out of the plug-in, and the others are read.
TEST_F(PluginDataTest, BadDescriptionFilesAreLoggedAndSkippedWhileTheOthersAreRead) {
  const std::string broken = R"([{"name": "bad", "lib": }])";
  Write("broken.json", broken);
  // Deeper than the parser's limit: it refuses by throwing rather than by reporting an error.
  Write("deep.json", std::string(2000, '[') + std::string(2000, ']'));
  // A FIFO would block a plain open for ever, a device would never end.
  ASSERT_EQ(mkfifo((dir_ + "fifo.json").c_str(), 0644), 0);
  ASSERT_EQ(symlink("/dev/zero", (dir_ + "zero.json").c_str()), 0);
  Write("object.json", R"({"name": "fromobject", "lib": "x.so"})");
  Write("string.json", R"("just text")");
  Write("null.json", "null");
  Write("empty.json", "[]");
  Write("mixed.json", R"([1, "text", ["nested"], {"name": ["array"]}, {"name": "e", "entry_points": {"a": 1}},
                         {"name": "f", "entry_points": [{"x": 1}]}, {"name": "ok"},
                         {"name": "plain", "entry_points": "a"}, {"name": "none", "entry_points": {}}])");
  Json::Value ignored;
  std::string error;
  std::istringstream in(broken);
  ASSERT_FALSE(Json::parseFromStream(Json::CharReaderBuilder(), in, &ignored, &error));

  const Watchdog watchdog;
  bool listed = false;
  ASSERT_NO_THROW(listed = util_.GetXwalkInfo(dir_, map_));
  EXPECT_TRUE(listed);
  ASSERT_EQ(map_.size(), 3u);
  EXPECT_EQ(map_.count("ok"), 1u);
  EXPECT_EQ(map_["plain"].entryPoints + map_["none"].entryPoints, "");
  // clang-format off
  Lines expected = {"file:[" + dir_ + "broken.json],err:[" + error + "]", "file:[" + dir_ +
      "deep.json],err:[Exceeded stackLimit in readValue().]", "open " + dir_ + "fifo.json fail", "open " + dir_ +
      "zero.json fail", "file:[" + dir_ + "object.json] holds no array of extensions, skipped",
      "strPath is empty!", "open " + dir_ + "none.json fail", "path is empty!", "open [" + dir_ + "missing/] fail!"};
  // clang-format on
  for (int element = 0; element < 6; ++element)
    expected.push_back("file:[" + dir_ + "mixed.json] element " + std::to_string(element) +
                       " is not an extension description, skipped");
  // One file or directory alone; what cannot be read leaves the map as it was.
  PluginDataMap single;
  EXPECT_FALSE(util_.m_ParseXwalkJsonFile(dir_ + "broken.json", single));
  EXPECT_FALSE(util_.m_ParseXwalkJsonFile("", single));
  EXPECT_FALSE(util_.m_ParseXwalkJsonFile(dir_ + "none.json", single));
  EXPECT_FALSE(util_.GetXwalkInfo("", single));
  EXPECT_FALSE(util_.GetXwalkInfo(dir_ + "missing/", single));
  EXPECT_TRUE(util_.m_ParseXwalkJsonFile(dir_ + "null.json", single));
  EXPECT_TRUE(util_.m_ParseXwalkJsonFile(dir_ + "empty.json", single));
  EXPECT_TRUE(single.empty());
  EXPECT_THAT(LogMessages(), IsSupersetOf(expected));
}

// For each install location: one record of a pepper package (of either pepper kind), and of an xwalk
// package its described extensions, each with paths in the package's own resource directory.
TEST_F(PluginDataTest, RecordsOfAPackageFollowItsInstallLocation) {
  for (int location : kLocations) {
    SCOPED_TRACE("location " + std::to_string(location));
    for (PLUGIN_TYPE kind : {PEPPER_PLUGIN, B2B_PEPPER_PLUGIN}) {
      const std::string root = Place({}, kPepper, location);
      PluginDataMap out;
      ASSERT_TRUE(util_.MakeInsertedMap(kPepper, "sampleplayer", kind, out));
      ASSERT_EQ(out.size(), 1u);
      // A preloaded package's system copy is named without being looked for.
      const std::string system = location == INSTALLED_ONLY_RW ? "" : RoResources(kPepper);
      EXPECT_EQ(Text(out.at("sampleplayer")), "sampleplayer||" + root + "/shared/res/|||" +
                                                  std::to_string(kind) + "|0|" + std::to_string(location) +
                                                  "||" + system);
      EXPECT_EQ(LogMessages(), LocationLog(kPepper, root, location));
    }

    const std::string res = Place({}, kXwalk, location) + "/shared/res/";
    WriteFile(res + "channel.json", R"([
      {"name": "tv.channel", "lib": "/usr/lib/tizen-extensions-crosswalk/libtv-channel.so", "version": "3.1"},
      {"name": "tv.channel", "lib": "/elsewhere/libshadowed.so"}])");
    WriteFile(res + "audio.json", R"([{"name": "tv.audio", "lib": "libtv-audio.so"}])");
    PluginDataMap out;
    PLUGIN_TYPE kind = XWALK_PLUGIN;
    ASSERT_TRUE(util_.MakeInsertedMap(kXwalk, "tv", kind, out));
    ASSERT_EQ(out.size(), 2u);
    // Of a name described twice only the first description counts, and of a library only its file part.
    const std::string system = location == INSTALLED_ONLY_RW ? "" : RoResources(kXwalk);
    for (const auto& [name, version, lib] :
         {std::array<std::string, 3>{"tv.channel", "3.1", "libtv-channel.so"},
          {"tv.audio", "0.0.0", "libtv-audio.so"}})
      EXPECT_EQ(Text(out.at(name)), name + "|" + version + "|" + res + lib + "|com.korvane.tv.xwalk." + name +
                                        "||0|0|" + std::to_string(location) + "||" +
                                        (system.empty() ? "" : system + lib));
  }
}

// Every failure returns before anything is inserted: the caller's map comes back as it went in.
TEST_F(PluginDataTest, BuilderFailuresLeaveTheMapAsItWasWithTheirOwnLog) {
  const std::string root = Place({}, kXwalk);
  RemoveTree(root + "/shared");
  const std::string res = root + "/shared/res/";
  struct {
    std::string id;
    PLUGIN_TYPE kind;
    Lines log;  // after the install location's log, if any
  } cases[] = {
      // clang-format off
      {"com.korvane.tv.xwalk.absent", XWALK_PLUGIN, {}},  // no root path: silent here
      {kXwalk, XWALK_PLUGIN, {"GetXwalkInfo,path = " + res, "open [" + res + "] fail!",
          "get xwalk extension info fail, path = " + res}},
      {kXwalk, UNKNOWN_PLUGIN, {"unknown plugin type[99]"}},
      // clang-format on
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
