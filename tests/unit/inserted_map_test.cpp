// The records that PluginDataUtil::MakeInsertedMap builds for one package on the sandbox device: install
// location, paths of pepper, b2b pepper and xwalk plug-ins, and the failures that must leave the caller's
// map as it was.
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

enum class Where { kReadOnly, kWritable, kBoth };

std::string Describe(Where where) {
  switch (where) {
    case Where::kReadOnly:
      return "read-only";
    case Where::kWritable:
      return "writable";
    case Where::kBoth:
      return "both";
  }
  return "?";
}

class InsertedMapTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Device().Reset();
    unsetenv("HOST_PKGMGRINFO_FAIL");
    host_pkgmgrinfo_reset_counters();
  }
  void TearDown() override {
    unsetenv("HOST_PKGMGRINFO_FAIL");
    EXPECT_EQ(host_pkgmgrinfo_open_handles(), 0);
    EXPECT_EQ(host_pkgmgrinfo_bad_destroys(), 0);
  }

  // Lays the package out where the package manager would, with its resource directories; returns the
  // root path the plug-in will be told. An updated preloaded package keeps its read-only copy.
  static std::string Place(const std::string& id, Where where) {
    Device().Reset();
    if (where == Where::kReadOnly) {
      wup_test::InstallReadOnly(id, "1.0.0", {});
    } else {
      wup_test::InstallWritable(id, "2.0.0", {});
    }
    if (where == Where::kBoth) wup_test::MakeDirs(RoResources(id));
    const std::string root = (where == Where::kReadOnly ? Device().roApp : Device().rwApp) + "/" + id;
    wup_test::MakeDirs(root + "/shared/res");
    wup_test::ClearLog();
    return root;
  }

  static std::string RoResources(const std::string& id) { return Device().roApp + "/" + id + "/shared/res/"; }

  static Lines LocationLog(const std::string& id, const std::string& root, Where where) {
    Lines lines{"[" + id + "]'s root path:[" + root + "]"};
    switch (where) {
      case Where::kReadOnly:
        lines.push_back("Can't find [" + Device().rwApp + "/] keywords in dest[" + root + "]!");
        lines.push_back("INSTALLED_ONLY_RO!");
        break;
      case Where::kWritable:
        lines.push_back("INSTALLED_ONLY_RW!");
        break;
      case Where::kBoth:
        lines.push_back("INSTALLED_BOTH_RO_RW!");
        break;
    }
    return lines;
  }

  static int Code(Where where) {
    return where == Where::kReadOnly ? INSTALLED_ONLY_RO
                                     : (where == Where::kWritable ? INSTALLED_ONLY_RW : INSTALLED_BOTH_RO_RW);
  }

  PluginDataUtil util_;
};

TEST_F(InsertedMapTest, PepperPackagesYieldOneRecordPerInstallLocation) {
  for (PLUGIN_TYPE kind : {PEPPER_PLUGIN, B2B_PEPPER_PLUGIN}) {
    for (Where where : {Where::kReadOnly, Where::kWritable, Where::kBoth}) {
      SCOPED_TRACE(Describe(where) + ", kind " + std::to_string(kind));
      const std::string root = Place(kPepper, where);
      PluginDataMap out;
      PLUGIN_TYPE asked = kind;
      ASSERT_TRUE(util_.MakeInsertedMap(kPepper, "sampleplayer", asked, out));
      ASSERT_EQ(out.size(), 1u);
      ASSERT_EQ(out.count("sampleplayer"), 1u);
      const _PluginData& record = out.at("sampleplayer");
      EXPECT_EQ(record.name, "sampleplayer");
      EXPECT_EQ(record.pluginType, kind);
      EXPECT_EQ(record.isUpdate, Code(where));
      EXPECT_EQ(record.path, root + "/shared/res/");
      // A preloaded package's system copy is named without looking for it.
      EXPECT_EQ(record.systemPath, where == Where::kWritable ? "" : RoResources(kPepper));
      EXPECT_EQ(record.version, "");
      EXPECT_EQ(record.pkgid, "");
      EXPECT_EQ(record.entryPoints, "");
      EXPECT_EQ(record.hasForceMetaData, 0);
      EXPECT_EQ(record.appWhiteList, "");
      EXPECT_EQ(LogMessages(), LocationLog(kPepper, root, where));
    }
  }
}

TEST_F(InsertedMapTest, PepperRecordDoesNotReplaceOneAlreadyInTheMap) {
  Place(kPepper, Where::kWritable);
  PluginDataMap out;
  out["sampleplayer"].path = "kept";
  PLUGIN_TYPE kind = PEPPER_PLUGIN;
  EXPECT_TRUE(util_.MakeInsertedMap(kPepper, "sampleplayer", kind, out));
  ASSERT_EQ(out.size(), 1u);
  EXPECT_EQ(out.at("sampleplayer").path, "kept");
}

TEST_F(InsertedMapTest, XwalkPackagesYieldTheirDescribedExtensionsInTheirOwnResourceDirectory) {
  for (Where where : {Where::kReadOnly, Where::kWritable, Where::kBoth}) {
    SCOPED_TRACE(Describe(where));
    const std::string root = Place(kXwalk, where);
    const std::string res = root + "/shared/res/";
    wup_test::WriteFile(res + "channel.json", R"([
      {"name": "tv.channel", "lib": "/usr/lib/tizen-extensions-crosswalk/libtv-channel.so", "version": "3.1",
       "entry_points": ["tizen.tvchannel", "tizen.TVChannel"]},
      {"name": "tv.channel", "lib": "/elsewhere/libshadowed.so", "version": "9.9"},
      {"name": "tv.shared", "lib": "/first/libshared.so"}
    ])");
    wup_test::WriteFile(res + "audio.json", R"([
      {"name": "tv.audio", "lib": "libtv-audio.so", "version": "1.0", "entry_points": ["tizen.tvaudio"]},
      {"name": "tv.shared", "lib": "/second/libshared.so"}
    ])");
    wup_test::WriteFile(res + "notes.txt", R"([{"name": "not.a.description", "lib": "x.so"}])");
    const std::string system = where == Where::kWritable ? "" : RoResources(kXwalk);
    PluginDataMap out;
    PLUGIN_TYPE kind = XWALK_PLUGIN;
    ASSERT_TRUE(util_.MakeInsertedMap(kXwalk, "tv", kind, out));

    ASSERT_EQ(out.size(), 3u);
    const _PluginData& channel = out.at("tv.channel");
    EXPECT_EQ(channel.version, "3.1");
    EXPECT_EQ(channel.pkgid, "com.korvane.tv.xwalk.tv.channel");
    EXPECT_EQ(channel.entryPoints, "tizen.tvchannel,tizen.TVChannel");
    EXPECT_EQ(channel.pluginType, XWALK_PLUGIN);
    EXPECT_EQ(channel.isUpdate, Code(where));
    EXPECT_EQ(channel.path, res + "libtv-channel.so");
    EXPECT_EQ(channel.systemPath, system.empty() ? "" : system + "libtv-channel.so");

    const _PluginData& audio = out.at("tv.audio");
    EXPECT_EQ(audio.path, res + "libtv-audio.so") << "a library named without a directory is kept whole";
    EXPECT_EQ(audio.systemPath, system.empty() ? "" : system + "libtv-audio.so");
    EXPECT_EQ(audio.isUpdate, Code(where));

    // Whichever file came first, only the file part of its library counts.
    const _PluginData& shared = out.at("tv.shared");
    EXPECT_EQ(shared.path, res + "libshared.so");
    EXPECT_EQ(shared.version, "0.0.0");

    const Lines log = LogMessages();
    const Lines location = LocationLog(kXwalk, root, where);
    ASSERT_GE(log.size(), location.size() + 1);
    EXPECT_EQ(Lines(log.begin(), log.begin() + location.size()), location);
    EXPECT_EQ(log[location.size()], "GetXwalkInfo,path = " + res);
  }
}

TEST_F(InsertedMapTest, XwalkPackageWithoutDescriptionsYieldsNoRecordsButSucceeds) {
  const std::string root = Place(kXwalk, Where::kWritable);
  wup_test::WriteFile(root + "/shared/res/broken.json", "[{\"name\": ");
  PluginDataMap out;
  PLUGIN_TYPE kind = XWALK_PLUGIN;
  EXPECT_TRUE(util_.MakeInsertedMap(kXwalk, "tv", kind, out));
  EXPECT_TRUE(out.empty());
}

// Every failure returns before anything is inserted or rewritten: the caller's map comes back as it went in.
TEST_F(InsertedMapTest, FailuresLeaveTheMapAsItWas) {
  PluginDataMap out;
  _PluginData& sentinel = out["earlier"];
  sentinel.path = "/usr/lib/libearlier.so";
  sentinel.pluginType = XWALK_PLUGIN;
  const auto untouched = [&] {
    EXPECT_EQ(out.size(), 1u);
    EXPECT_EQ(out.at("earlier").path, "/usr/lib/libearlier.so");
    EXPECT_EQ(out.at("earlier").isUpdate, 0);
    EXPECT_EQ(out.at("earlier").systemPath, "");
  };

  {
    SCOPED_TRACE("no such application");
    Device().Reset();
    wup_test::ClearLog();
    PLUGIN_TYPE kind = PEPPER_PLUGIN;
    EXPECT_FALSE(util_.MakeInsertedMap(kPepper, "sampleplayer", kind, out));
    EXPECT_TRUE(LogMessages().empty());
    untouched();
  }
  {
    SCOPED_TRACE("root path unavailable");
    Place(kPepper, Where::kWritable);
    setenv("HOST_PKGMGRINFO_FAIL", "pkgmgrinfo_appinfo_get_root_path", 1);
    PLUGIN_TYPE kind = PEPPER_PLUGIN;
    EXPECT_FALSE(util_.MakeInsertedMap(kPepper, "sampleplayer", kind, out));
    unsetenv("HOST_PKGMGRINFO_FAIL");
    EXPECT_TRUE(LogMessages().empty());
    untouched();
  }
  {
    SCOPED_TRACE("xwalk package without a resource directory");
    const std::string root = Place(kXwalk, Where::kWritable);
    wup_test::RemoveTree(root + "/shared");
    PLUGIN_TYPE kind = XWALK_PLUGIN;
    EXPECT_FALSE(util_.MakeInsertedMap(kXwalk, "tv", kind, out));
    const std::string res = root + "/shared/res/";
    Lines expected = LocationLog(kXwalk, root, Where::kWritable);
    expected.insert(expected.end(), {"GetXwalkInfo,path = " + res, "open [" + res + "] fail!",
                                     "get xwalk extension info fail, path = " + res});
    EXPECT_EQ(LogMessages(), expected);
    untouched();
  }
  {
    SCOPED_TRACE("unknown kind");
    const std::string root = Place(kPepper, Where::kBoth);
    PLUGIN_TYPE kind = UNKNOWN_PLUGIN;
    EXPECT_FALSE(util_.MakeInsertedMap(kPepper, "sampleplayer", kind, out));
    Lines expected = LocationLog(kPepper, root, Where::kBoth);
    expected.push_back("unknown plugin type[99]");
    EXPECT_EQ(LogMessages(), expected);
    untouched();
  }
}

}  // namespace
