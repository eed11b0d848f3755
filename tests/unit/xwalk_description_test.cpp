// Reading web-runtime extension description files into plug-in records.
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sstream>

#include "PluginDataUtil.h"
#include "unit.h"

namespace {

using namespace wup_test;

class XwalkDescriptionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Device().Reset();
    ClearLog();
  }
  void Write(const std::string& name, const std::string& content) { WriteFile(dir_ + name, content); }

  PluginDataUtil util_;
  PluginDataMap map_;
  const std::string dir_ = Device().root + "/";
};

TEST_F(XwalkDescriptionTest, ReadsOnlyNamesEndingInDotJson) {
  for (const char* name : {"a.json", "b.JSON", ".json", "x.json.bak", ".hidden.json", "json"}) {
    Write(name, std::string(R"([{"name": ")") + name + "\"}]");
  }
  ASSERT_TRUE(util_.GetXwalkInfo(dir_, map_));
  EXPECT_EQ(map_.size(), 2u);
  EXPECT_EQ(map_.count("a.json") + map_.count(".hidden.json"), 2u);
  Lines files;
  for (const std::string& message : LogMessages()) {
    if (message.rfind("strFile = ", 0) == 0) files.push_back(message);
  }
  EXPECT_EQ(files.size(), 2u);
  EXPECT_TRUE(LogHas("GetXwalkInfo,path = " + dir_));
  EXPECT_TRUE(LogHas("strFile = " + dir_ + "a.json"));
  EXPECT_TRUE(LogHas("m_ParseXwalkJsonFile, path = " + dir_ + "a.json"));
}

TEST_F(XwalkDescriptionTest, RecordCarriesTheDescriptionAndDefaultsForWhatIsMissing) {
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
  ASSERT_EQ(map_.size(), 6u);

  const _PluginData& channel = map_["tv.channel"];
  EXPECT_EQ(channel.name, "tv.channel");
  EXPECT_EQ(channel.version, "2.1.0");
  EXPECT_EQ(channel.path, "/usr/lib/ext/libchannel.so");
  EXPECT_EQ(channel.pkgid, "com.korvane.tv.xwalk.tv.channel");
  EXPECT_EQ(channel.entryPoints, "tizen.tvchannel,tizen.tvwindow");
  EXPECT_EQ(channel.pluginType, XWALK_PLUGIN);
  EXPECT_EQ(channel.hasForceMetaData + channel.isUpdate, 0);
  EXPECT_EQ(channel.appWhiteList + channel.systemPath, "");

  // The first description of a name wins, and an entry the caller's map already had stays.
  const _PluginData& n = map_["n"];
  EXPECT_EQ(n.version + " " + n.path + " " + n.pkgid + " [" + n.entryPoints + "]", "0.0.0 libn.so com.korvane.tv.xwalk.n []");
  EXPECT_EQ(map_["kept"].version, "caller");
  // Numbers and booleans in text positions arrive as their text; an empty entry keeps its separator.
  EXPECT_EQ(map_["typed"].version + " " + map_["typed"].path + " " + map_["typed"].entryPoints, "3 true a,");
  EXPECT_EQ(map_["blank"].version, "0.0.0");
  // A null element describes an extension without a name.
  EXPECT_EQ(map_[""].version + " " + map_[""].pkgid, "0.0.0 com.korvane.tv.xwalk.");
}

TEST_F(XwalkDescriptionTest, BrokenOrHostileFilesAreLoggedAndSkippedWhileTheOthersAreRead) {
  const std::string broken = R"([{"name": "bad", "lib": }])";
  Write("broken.json", broken);
  Write("good.json", R"([{"name": "good"}])");
  // Deeper than the parser's limit: it refuses by throwing rather than by reporting an error.
  Write("deep.json", std::string(2000, '[') + std::string(2000, ']'));
  // A FIFO would block a plain open for ever, a device would never end.
  ASSERT_EQ(mkfifo((dir_ + "fifo.json").c_str(), 0644), 0);
  ASSERT_EQ(symlink("/dev/zero", (dir_ + "zero.json").c_str()), 0);

  Json::Value ignored;
  std::string expectedError;
  std::istringstream brokenStream(broken);
  ASSERT_FALSE(Json::parseFromStream(Json::CharReaderBuilder(), brokenStream, &ignored, &expectedError));

  const Watchdog watchdog;
  ASSERT_TRUE(util_.GetXwalkInfo(dir_, map_));
  EXPECT_EQ(map_.size(), 1u);
  EXPECT_EQ(map_.count("good"), 1u);
  EXPECT_TRUE(LogHas("file:[" + dir_ + "broken.json],err:[" + expectedError + "]"));
  EXPECT_TRUE(LogHas("file:[" + dir_ + "deep.json],err:[Exceeded stackLimit in readValue().]"));
  EXPECT_TRUE(LogHas("open " + dir_ + "fifo.json fail"));
  EXPECT_TRUE(LogHas("open " + dir_ + "zero.json fail"));
  EXPECT_FALSE(util_.m_ParseXwalkJsonFile(dir_ + "broken.json", map_));
}

TEST_F(XwalkDescriptionTest, RootsAndElementsOfTheWrongShapeAreSkippedWithoutThrowing) {
  Write("object.json", R"({"name": "fromobject", "lib": "x.so"})");
  Write("string.json", R"("just text")");
  Write("null.json", "null");
  Write("empty.json", "[]");
  Write("mixed.json", R"([1, "text", ["nested"], {"name": ["array"]}, {"name": "e", "entry_points": {"a": 1}},
                         {"name": "f", "entry_points": [{"x": 1}]}, {"name": "ok"},
                         {"name": "plain", "entry_points": "a"}, {"name": "none", "entry_points": {}}])");

  bool listed = false;
  ASSERT_NO_THROW(listed = util_.GetXwalkInfo(dir_, map_));
  EXPECT_TRUE(listed);
  ASSERT_EQ(map_.size(), 3u);
  EXPECT_EQ(map_.count("ok"), 1u);
  EXPECT_EQ(map_["plain"].entryPoints + map_["none"].entryPoints, "");
  EXPECT_TRUE(LogHas("file:[" + dir_ + "object.json] holds no array of extensions, skipped"));
  for (int element = 0; element < 6; ++element) {
    EXPECT_TRUE(LogHas("file:[" + dir_ + "mixed.json] element " + std::to_string(element) +
                       " is not an extension description, skipped"))
        << element;
  }
  PluginDataMap single;
  EXPECT_TRUE(util_.m_ParseXwalkJsonFile(dir_ + "null.json", single));
  EXPECT_TRUE(util_.m_ParseXwalkJsonFile(dir_ + "empty.json", single));
  EXPECT_TRUE(single.empty());
}

TEST_F(XwalkDescriptionTest, UnreadableDirectoryOrFileFailsAndLeavesTheMapAlone) {
  map_["existing"].version = "1";
  EXPECT_FALSE(util_.GetXwalkInfo("", map_));
  EXPECT_FALSE(util_.GetXwalkInfo(dir_ + "missing/", map_));
  EXPECT_FALSE(util_.m_ParseXwalkJsonFile("", map_));
  EXPECT_FALSE(util_.m_ParseXwalkJsonFile(dir_ + "none.json", map_));
  EXPECT_THAT(LogMessages(), ::testing::IsSupersetOf(Lines{"path is empty!", "open [" + dir_ + "missing/] fail!",
                                                           "strPath is empty!", "open " + dir_ + "none.json fail"}));
  EXPECT_EQ(map_.size(), 1u);
}

TEST(PluginDataUtilConstruction, DeviceWithoutBuiltInExtensionsGivesAnEmptyMap) {
  struct stat st;
  if (stat(strXWALK_EXTENSION_DIR.c_str(), &st) == 0) GTEST_SKIP() << "this machine has built-in extensions";
  ClearLog();
  PluginDataUtil util;
  EXPECT_TRUE(util.BuiltInExtensions().empty());
  EXPECT_TRUE(LogHas("open [/usr/lib/tizen-extensions-crosswalk/] fail!"));
}

}  // namespace
