// pkgsim as a user runs it: the built binary in processes of its own, on a fresh copy of the sample device,
// with the effects checked where they land (the plug-in's database, the result file, the record of
// terminations, the device's files).
#include <gtest/gtest.h>
#include <json/json.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "sandbox.h"

namespace fs = std::filesystem;
using wup_test::ReadFile;

namespace {

const std::string kExamples = PKGSIM_EXAMPLES_DIR;
const std::string kMediaPlayer = "com.korvane.tv.pepper.mediaplayer";
const std::string kDrmPlayer = "com.korvane.tv.pepper.drmplayer";

struct Outcome {
  int status = -1;
  std::string out;
  std::string err;
};

struct Row {
  std::string version, path, pkgid, entryPoints, appWhiteList, systemPath;
  int pluginType = -1, isUpdate = -1;
};

class PkgsimTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = wup_test::MakeTempDir("pkgsim-test");
    device_ = root_ + "/device";
    ASSERT_EQ(Run({"init", "--sample", device_}).status, 0);
  }
  void TearDown() override { wup_test::RemoveTree(root_); }

  Outcome Run(std::vector<std::string> args) {
    args.insert(args.begin(), PKGSIM_BINARY);
    const std::string outPath = root_ + "/stdout", errPath = root_ + "/stderr";
    const pid_t child = fork();
    if (child == 0) {
      if (freopen(outPath.c_str(), "w", stdout) == nullptr ||
          freopen(errPath.c_str(), "w", stderr) == nullptr) {
        _exit(126);
      }
      unsetenv("PKGSIM_DEVICE");
      unsetenv("HOST_VEX_FAIL");
      std::vector<char*> argv;
      for (std::string& arg : args) argv.push_back(arg.data());
      argv.push_back(nullptr);
      execv(argv[0], argv.data());
      _exit(127);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadFile(outPath), ReadFile(errPath)};
  }
  Outcome OnDevice(std::vector<std::string> args) {
    args.insert(args.begin(), {"--device", device_});
    return Run(args);
  }
  Outcome Install(const std::string& package) {
    return OnDevice({"install", package.front() == '/' ? package : kExamples + "/packages/" + package});
  }

  // A copy of a sample package with another version in its manifest.
  std::string PackageAtVersion(const std::string& name, const std::string& from, const std::string& to) {
    const std::string dir = root_ + "/" + name + "-" + to;
    fs::copy(kExamples + "/packages/" + name, dir, fs::copy_options::recursive);
    std::string manifest = ReadFile(dir + "/tizen-manifest.xml");
    const std::string attribute = "version=\"" + from + "\"";
    manifest.replace(manifest.find(attribute), attribute.size(), "version=\"" + to + "\"");
    wup_test::WriteFile(dir + "/tizen-manifest.xml", manifest);
    return dir;
  }

  std::map<std::string, Row> Rows() const {
    std::map<std::string, Row> rows;
    sqlite3* db = nullptr;
    if (sqlite3_open_v2((device_ + "/opt/dbspace/.AppBinaryManager.db").c_str(), &db, SQLITE_OPEN_READONLY,
                        nullptr) == SQLITE_OK) {
      sqlite3_stmt* stmt = nullptr;
      sqlite3_prepare_v2(
          db,
          "SELECT name, version, path, pkgid, entryPoints, pluginType, isUpdate, appWhiteList, "
          "systemPath FROM pluginTable",
          -1, &stmt, nullptr);
      auto text = [&](int column) {
        const unsigned char* value = sqlite3_column_text(stmt, column);
        return value != nullptr ? std::string(reinterpret_cast<const char*>(value)) : std::string();
      };
      while (stmt != nullptr && sqlite3_step(stmt) == SQLITE_ROW) {
        rows[text(0)] = {text(1),
                         text(2),
                         text(3),
                         text(4),
                         text(7),
                         text(8),
                         sqlite3_column_int(stmt, 5),
                         sqlite3_column_int(stmt, 6)};
      }
      sqlite3_finalize(stmt);
    }
    sqlite3_close(db);
    return rows;
  }
  std::vector<std::string> Terminated() const { return wup_test::ReadLines(device_ + "/run/vex/terminated"); }
  std::string ResultPath() const {
    return device_ + "/opt/usr/apps/appbinarymanager/webapi_result/upgrade_webapi_result.json";
  }
  Json::Value Result() const {
    Json::Value document;
    std::string error;
    std::istringstream in(ReadFile(ResultPath()));
    EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &document, &error)) << error;
    return document;
  }
  std::vector<std::string> PluginLog(const std::string& out) const {
    std::vector<std::string> messages;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
      const std::size_t prefix = line.find(" > ");
      if (line.rfind("  I/KelvoManager(", 0) == 0 && prefix != std::string::npos) {
        messages.push_back(line.substr(prefix + 3));
      }
    }
    return messages;
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

int Count(const std::vector<std::string>& lines, const std::string& line) {
  return static_cast<int>(std::count(lines.begin(), lines.end(), line));
}

TEST_F(PkgsimTest, PepperPluginIsInstalledReinstalledUpgradedAndUninstalled) {
  const Outcome installed = Install("mediaplayer");
  ASSERT_EQ(installed.status, 0) << installed.err;
  // Only the application with metadata of the namespace is handed over, and only those items.
  EXPECT_NE(installed.out.find("calling PKGMGR_MDPARSER_PLUGIN_INSTALL(" + kMediaPlayer + ", " +
                               kMediaPlayer + ", 2 items)"),
            std::string::npos)
      << installed.out;
  EXPECT_EQ(installed.out.find(".settings"), std::string::npos);
  const std::vector<std::string> log = PluginLog(installed.out);
  EXPECT_EQ(Count(log, "METADATA INSTALL"), 1);
  EXPECT_EQ(Count(log, "finish"), 1);
  EXPECT_EQ(installed.out.find("background-category"), std::string::npos);
  EXPECT_NE(installed.out.find("  + mediaplayer 1.2.0 (pepper, isUpdate 1 writable area"), std::string::npos);
  EXPECT_NE(installed.out.find("  result file: created"), std::string::npos);

  EXPECT_TRUE(fs::is_regular_file(device_ + "/opt/share/packages/" + kMediaPlayer + ".xml"));
  EXPECT_TRUE(fs::is_regular_file(RwApp(kMediaPlayer) + "/shared/res/libmediaplayer.so"));
  auto rows = Rows();
  ASSERT_EQ(rows.count("mediaplayer"), 1u);
  EXPECT_EQ(rows["mediaplayer"].version, "1.2.0");
  EXPECT_EQ(rows["mediaplayer"].pkgid, kMediaPlayer);
  EXPECT_EQ(rows["mediaplayer"].pluginType, 1);
  EXPECT_EQ(rows["mediaplayer"].isUpdate, 1);
  EXPECT_EQ(rows["mediaplayer"].path, RwApp(kMediaPlayer) + "/shared/res/");
  EXPECT_EQ(rows["mediaplayer"].systemPath, "");
  EXPECT_EQ(rows["mediaplayer"].appWhiteList, "Ab3Cd5Ef7G.SportsLive, Rs8Tu1Vw3X.MovieBox");
  EXPECT_TRUE(Result()["upgradable_webapi_applist"]["pepper"].isMember("Rs8Tu1Vw3X.MovieBox"));
  const std::vector<std::string> bothApps = {"Ab3Cd5Ef7G.SportsLive", "Rs8Tu1Vw3X.MovieBox"};
  EXPECT_EQ(Terminated(), bothApps);
  EXPECT_NE(installed.out.find("  terminated: Ab3Cd5Ef7G.SportsLive, Rs8Tu1Vw3X.MovieBox\n"),
            std::string::npos);

  // The same version again is an upgrade to the plug-in, with nothing to store.
  const std::string resultBefore = ReadFile(ResultPath());
  const Outcome again = OnDevice({"--quiet", "install", kExamples + "/packages/mediaplayer"});
  ASSERT_EQ(again.status, 0) << again.err;
  EXPECT_NE(again.out.find("calling PKGMGR_MDPARSER_PLUGIN_UPGRADE("), std::string::npos);
  EXPECT_NE(again.out.find(
                "changes:\n  plug-in records: no change\n  result file: not rewritten\n  terminated: none\n"),
            std::string::npos)
      << again.out;
  EXPECT_EQ(again.out.find("plug-in log"), std::string::npos);
  EXPECT_EQ(ReadFile(ResultPath()), resultBefore);

  const Outcome upgraded = Install(PackageAtVersion("mediaplayer", "1.2.0", "1.3.0"));
  ASSERT_EQ(upgraded.status, 0) << upgraded.err;
  EXPECT_NE(upgraded.out.find("upgrade of the installed 1.2.0"), std::string::npos);
  EXPECT_NE(upgraded.out.find("  ~ mediaplayer replaced\n      version: [1.2.0] -> [1.3.0]\n"),
            std::string::npos)
      << upgraded.out;
  EXPECT_EQ(Count(PluginLog(upgraded.out), "METADATA UPGRADE"), 1);
  EXPECT_EQ(Rows()["mediaplayer"].version, "1.3.0");
  EXPECT_EQ(Terminated().size(), 4u);

  const Outcome removed = OnDevice({"uninstall", kMediaPlayer});
  ASSERT_EQ(removed.status, 0) << removed.err;
  EXPECT_NE(removed.out.find("calling PKGMGR_MDPARSER_PLUGIN_UNINSTALL(" + kMediaPlayer), std::string::npos);
  EXPECT_NE(removed.out.find("  - mediaplayer 1.3.0"), std::string::npos);
  EXPECT_NE(removed.out.find("  result file: rewritten"), std::string::npos);
  EXPECT_EQ(Rows().count("mediaplayer"), 0u);
  EXPECT_FALSE(fs::exists(RwApp(kMediaPlayer)));
  EXPECT_FALSE(fs::exists(device_ + "/opt/share/packages/" + kMediaPlayer + ".xml"));
  EXPECT_FALSE(Result().isMember("upgradable_webapi_applist"));
}

TEST_F(PkgsimTest, PreloadedPluginIsUpdatedAndTheUpdateRemoved) {
  const Outcome preloaded = OnDevice({"install", "--preload", kExamples + "/packages/drmplayer-1.0.0"});
  ASSERT_EQ(preloaded.status, 0) << preloaded.err;
  EXPECT_TRUE(fs::is_regular_file(device_ + "/usr/share/packages/" + kDrmPlayer + ".xml"));
  EXPECT_TRUE(fs::is_regular_file(RoApp(kDrmPlayer) + "/shared/res/libdrmplayer.so"));
  EXPECT_FALSE(fs::exists(RwApp(kDrmPlayer)));
  Row row = Rows()["drmplayer"];
  EXPECT_EQ(row.version, "1.0.0");
  EXPECT_EQ(row.isUpdate, 0);
  EXPECT_EQ(row.path, RoApp(kDrmPlayer) + "/shared/res/");
  EXPECT_EQ(row.systemPath, RoApp(kDrmPlayer) + "/shared/res/");
  EXPECT_TRUE(Terminated().empty()) << "a read-only plug-in's allow-list is not used";

  const auto tree = Tree();
  const Outcome twice = OnDevice({"install", "--preload", kExamples + "/packages/drmplayer-1.1.0"});
  EXPECT_EQ(twice.status, 1);
  EXPECT_EQ(twice.err, "pkgsim: " + kDrmPlayer +
                           " is already on the device; only a package that is not there can be preloaded\n");
  EXPECT_EQ(Tree(), tree);

  const Outcome updated = Install("drmplayer-1.1.0");
  ASSERT_EQ(updated.status, 0) << updated.err;
  EXPECT_NE(updated.out.find("update of the preloaded 1.0.0"), std::string::npos);
  EXPECT_NE(updated.out.find("calling PKGMGR_MDPARSER_PLUGIN_UPGRADE(" + kDrmPlayer), std::string::npos);
  row = Rows()["drmplayer"];
  EXPECT_EQ(row.version, "1.1.0");
  EXPECT_EQ(row.isUpdate, 2);
  EXPECT_EQ(row.path, RwApp(kDrmPlayer) + "/shared/res/");
  EXPECT_EQ(row.systemPath, RoApp(kDrmPlayer) + "/shared/res/");
  EXPECT_EQ(ReadFile(RoApp(kDrmPlayer) + "/shared/res/libdrmplayer.so"),
            ReadFile(kExamples + "/packages/drmplayer-1.0.0/shared/res/libdrmplayer.so"));
  EXPECT_EQ(Terminated(), std::vector<std::string>{"Ab3Cd5Ef7G.SportsLive"});

  // Removing the update brings the preloaded version back into the records.
  const Outcome removed = OnDevice({"uninstall", kDrmPlayer});
  ASSERT_EQ(removed.status, 0) << removed.err;
  EXPECT_NE(removed.out.find(kDrmPlayer + " is back at its preloaded version 1.0.0"), std::string::npos);
  EXPECT_FALSE(fs::exists(RwApp(kDrmPlayer)));
  EXPECT_TRUE(fs::is_regular_file(RoApp(kDrmPlayer) + "/shared/res/libdrmplayer.so"));
  row = Rows()["drmplayer"];
  EXPECT_EQ(row.version, "1.0.0");
  EXPECT_EQ(row.isUpdate, 0);

  const auto afterRemoval = Tree();
  const Outcome image = OnDevice({"uninstall", kDrmPlayer});
  EXPECT_EQ(image.status, 1);
  EXPECT_EQ(image.err,
            "pkgsim: " + kDrmPlayer + " is preloaded in the read-only image and cannot be uninstalled\n");
  EXPECT_EQ(Tree(), afterRemoval);
}

TEST_F(PkgsimTest, XwalkExtensionsAreRecordedAndTheForegroundAppKeepsRunning) {
  ASSERT_EQ(OnDevice({"foreground", "Rs8Tu1Vw3X.MovieBox"}).status, 0);
  ASSERT_EQ(Install("signage").status, 0);
  EXPECT_EQ(Rows()["signage"].pluginType, 2);
  EXPECT_EQ(Terminated(), std::vector<std::string>{"Hj2Kl4Mn6P.TvGuide"});

  ASSERT_EQ(OnDevice({"foreground", "--none"}).status, 0);
  const Outcome xwalk = Install("tvinfo");
  ASSERT_EQ(xwalk.status, 0) << xwalk.err;
  const auto rows = Rows();
  const std::string res = RwApp("com.korvane.tv.xwalk.tvinfo") + "/shared/res/";
  for (const auto& [name, lib, entryPoints] : std::vector<std::tuple<std::string, std::string, std::string>>{
           {"tv.channel", "libtvchannel.so", "tizen.tvchannel,tizen.tvwindow"},
           {"tv.audio", "libtvaudio.so", "tizen.tvaudiocontrol"},
           {"tv.inputdevice", "libtvinputdevice.so", "tizen.tvinputdevice"}}) {
    ASSERT_EQ(rows.count(name), 1u) << name;
    EXPECT_EQ(rows.at(name).pluginType, 0);
    EXPECT_EQ(rows.at(name).path, res + lib);
    EXPECT_EQ(rows.at(name).entryPoints, entryPoints);
    EXPECT_EQ(rows.at(name).pkgid, "com.korvane.tv.xwalk.tvinfo");
    EXPECT_NE(xwalk.out.find("  + " + name + " 2.0.1 (xwalk"), std::string::npos) << name;
  }
  EXPECT_EQ(Result()["forceupdate_webapi"]["xwalk"].size(), 3u);
  // The rewrite walks every record's allow-list: signage's two applications, then each extension's one.
  const std::string guide = "Hj2Kl4Mn6P.TvGuide";
  const std::vector<std::string> terminated = {guide, "Rs8Tu1Vw3X.MovieBox", guide, guide, guide, guide};
  EXPECT_EQ(Terminated(), terminated);
  EXPECT_NE(OnDevice({"show"}).out.find("foreground: none\n"), std::string::npos);
}

TEST_F(PkgsimTest, BrokenDescriptionFileLosesNothing) {
  ASSERT_EQ(Install("mediaplayer").status, 0);
  const auto rows = Rows();
  const std::string result = ReadFile(ResultPath());

  const Outcome broken = Install("weather-broken");
  ASSERT_EQ(broken.status, 0) << broken.err;
  EXPECT_NE(broken.out.find("  plug-in records: no change\n"), std::string::npos) << broken.out;
  bool parseErrorLogged = false;
  for (const std::string& message : PluginLog(broken.out)) {
    parseErrorLogged |=
        message.rfind("file:[" + RwApp("com.korvane.tv.xwalk.weather") + "/shared/res/weather.json]", 0) == 0;
  }
  EXPECT_TRUE(parseErrorLogged) << broken.out;
  EXPECT_EQ(Rows().size(), rows.size());
  EXPECT_EQ(Rows().count("mediaplayer"), 1u);
  EXPECT_EQ(ReadFile(ResultPath()), result);
}

TEST_F(PkgsimTest, BadInputIsRefusedWithOneLineAndTheDeviceUntouched) {
  ASSERT_EQ(Install("mediaplayer").status, 0);
  const std::string empty = root_ + "/empty";
  const std::string malformed = root_ + "/malformed";
  wup_test::MakeDirs(empty);
  wup_test::MakeDirs(malformed);
  wup_test::WriteFile(malformed + "/tizen-manifest.xml", "<manifest package=\"com.korvane.tv.pepper.x\"");
  const auto tree = Tree();

  const std::vector<std::pair<std::vector<std::string>, std::string>> refused = {
      {{"install", empty}, "pkgsim: no tizen-manifest.xml in " + empty + "\n"},
      {{"install", root_ + "/missing"}, "pkgsim: " + root_ + "/missing is not a package directory\n"},
      {{"uninstall", "com.korvane.tv.pepper.nosuch"},
       "pkgsim: unknown package: com.korvane.tv.pepper.nosuch\n"},
      {{"uninstall", "../device"}, "pkgsim: unknown package: ../device\n"},
  };
  for (const auto& [args, message] : refused) {
    const Outcome outcome = OnDevice(args);
    EXPECT_EQ(outcome.status, 1) << args[0];
    EXPECT_EQ(outcome.err, message);
    EXPECT_EQ(outcome.out, "");
  }
  const Outcome bad = OnDevice({"install", malformed});
  EXPECT_EQ(bad.status, 1);
  EXPECT_EQ(bad.err.rfind("pkgsim: " + malformed + "/tizen-manifest.xml: ", 0), 0u) << bad.err;
  EXPECT_EQ(std::count(bad.err.begin(), bad.err.end(), '\n'), 1);

  const Outcome noPlugin =
      OnDevice({"--plugin", root_ + "/none.so", "install", kExamples + "/packages/signage"});
  EXPECT_EQ(noPlugin.status, 1);
  EXPECT_EQ(noPlugin.err.rfind("pkgsim: cannot load the plug-in: ", 0), 0u) << noPlugin.err;
  EXPECT_EQ(Tree(), tree);

  const std::string nowhere = root_ + "/nowhere";
  for (const std::vector<std::string>& args :
       std::vector<std::vector<std::string>>{{"show"},
                                             {"install", kExamples + "/packages/signage"},
                                             {"uninstall", kMediaPlayer},
                                             {"foreground", "a.b"}}) {
    std::vector<std::string> withDevice = {"--device", nowhere};
    withDevice.insert(withDevice.end(), args.begin(), args.end());
    const Outcome outcome = Run(withDevice);
    EXPECT_EQ(outcome.status, 1) << args[0];
    EXPECT_EQ(outcome.err,
              "pkgsim: no device at " + nowhere + " (create one: pkgsim init " + nowhere + ")\n");
  }
  EXPECT_FALSE(fs::exists(nowhere));
  EXPECT_EQ(Run({"init", device_}).err, "pkgsim: " + device_ + " exists and is not empty\n");
  EXPECT_EQ(Tree(), tree);
}

TEST_F(PkgsimTest, CommandLineMisuseExitsWithTwoAndHelpWithZero) {
  for (const std::vector<std::string>& args :
       std::vector<std::vector<std::string>>{{},
                                             {"bogus"},
                                             {"--frobnicate", "show"},
                                             {"uninstall"},
                                             {"show", "extra"},
                                             {"uninstall", "--preload", "x"},
                                             {"foreground"},
                                             {"--device"}}) {
    const Outcome outcome = OnDevice(args);
    EXPECT_EQ(outcome.status, 2) << (args.empty() ? "(none)" : args[0]);
  }
  for (const char* command : {"init", "install", "uninstall", "show", "foreground", "demo"}) {
    const Outcome help = Run({command, "--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.out.rfind(std::string("usage: pkgsim ") + command, 0), 0u) << help.out;
  }
}

TEST_F(PkgsimTest, DemoTourEndsWithTheExpectedDevice) {
  const std::string demo = root_ + "/demo";
  const Outcome tour = Run({"--device", demo, "--quiet", "demo"});
  ASSERT_EQ(tour.status, 0) << tour.out << tour.err;
  EXPECT_NE(tour.err.find("pkgsim: unknown package: com.korvane.tv.pepper.nosuchplayer"), std::string::npos);
  device_ = demo;
  const auto rows = Rows();
  std::vector<std::string> names;
  for (const auto& [name, row] : rows) names.push_back(name);
  const std::vector<std::string> expected = {"drmplayer", "signage", "tv.audio", "tv.channel",
                                             "tv.inputdevice"};
  EXPECT_EQ(names, expected);
  EXPECT_EQ(rows.at("drmplayer").isUpdate, 0);
  EXPECT_EQ(Count(Terminated(), "Rs8Tu1Vw3X.MovieBox"), 1) << "spared while in the foreground";
}

}  // namespace
