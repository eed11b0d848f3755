// The records that PluginDataUtil::MakeInsertedMap builds for one package on the sandbox device: install
// location and paths of pepper, b2b pepper and xwalk plug-ins, and failures that leave the map as it was.
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
const std::string kXwalk = "com.korvane.tv.xwalk.tv";
const int kLocations[] = {INSTALLED_ONLY_RO, INSTALLED_ONLY_RW, INSTALLED_BOTH_RO_RW};

class InsertedMapTest : public ::testing::Test {
 protected:
  void TearDown() override {
    EXPECT_EQ(host_pkgmgrinfo_open_handles(), 0);
    EXPECT_EQ(host_pkgmgrinfo_bad_destroys(), 0);
  }

  // Lays the package out as the package manager would for that install location and returns its root
  // path; an updated preloaded package keeps its read-only copy. The log starts empty.
  static std::string Place(const std::string& id, int location) {
    Device().Reset();
    const bool preloaded = location == INSTALLED_ONLY_RO;
    wup_test::WriteManifest(preloaded ? Device().roPackages : Device().rwPackages, id, "1.0.0", {id});
    if (location == INSTALLED_BOTH_RO_RW) wup_test::MakeDirs(RoResources(id));
    const std::string root = (preloaded ? Device().roApp : Device().rwApp) + "/" + id;
    wup_test::MakeDirs(root + "/shared/res");
    wup_test::ClearLog();
    return root;
  }
  static std::string RoResources(const std::string& id) { return Device().roApp + "/" + id + "/shared/res/"; }

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

TEST_F(InsertedMapTest, PepperPackagesYieldOneRecordForEachInstallLocation) {
  for (PLUGIN_TYPE kind : {PEPPER_PLUGIN, B2B_PEPPER_PLUGIN}) {
    for (int location : kLocations) {
      SCOPED_TRACE("location " + std::to_string(location) + ", kind " + std::to_string(kind));
      const std::string root = Place(kPepper, location);
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

TEST_F(InsertedMapTest, XwalkPackagesYieldTheirDescribedExtensionsInTheirOwnResourceDirectory) {
  for (int location : kLocations) {
    SCOPED_TRACE("location " + std::to_string(location));
    const std::string res = Place(kXwalk, location) + "/shared/res/";
    wup_test::WriteFile(res + "channel.json", R"([
      {"name": "tv.channel", "lib": "/usr/lib/tizen-extensions-crosswalk/libtv-channel.so", "version": "3.1"},
      {"name": "tv.channel", "lib": "/elsewhere/libshadowed.so"}])");
    wup_test::WriteFile(res + "audio.json", R"([{"name": "tv.audio", "lib": "libtv-audio.so"}])");
    PluginDataMap out;
    PLUGIN_TYPE kind = XWALK_PLUGIN;
    ASSERT_TRUE(util_.MakeInsertedMap(kXwalk, "tv", kind, out));
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(out.at("tv.channel").version + " " + out.at("tv.channel").pkgid,
              "3.1 com.korvane.tv.xwalk.tv.channel");
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

// Every failure returns before anything is inserted or rewritten: the caller's map comes back as it went in.
TEST_F(InsertedMapTest, FailuresLeaveTheMapAsItWasWithTheirOwnLog) {
  const std::string root = Place(kXwalk, INSTALLED_ONLY_RW);
  wup_test::RemoveTree(root + "/shared");
  const std::string res = root + "/shared/res/";
  struct {
    std::string id;
    PLUGIN_TYPE kind;
    Lines log;  // after the install location's log, if any
  } cases[] = {
      {"com.korvane.tv.xwalk.absent", XWALK_PLUGIN, {}},  // no root path: silent here
      {kXwalk,
       XWALK_PLUGIN,
       {"GetXwalkInfo,path = " + res, "open [" + res + "] fail!",
        "get xwalk extension info fail, path = " + res}},
      {kXwalk, UNKNOWN_PLUGIN, {"unknown plugin type[99]"}},
  };
  PluginDataMap out;
  out["earlier"].path = "/usr/lib/libearlier.so";
  for (auto& c : cases) {
    SCOPED_TRACE(c.id + " kind " + std::to_string(c.kind));
    wup_test::ClearLog();
    EXPECT_FALSE(util_.MakeInsertedMap(c.id, "tv", c.kind, out));
    Lines expected = c.log.empty() ? Lines{} : LocationLog(kXwalk, root, INSTALLED_ONLY_RW);
    expected.insert(expected.end(), c.log.begin(), c.log.end());
    EXPECT_EQ(LogMessages(), expected);
    EXPECT_EQ(out.size(), 1u);
    EXPECT_EQ(out.at("earlier").path + "|" + out.at("earlier").systemPath, "/usr/lib/libearlier.so|");
  }
}

}  // namespace
