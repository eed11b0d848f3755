// Reading web-runtime extension description files into plug-in records.
#include <dirent.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sstream>

#include "PluginDataUtil.h"
#include "log_capture.h"
#include "sandbox.h"

namespace {

class XwalkDescriptionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = wup_test::MakeTempDir("wup-ext") + "/";
    wup_test::ClearLog();
  }
  void TearDown() override { wup_test::RemoveTree(dir_); }

  void Write(const std::string& name, const std::string& content) { wup_test::WriteFile(dir_ + name, content); }

  // The order in which the directory lists its entries, which decides which description wins.
  std::vector<std::string> ListingOrder() {
    std::vector<std::string> names;
    DIR* dir = opendir(dir_.c_str());
    while (dirent* entry = readdir(dir)) names.push_back(entry->d_name);
    closedir(dir);
    return names;
  }

  PluginDataUtil util_;
  PluginDataMap map_;
  std::string dir_;
};

TEST_F(XwalkDescriptionTest, ReadsOnlyNamesEndingInDotJson) {
  Write("a.json", R"([{"name": "a"}])");
  Write("b.JSON", R"([{"name": "b"}])");
  Write(".json", R"([{"name": "dot"}])");
  Write("x.json.bak", R"([{"name": "bak"}])");
  Write(".hidden.json", R"([{"name": "hidden"}])");
  Write("json", R"([{"name": "short"}])");

  ASSERT_TRUE(util_.GetXwalkInfo(dir_, map_));
  EXPECT_EQ(2u, map_.size());
  EXPECT_EQ(1u, map_.count("a"));
  EXPECT_EQ(1u, map_.count("hidden"));

  std::vector<std::string> files;
  for (const std::string& message : wup_test::LogMessages()) {
    if (message.rfind("strFile = ", 0) == 0) files.push_back(message);
  }
  EXPECT_EQ(2u, files.size());
  EXPECT_TRUE(wup_test::LogHas("GetXwalkInfo,path = " + dir_));
  EXPECT_TRUE(wup_test::LogHas("strFile = " + dir_ + "a.json"));
  EXPECT_TRUE(wup_test::LogHas("m_ParseXwalkJsonFile, path = " + dir_ + "a.json"));
}

TEST_F(XwalkDescriptionTest, RecordCarriesTheDescriptionAndDefaultsForWhatIsMissing) {
  Write("ext.json", R"([
    {"name": "tv.channel", "lib": "/usr/lib/ext/libchannel.so", "version": "2.1.0",
     "entry_points": ["tizen.tvchannel", "tizen.tvwindow"], "unknown": 1},
    {"name": "n", "lib": "libn.so"},
    {"name": "typed", "version": 3, "lib": true, "entry_points": ["a", ""]},
    {"name": "blank", "version": ""}
  ])");
  ASSERT_TRUE(util_.GetXwalkInfo(dir_, map_));
  ASSERT_EQ(4u, map_.size());

  const _PluginData& channel = map_["tv.channel"];
  EXPECT_EQ("tv.channel", channel.name);
  EXPECT_EQ("2.1.0", channel.version);
  EXPECT_EQ("/usr/lib/ext/libchannel.so", channel.path);
  EXPECT_EQ("com.korvane.tv.xwalk.tv.channel", channel.pkgid);
  EXPECT_EQ("tizen.tvchannel,tizen.tvwindow", channel.entryPoints);
  EXPECT_EQ(XWALK_PLUGIN, channel.pluginType);
  EXPECT_EQ(0, channel.hasForceMetaData);
  EXPECT_EQ(0, channel.isUpdate);
  EXPECT_TRUE(channel.appWhiteList.empty() && channel.systemPath.empty());

  const _PluginData& n = map_["n"];
  EXPECT_EQ("0.0.0", n.version);
  EXPECT_EQ("", n.entryPoints);
  EXPECT_EQ("libn.so", n.path);
  EXPECT_EQ("com.korvane.tv.xwalk.n", n.pkgid);

  // Numbers and booleans in text positions arrive as their text; an empty entry keeps its separator.
  EXPECT_EQ("3", map_["typed"].version);
  EXPECT_EQ("true", map_["typed"].path);
  EXPECT_EQ("a,", map_["typed"].entryPoints);
  EXPECT_EQ("0.0.0", map_["blank"].version);
}

TEST_F(XwalkDescriptionTest, FirstDescriptionOfANameWins) {
  Write("one.json", R"([{"name": "dup", "version": "1"}, {"name": "dup", "version": "1b"}])");
  Write("two.json", R"([{"name": "dup", "version": "2"}, {"name": "kept", "version": "9"}])");
  map_["kept"].version = "caller";

  ASSERT_TRUE(util_.GetXwalkInfo(dir_, map_));
  std::string firstListed;
  for (const std::string& name : ListingOrder()) {
    if (name == "one.json" || name == "two.json") {
      firstListed = name;
      break;
    }
  }
  EXPECT_EQ(firstListed == "one.json" ? "1" : "2", map_["dup"].version);
  EXPECT_EQ("caller", map_["kept"].version);
}

TEST_F(XwalkDescriptionTest, ElementsWithoutNameShareTheEmptyKeyFirstOneKept) {
  Write("anon.json", R"([null, {"lib": "second.so"}])");
  ASSERT_TRUE(util_.GetXwalkInfo(dir_, map_));
  ASSERT_EQ(1u, map_.size());
  const _PluginData& anonymous = map_[""];
  EXPECT_EQ("", anonymous.path);
  EXPECT_EQ("0.0.0", anonymous.version);
  EXPECT_EQ("com.korvane.tv.xwalk.", anonymous.pkgid);
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

  Json::CharReaderBuilder builder;
  Json::Value ignored;
  std::string expectedError;
  std::istringstream brokenStream(broken);
  ASSERT_FALSE(Json::parseFromStream(builder, brokenStream, &ignored, &expectedError));

  const wup_test::Watchdog watchdog;
  ASSERT_TRUE(util_.GetXwalkInfo(dir_, map_));
  EXPECT_EQ(1u, map_.size());
  EXPECT_EQ(1u, map_.count("good"));
  EXPECT_TRUE(wup_test::LogHas("file:[" + dir_ + "broken.json],err:[" + expectedError + "]"));
  EXPECT_TRUE(wup_test::LogHas("file:[" + dir_ + "deep.json],err:[Exceeded stackLimit in readValue().]"));
  EXPECT_TRUE(wup_test::LogHas("open " + dir_ + "fifo.json fail"));
  EXPECT_TRUE(wup_test::LogHas("open " + dir_ + "zero.json fail"));
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
  ASSERT_EQ(3u, map_.size());
  EXPECT_EQ(1u, map_.count("ok"));
  EXPECT_EQ("", map_["plain"].entryPoints);
  EXPECT_EQ("", map_["none"].entryPoints);

  EXPECT_TRUE(wup_test::LogHas("file:[" + dir_ + "object.json] holds no array of extensions, skipped"));
  for (int element : {0, 1, 2, 3, 4, 5}) {
    EXPECT_TRUE(wup_test::LogHas("file:[" + dir_ + "mixed.json] element " + std::to_string(element) +
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
  EXPECT_TRUE(wup_test::LogHas("path is empty!"));
  EXPECT_FALSE(util_.GetXwalkInfo(dir_ + "missing/", map_));
  EXPECT_TRUE(wup_test::LogHas("open [" + dir_ + "missing/] fail!"));

  EXPECT_FALSE(util_.m_ParseXwalkJsonFile("", map_));
  EXPECT_TRUE(wup_test::LogHas("strPath is empty!"));
  EXPECT_FALSE(util_.m_ParseXwalkJsonFile(dir_ + "none.json", map_));
  EXPECT_TRUE(wup_test::LogHas("open " + dir_ + "none.json fail"));
  EXPECT_EQ(1u, map_.size());
}

TEST_F(XwalkDescriptionTest, EntryPointsAreJoinedWithCommasOnly) {
  auto join = [this](const std::string& text) {
    Json::Value value;
    std::istringstream in(text);
    Json::CharReaderBuilder builder;
    std::string errors;
    EXPECT_TRUE(Json::parseFromStream(builder, in, &value, &errors)) << text;
    return util_.m_GetEntryPoints(value);
  };
  EXPECT_EQ("a,b", join(R"(["a", "b"])"));
  EXPECT_EQ("a,", join(R"(["a", ""])"));
  EXPECT_EQ(",b", join(R"(["", "b"])"));
  EXPECT_EQ("one", join(R"(["one"])"));
  EXPECT_EQ("x, y", join(R"(["x, y"])"));
  EXPECT_EQ("", join("[]"));
  EXPECT_EQ("", join("null"));
}

TEST(PluginDataUtilConstruction, DeviceWithoutBuiltInExtensionsGivesAnEmptyMap) {
  struct stat st;
  if (stat(strXWALK_EXTENSION_DIR.c_str(), &st) == 0) GTEST_SKIP() << "this machine has built-in extensions";
  wup_test::ClearLog();
  PluginDataUtil util;
  EXPECT_TRUE(util.BuiltInExtensions().empty());
  EXPECT_TRUE(wup_test::LogHas("open [/usr/lib/tizen-extensions-crosswalk/] fail!"));
}

}  // namespace
