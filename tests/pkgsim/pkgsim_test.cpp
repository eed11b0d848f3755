// pkgsim as a user runs it: the built binary in processes of its own, on a fresh copy of the sample device,
// with the effects checked where they land (the plug-in's database, the result file, the record of
// terminations, the device's files).
#include <gtest/gtest.h>
#include <json/json.h>
#include <sqlite3.h>

#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "sandbox.h"

namespace fs = std::filesystem;
using wup_test::ReadFile;

namespace {

const std::string kExamples = PKGSIM_EXAMPLES_DIR;
const std::string kMediaPlayer = "com.korvane.tv.pepper.mediaplayer";
const std::string kDrmPlayer = "com.korvane.tv.pepper.drmplayer";
const std::string kTvInfo = "com.korvane.tv.xwalk.tvinfo";

using Records = std::map<std::string, std::string>;

struct Outcome {
  int status = -1;
  std::string out;
  std::string err;
};

// How often `needle` occurs in `text`.
int Occurrences(const std::string& text, const std::string& needle) {
  int count = 0;
  for (std::size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) ++count;
  return count;
}

class PkgsimTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = wup_test::MakeTempDir("pkgsim-test");
    device_ = root_ + "/device";
    ASSERT_EQ(Run({"init", "--sample", device_}).status, 0);
  }
  void TearDown() override { wup_test::RemoveTree(root_); }

  // pkgsim in a process of its own, with standard error sent to a file by the shell it replaces.
  Outcome Run(std::vector<std::string> args) {
    args.insert(args.begin(), {"/bin/sh", "-c", "exec \"$0\" \"$@\" 2>\"$PKGSIM_TEST_ERR\"", PKGSIM_BINARY});
    const wup_test::CommandResult result = wup_test::RunCommand(
        args, {"PKGSIM_TEST_ERR=" + root_ + "/stderr", "PKGSIM_DEVICE", "HOST_VEX_FAIL"});
    return {result.exited ? result.status : -1, result.output, ReadFile(root_ + "/stderr")};
  }
  // pkgsim on the device, expected to succeed and to print each of `shown`.
  Outcome Succeeds(std::vector<std::string> args, const std::vector<std::string>& shown = {}) {
    args.insert(args.begin(), {"--device", device_});
    const Outcome outcome = Run(args);
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    for (const std::string& text : shown) {
      EXPECT_NE(outcome.out.find(text), std::string::npos) << "'" << text << "' is not in:\n" << outcome.out;
    }
    return outcome;
  }
  Outcome Install(const std::string& package, const std::vector<std::string>& shown = {}) {
    return Succeeds({"install", package.front() == '/' ? package : Sample(package)}, shown);
  }
  static std::string Sample(const std::string& package) { return kExamples + "/packages/" + package; }

  // The plug-in's records by name, each the rest of its columns in table order joined with '|'.
  Records Rows() const {
    Records rows;
    sqlite3* db = nullptr;
    sqlite3_open_v2((device_ + "/opt/dbspace/.AppBinaryManager.db").c_str(), &db, SQLITE_OPEN_READONLY,
                    nullptr);
    auto add = [](void* records, int count, char** values, char**) {
      std::string row;
      for (int i = 1; i < count; ++i) row += (i > 1 ? "|" : "") + std::string(values[i] ? values[i] : "");
      (*static_cast<Records*>(records))[values[0]] = row;
      return 0;
    };
    sqlite3_exec(db, "SELECT * FROM pluginTable", add, &rows, nullptr);
    sqlite3_close(db);
    return rows;
  }
  std::string Terminated() const { return ReadFile(device_ + "/run/vex/terminated"); }
  std::string ResultPath() const {
    return device_ + "/opt/usr/apps/appbinarymanager/webapi_result/upgrade_webapi_result.json";
  }
  Json::Value Result() const {
    Json::Value document;
    std::istringstream(ReadFile(ResultPath())) >> document;  // throws, failing the test, on bad JSON
    return document;
  }
  // Every file and directory of the device with its content, to show that a refused request changed nothing.
  std::map<std::string, std::string> Tree() const {
    std::map<std::string, std::string> tree;
    for (const auto& entry : fs::recursive_directory_iterator(device_)) {
      tree[entry.path().string()] = entry.is_directory() ? "<dir>" : ReadFile(entry.path().string());
    }
    return tree;
  }
  std::string RwApp(const std::string& pkgid) const { return device_ + "/opt/usr/apps/" + pkgid; }
  std::string RoApp(const std::string& pkgid) const { return device_ + "/usr/apps/" + pkgid; }

  std::string root_;
  std::string device_;
};

TEST_F(PkgsimTest, PepperPluginIsInstalledReinstalledUpgradedAndUninstalled) {
  const std::string res = RwApp(kMediaPlayer) + "/shared/res/";
  const std::string rest = "|" + kMediaPlayer + "||1|0|1|Ab3Cd5Ef7G.SportsLive, Rs8Tu1Vw3X.MovieBox|";
  const std::string bothApps = "Ab3Cd5Ef7G.SportsLive\nRs8Tu1Vw3X.MovieBox\n";
  // Only the application with metadata of the namespace is handed over, and only those items, once.
  const Outcome installed = Install(
      "mediaplayer",
      {"calling PKGMGR_MDPARSER_PLUGIN_INSTALL(" + kMediaPlayer + ", " + kMediaPlayer +
       ", 2 items)\nchanges:\n  + mediaplayer 1.2.0 (pepper, isUpdate 1 writable area, " + kMediaPlayer +
       ")\n  result file: created\n  terminated: Ab3Cd5Ef7G.SportsLive, Rs8Tu1Vw3X.MovieBox\n"});
  EXPECT_EQ(installed.out.find("background-category"), std::string::npos);
  EXPECT_EQ(Occurrences(installed.out, "> METADATA INSTALL\n"), 1);
  EXPECT_TRUE(fs::is_regular_file(res + "libmediaplayer.so"));
  EXPECT_EQ(Rows(), (Records{{"mediaplayer", "1.2.0|" + res + rest}}));
  EXPECT_TRUE(Result()["upgradable_webapi_applist"]["pepper"].isMember("Rs8Tu1Vw3X.MovieBox"));
  EXPECT_EQ(Terminated(), bothApps);

  // The same version again is an upgrade to the plug-in, with nothing to store.
  const std::string resultBefore = ReadFile(ResultPath());
  const Outcome again =
      Succeeds({"--quiet", "install", Sample("mediaplayer")},
               {"calling PKGMGR_MDPARSER_PLUGIN_UPGRADE(" + kMediaPlayer + ", " + kMediaPlayer +
                ", 2 items)\nchanges:\n  plug-in records: no change\n  result file: not rewritten\n  "
                "terminated: none\n"});
  EXPECT_EQ(again.out.find("plug-in log"), std::string::npos);
  EXPECT_EQ(ReadFile(ResultPath()), resultBefore);

  const std::string newer = root_ + "/mediaplayer-1.3.0";
  fs::copy(Sample("mediaplayer"), newer, fs::copy_options::recursive);
  std::string manifest = ReadFile(newer + "/tizen-manifest.xml");
  manifest.replace(manifest.find("version=\"1.2.0\""), 15, "version=\"1.3.0\"");
  wup_test::WriteFile(newer + "/tizen-manifest.xml", manifest);
  const Outcome upgraded = Install(newer, {"upgrade of the installed 1.2.0",
                                           "  ~ mediaplayer replaced\n      version: [1.2.0] -> [1.3.0]\n"});
  EXPECT_EQ(Occurrences(upgraded.out, "> METADATA UPGRADE\n"), 1);
  EXPECT_EQ(Rows(), (Records{{"mediaplayer", "1.3.0|" + res + rest}}));
  EXPECT_EQ(Terminated(), bothApps + bothApps);

  Succeeds({"uninstall", kMediaPlayer}, {"calling PKGMGR_MDPARSER_PLUGIN_UNINSTALL(" + kMediaPlayer,
                                         "  - mediaplayer 1.3.0 (pepper, isUpdate 1 writable area, " +
                                             kMediaPlayer + ")\n  result file: rewritten\n"});
  EXPECT_TRUE(Rows().empty());
  EXPECT_FALSE(fs::exists(RwApp(kMediaPlayer)));
  EXPECT_FALSE(fs::exists(device_ + "/opt/share/packages/" + kMediaPlayer + ".xml"));
  EXPECT_FALSE(Result().isMember("upgradable_webapi_applist"));
}

TEST_F(PkgsimTest, PreloadedPluginIsUpdatedAndTheUpdateRemoved) {
  const std::string ro = RoApp(kDrmPlayer) + "/shared/res/", rw = RwApp(kDrmPlayer) + "/shared/res/";
  const std::string preloaded = "1.0.0|" + ro + "|" + kDrmPlayer + "||1|0|0|Ab3Cd5Ef7G.SportsLive|" + ro;
  Succeeds({"install", "--preload", Sample("drmplayer-1.0.0")});
  EXPECT_FALSE(fs::exists(RwApp(kDrmPlayer)));
  EXPECT_EQ(Rows(), (Records{{"drmplayer", preloaded}}));
  EXPECT_EQ(Terminated(), "") << "a read-only plug-in's allow-list is not used";

  Install("drmplayer-1.1.0",
          {"update of the preloaded 1.0.0", "calling PKGMGR_MDPARSER_PLUGIN_UPGRADE(" + kDrmPlayer});
  EXPECT_EQ(
      Rows(),
      (Records{{"drmplayer", "1.1.0|" + rw + "|" + kDrmPlayer + "||1|0|2|Ab3Cd5Ef7G.SportsLive|" + ro}}));
  EXPECT_EQ(ReadFile(ro + "libdrmplayer.so"),
            ReadFile(Sample("drmplayer-1.0.0") + "/shared/res/libdrmplayer.so"));
  EXPECT_EQ(Terminated(), "Ab3Cd5Ef7G.SportsLive\n");

  // Removing the update brings the preloaded version back into the records.
  Succeeds({"uninstall", kDrmPlayer}, {kDrmPlayer + " is back at its preloaded version 1.0.0"});
  EXPECT_FALSE(fs::exists(RwApp(kDrmPlayer)));
  EXPECT_TRUE(fs::is_regular_file(ro + "libdrmplayer.so"));
  EXPECT_EQ(Rows(), (Records{{"drmplayer", preloaded}}));
}

TEST_F(PkgsimTest, XwalkExtensionsAreRecordedBrokenOnesLoseNothingAndTheForegroundAppKeepsRunning) {
  Succeeds({"foreground", "Rs8Tu1Vw3X.MovieBox"});
  Install("signage");
  EXPECT_EQ(Rows(), (Records{{"signage", "1.0.0|" + RwApp("com.korvane.tv.pepper.signage") +
                                             "/shared/res/|com.korvane.tv.pepper.signage||2|0|1|"
                                             "Rs8Tu1Vw3X.MovieBox,Hj2Kl4Mn6P.TvGuide|"}}));
  EXPECT_EQ(Terminated(), "Hj2Kl4Mn6P.TvGuide\n");

  Succeeds({"foreground", "--none"});
  Records records = Rows();
  const std::string res = RwApp(kTvInfo) + "/shared/res/lib", rest = "|0|0|1|Hj2Kl4Mn6P.TvGuide|";
  records["tv.channel"] =
      "2.0.1|" + res + "tvchannel.so|" + kTvInfo + "|tizen.tvchannel,tizen.tvwindow" + rest;
  records["tv.audio"] = "2.0.1|" + res + "tvaudio.so|" + kTvInfo + "|tizen.tvaudiocontrol" + rest;
  records["tv.inputdevice"] = "2.0.1|" + res + "tvinputdevice.so|" + kTvInfo + "|tizen.tvinputdevice" + rest;
  Install("tvinfo",
          {"  + tv.audio 2.0.1 (xwalk", "  + tv.channel 2.0.1 (xwalk", "  + tv.inputdevice 2.0.1 (xwalk"});
  EXPECT_EQ(Rows(), records);
  EXPECT_EQ(Result()["forceupdate_webapi"]["xwalk"].size(), 3u);
  // The rewrite walks every record's allow-list: signage's two applications, then each extension's one.
  const std::string guide = "Hj2Kl4Mn6P.TvGuide\n";
  EXPECT_EQ(Terminated(), guide + "Rs8Tu1Vw3X.MovieBox\n" + guide + guide + guide + guide);

  // A package whose description file cannot be read loses nothing that is there.
  const std::string result = ReadFile(ResultPath());
  Install("weather-broken",
          {"  plug-in records: no change\n",
           "> file:[" + RwApp("com.korvane.tv.xwalk.weather") + "/shared/res/weather.json]"});
  EXPECT_EQ(Rows(), records);
  EXPECT_EQ(ReadFile(ResultPath()), result);
}

TEST_F(PkgsimTest, BadInputIsRefusedWithOneLineAndTheDeviceUntouched) {
  Install("mediaplayer");
  Succeeds({"install", "--preload", Sample("drmplayer-1.0.0")});
  const std::string empty = root_ + "/empty", malformed = root_ + "/malformed", nowhere = root_ + "/nowhere";
  wup_test::MakeDirs(empty);
  wup_test::MakeDirs(malformed);
  wup_test::WriteFile(malformed + "/tizen-manifest.xml", "<manifest package=\"com.korvane.tv.pepper.x\"");
  const std::string signage = Sample("signage");
  const std::string noDevice =
      "pkgsim: no device at " + nowhere + " (create one: pkgsim init " + nowhere + ")\n";
  const auto tree = Tree();

  // A message without its final newline is the start of the line; the rest is the library's.
  const std::vector<std::pair<std::vector<std::string>, std::string>> refused = {
      {{"--device", device_, "install", empty}, "pkgsim: no tizen-manifest.xml in " + empty + "\n"},
      {{"--device", device_, "install", root_ + "/missing"},
       "pkgsim: " + root_ + "/missing is not a package directory\n"},
      {{"--device", device_, "install", malformed}, "pkgsim: malformed manifest: " + malformed + "/tizen-manifest.xml: not XML"},
      {{"--device", device_, "--plugin", root_ + "/none.so", "install", signage},
       "pkgsim: cannot load the plug-in: "},
      {{"--device", device_, "uninstall", "com.korvane.tv.pepper.nosuch"},
       "pkgsim: unknown package: com.korvane.tv.pepper.nosuch\n"},
      {{"--device", device_, "uninstall", "../device"}, "pkgsim: unknown package: ../device\n"},
      {{"--device", nowhere, "show"}, noDevice},
      {{"--device", nowhere, "install", signage}, noDevice},
      {{"--device", nowhere, "uninstall", kMediaPlayer}, noDevice},
      {{"--device", nowhere, "foreground", "a.b"}, noDevice},
      {{"init", device_}, "pkgsim: " + device_ + " exists and is not empty\n"},
      {{"--device", device_, "install", "--preload", Sample("drmplayer-1.1.0")},
       "pkgsim: " + kDrmPlayer +
           " is already on the device; only a package that is not there can be preloaded\n"},
      {{"--device", device_, "uninstall", kDrmPlayer},
       "pkgsim: " + kDrmPlayer + " is preloaded in the read-only image and cannot be uninstalled\n"},
  };
  for (const auto& [args, message] : refused) {
    const Outcome outcome = Run(args);
    const std::string name = args[args.size() - 2] + " " + args.back();
    EXPECT_EQ(outcome.status, 1) << name;
    EXPECT_EQ(outcome.out, "") << name;
    // One line, of which a message ending with the line is the whole.
    EXPECT_EQ(outcome.err.find('\n'), outcome.err.size() - 1) << name << ": " << outcome.err;
    EXPECT_EQ(outcome.err.substr(0, message.size()), message) << name;
  }
  EXPECT_FALSE(fs::exists(nowhere));
  EXPECT_EQ(Tree(), tree);
}

TEST_F(PkgsimTest, CommandLineMisuseExitsWithTwoAndHelpWithZero) {
  for (const char* line : {"", "bogus", "--frobnicate show", "uninstall", "show extra",
                           "uninstall --preload x", "foreground", "--device"}) {
    std::vector<std::string> args = {"--device", device_};
    std::istringstream words(line);
    for (std::string word; words >> word;) args.push_back(word);
    EXPECT_EQ(Run(args).status, 2) << "'" << line << "'";
  }
  for (const char* command : {"init", "install", "uninstall", "show", "foreground", "demo"}) {
    const Outcome help = Run({command, "--help"});
    EXPECT_EQ(help.status, 0) << command;
    EXPECT_EQ(help.out.rfind(std::string("usage: pkgsim ") + command, 0), 0u) << help.out;
  }
}

TEST_F(PkgsimTest, DemoTourEndsWithTheExpectedDevice) {
  device_ = root_ + "/demo";
  const Outcome tour = Succeeds({"--quiet", "demo"});
  EXPECT_NE(tour.err.find("pkgsim: unknown package: com.korvane.tv.pepper.nosuchplayer"), std::string::npos);
  const Records rows = Rows();
  std::vector<std::string> names;
  for (const auto& [name, row] : rows) names.push_back(name);
  EXPECT_EQ(names,
            (std::vector<std::string>{"drmplayer", "signage", "tv.audio", "tv.channel", "tv.inputdevice"}));
  const std::string ro = RoApp(kDrmPlayer) + "/shared/res/";
  EXPECT_EQ(rows.at("drmplayer"), "1.0.0|" + ro + "|" + kDrmPlayer + "||1|0|0|Ab3Cd5Ef7G.SportsLive|" + ro);
  EXPECT_EQ(Occurrences(Terminated(), "Rs8Tu1Vw3X.MovieBox\n"), 1) << "spared while in the foreground";
}

}  // namespace
