// pkgsim as a user runs it: the built binary in processes of its own, on a fresh copy of the sample device,
// with the effects checked where they land (the plug-in's database, the result file, the record of
// terminations, the device's files) and the plain words pkgsim prints about them.
#include <gtest/gtest.h>
#include <json/json.h>
#include <sqlite3.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "sandbox.h"

namespace fs = std::filesystem;
using wup_test::ReadFile;

namespace {

const std::string kExamples = PKGSIM_EXAMPLES_DIR;
const std::string kNs = "http://korvane.com/tv/metadata/";
const std::string kMediaPlayer = "com.korvane.tv.pepper.mediaplayer";
const std::string kDrmPlayer = "com.korvane.tv.pepper.drmplayer";
const std::string kTvInfo = "com.korvane.tv.xwalk.tvinfo";

using Records = std::map<std::string, std::string>;
using Lines = std::vector<std::string>;

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

void ExpectShown(const std::string& text, const Lines& shown) {
  for (const std::string& part : shown)
    EXPECT_NE(text.find(part), std::string::npos) << "'" << part << "' is not in:\n" << text;
}

class PkgsimTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = wup_test::MakeTempDir("pkgsim-test");
    device_ = root_ + "/device";
    wup_test::MakeDirs(root_ + "/tmp");
    ASSERT_EQ(Run({"init", "--sample", device_}).status, 0);
  }
  void TearDown() override { wup_test::RemoveTree(root_); }

  // pkgsim in a process of its own, with standard error sent to a file by the shell it replaces, and its
  // temporary directories kept inside the test's own.
  Outcome Run(std::vector<std::string> args) {
    args.insert(args.begin(), {"/bin/sh", "-c", "exec \"$0\" \"$@\" 2>\"$PKGSIM_TEST_ERR\"", PKGSIM_BINARY});
    const wup_test::CommandResult result =
        wup_test::RunCommand(args, {"PKGSIM_TEST_ERR=" + root_ + "/stderr", "TMPDIR=" + root_ + "/tmp",
                                    "PKGSIM_DEVICE", "HOST_VEX_FAIL"});
    return {result.exited ? result.status : -1, result.output, ReadFile(root_ + "/stderr")};
  }
  // pkgsim on the device, expected to end with `status` and to print each of `shown`.
  Outcome Expect(int status, std::vector<std::string> args, const Lines& shown = {}) {
    args.insert(args.begin(), {"--device", device_});
    const Outcome outcome = Run(args);
    EXPECT_EQ(outcome.status, status) << outcome.err;
    ExpectShown(outcome.out, shown);
    return outcome;
  }
  Outcome Succeeds(const std::vector<std::string>& args, const Lines& shown = {}) {
    return Expect(0, args, shown);
  }
  Outcome Install(const std::string& package, const Lines& shown = {}) {
    return Succeeds({"install", Sample(package)}, shown);
  }
  static std::string Sample(const std::string& package) {
    return package.front() == '/' ? package : kExamples + "/packages/" + package;
  }
  // A package made for one test: the application whose id is the package id carries `metadata`; `name`
  // without a dot is a pepper plug-in's name.
  std::string Crafted(const std::string& name, const std::string& version, const std::string& metadata,
                      const std::string& moreApps = "") {
    const std::string pkgid = name.find('.') == std::string::npos ? "com.korvane.tv.pepper." + name : name;
    const std::string dir = root_ + "/packages/" + pkgid;
    wup_test::MakeDirs(dir);
    wup_test::WriteFile(dir + "/tizen-manifest.xml",
                        "<manifest package=\"" + pkgid + (version.empty() ? "" : "\" version=\"" + version) +
                            "\">" + App(pkgid, metadata) + moreApps + "</manifest>");
    return dir;
  }
  static std::string App(const std::string& appid, const std::string& metadata) {
    return "<ui-application appid=\"" + appid + "\">" + metadata + "</ui-application>";
  }
  static std::string Meta(const std::string& key, const std::string& value = "pepperplugin") {
    return "<metadata key=\"" + kNs + key + "\" value=\"" + value + "\"/>";
  }

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
  // Every file and directory under `dir` with its content, to show that a request changed nothing.
  static std::map<std::string, std::string> Tree(const std::string& dir) {
    std::map<std::string, std::string> tree;
    for (const auto& entry : fs::recursive_directory_iterator(dir)) {
      tree[entry.path().string()] = entry.is_directory() ? "<dir>" : ReadFile(entry.path().string());
    }
    return tree;
  }
  std::string RwApp(const std::string& pkgid) const { return device_ + "/opt/usr/apps/" + pkgid; }
  std::string RoApp(const std::string& pkgid) const { return device_ + "/usr/apps/" + pkgid; }
  bool ScratchLeftBehind() const { return !fs::is_empty(root_ + "/tmp"); }

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
      {"calling PKGMGR_MDPARSER_PLUGIN_INSTALL(" + kMediaPlayer + ", " + kMediaPlayer + ", 2 items)\n" +
           "  no database yet: the plug-in created an empty one\n"
           "  kind pepper (\"pepperplugin\"), plug-in name mediaplayer\n"
           "  installed in the writable area only (isUpdate 1): " +
           RwApp(kMediaPlayer) + "\n" +
           "  stored mediaplayer: version 1.2.0, no record of mediaplayer before\n"
           "  result file rewritten from 1 record; each rewrite terminates the allow-listed applications of ",
       "    Ab3Cd5Ef7G.SportsLive terminated: allow-listed by mediaplayer\n",
       "changes:\n  + mediaplayer 1.2.0 (pepper, isUpdate 1, " + kMediaPlayer +
           ")\n  result file: created\n  terminated: Ab3Cd5Ef7G.SportsLive, Rs8Tu1Vw3X.MovieBox\n"});
  EXPECT_EQ(installed.out.find("background-category"), std::string::npos);
  EXPECT_EQ(Occurrences(installed.out, "> METADATA INSTALL\n"), 1);
  EXPECT_TRUE(fs::is_regular_file(res + "libmediaplayer.so"));
  EXPECT_EQ(Rows(), (Records{{"mediaplayer", "1.2.0|" + res + rest}}));
  EXPECT_TRUE(Result()["upgradable_webapi_applist"]["pepper"].isMember("Rs8Tu1Vw3X.MovieBox"));
  EXPECT_EQ(Terminated(), bothApps);

  // The same version again is an upgrade to the plug-in, with nothing to store; --quiet keeps the reason.
  const std::string resultBefore = ReadFile(ResultPath());
  const Outcome again =
      Succeeds({"--quiet", "install", Sample("mediaplayer")},
               {"calling PKGMGR_MDPARSER_PLUGIN_UPGRADE(" + kMediaPlayer + ", " + kMediaPlayer +
                    ", 2 items)\n  kind pepper (\"pepperplugin\"), plug-in name mediaplayer\n"
                    "  not stored: version 1.2.0 equals the recorded one\n",
                "changes:\n  plug-in records: no change\n  result file: not rewritten\n  "
                "terminated: none\n"});
  EXPECT_EQ(again.out.find("plug-in log"), std::string::npos);
  EXPECT_EQ(ReadFile(ResultPath()), resultBefore);

  const Outcome upgraded =
      Install("mediaplayer-1.3.0", {"upgrade of the installed 1.2.0",
                                    "  stored mediaplayer: version 1.3.0 replaces the recorded 1.2.0\n",
                                    "  ~ mediaplayer replaced\n      version: [1.2.0] -> [1.3.0]\n"});
  EXPECT_EQ(Occurrences(upgraded.out, "> METADATA UPGRADE\n"), 1);
  EXPECT_EQ(Rows(), (Records{{"mediaplayer", "1.3.0|" + res + rest}}));
  EXPECT_EQ(Terminated(), bothApps + bothApps);

  Succeeds({"uninstall", kMediaPlayer},
           {"calling PKGMGR_MDPARSER_PLUGIN_UNINSTALL(" + kMediaPlayer,
            "  removed mediaplayer\n  result file rewritten from 0 records\n",
            "  - mediaplayer 1.3.0 (pepper, isUpdate 1, " + kMediaPlayer + ")\n  result file: rewritten\n"});
  EXPECT_TRUE(Rows().empty());
  EXPECT_FALSE(fs::exists(RwApp(kMediaPlayer)));
  EXPECT_FALSE(fs::exists(device_ + "/opt/share/packages/" + kMediaPlayer + ".xml"));
  EXPECT_FALSE(Result().isMember("upgradable_webapi_applist"));
}

TEST_F(PkgsimTest, PreloadedPluginIsUpdatedAndTheUpdateRemoved) {
  const std::string ro = RoApp(kDrmPlayer) + "/shared/res/", rw = RwApp(kDrmPlayer) + "/shared/res/";
  const std::string preloaded = "1.0.0|" + ro + "|" + kDrmPlayer + "||1|0|0|Ab3Cd5Ef7G.SportsLive|" + ro;
  Succeeds({"install", "--preload", Sample("drmplayer-1.0.0")},
           {"  allow-list of drmplayer not used: it is in the read-only image only\n"});
  EXPECT_FALSE(fs::exists(RwApp(kDrmPlayer)));
  EXPECT_EQ(Rows(), (Records{{"drmplayer", preloaded}}));
  EXPECT_EQ(Terminated(), "") << "a read-only plug-in's allow-list is not used";

  Install(
      "drmplayer-1.1.0",
      {"update of the preloaded 1.0.0", "calling PKGMGR_MDPARSER_PLUGIN_UPGRADE(" + kDrmPlayer,
       "  installed in the writable area, over a preloaded copy (isUpdate 2): " + RwApp(kDrmPlayer) + "\n"});
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

// Two packages in one request share one process, so one plug-in handler; the rewrites terminate the
// allow-listed applications of every record; an xwalk uninstall leaves its extension records.
TEST_F(PkgsimTest, XwalkExtensionsAreRecordedInOneRequestWithAPepperPluginAndStayAfterUninstall) {
  Succeeds({"foreground", "Rs8Tu1Vw3X.MovieBox"});
  const Outcome request =
      Succeeds({"install", Sample("signage"), Sample("tvinfo")},
               {"  + signage 1.0.0 (b2b pepper", "  + tv.audio 2.0.1 (xwalk", "  + tv.channel 2.0.1 (xwalk",
                "  + tv.inputdevice 2.0.1 (xwalk",
                "    Rs8Tu1Vw3X.MovieBox kept running: it is in the foreground (allow-listed by signage)\n",
                "    Hj2Kl4Mn6P.TvGuide terminated 4 times: allow-listed by signage, tv.audio, tv.channel, "
                "tv.inputdevice\n"});
  EXPECT_EQ(Occurrences(request.out, "PluginHandler::PluginHandler()"), 1);
  const std::size_t first = request.out.find("I/KelvoManager(");
  const std::string pid = request.out.substr(first, request.out.find("): ", first) - first);
  EXPECT_EQ(Occurrences(request.out, "I/KelvoManager("), Occurrences(request.out, pid));
  Records records = Rows();
  const std::string res = RwApp(kTvInfo) + "/shared/res/lib", rest = "|0|0|1|Hj2Kl4Mn6P.TvGuide|";
  EXPECT_EQ(records["tv.channel"],
            "2.0.1|" + res + "tvchannel.so|" + kTvInfo + "|tizen.tvchannel,tizen.tvwindow" + rest);
  EXPECT_EQ(records["tv.audio"], "2.0.1|" + res + "tvaudio.so|" + kTvInfo + "|tizen.tvaudiocontrol" + rest);
  EXPECT_EQ(records["tv.inputdevice"],
            "2.0.1|" + res + "tvinputdevice.so|" + kTvInfo + "|tizen.tvinputdevice" + rest);
  EXPECT_EQ(records.size(), 4u);
  EXPECT_EQ(Result()["forceupdate_webapi"]["xwalk"].size(), 3u);
  const std::string guide = "Hj2Kl4Mn6P.TvGuide\n";
  EXPECT_EQ(Terminated(), guide + guide + guide + guide + guide);

  // A package whose description file cannot be read loses nothing; the parser's reason is shown, and its
  // message, which spans lines, stays indented in the log.
  const std::string result = ReadFile(ResultPath());
  Install("weather-broken",
          {"  warning: skipped weather.json: Line 6, Column 1: Missing ',' or ']' in array declaration\n"
           "  not stored: no description file of the package describes an extension\n",
           "  plug-in records: no change\n",
           "],err:[* Line 6, Column 1\n        Missing ',' or ']' in array declaration\n      ]\n  "
           "I/KelvoManager("});
  EXPECT_EQ(Rows(), records);
  EXPECT_EQ(ReadFile(ResultPath()), result);

  Succeeds({"--quiet", "uninstall", kTvInfo},
           {"  warning: removed nothing: no record is named tvinfo; the records tv.audio, tv.channel, "
            "tv.inputdevice of this package stay\n"});
  EXPECT_EQ(Rows(), records);
  EXPECT_FALSE(fs::exists(RwApp(kTvInfo)));
}

// check decides with the plug-in's own run on a scratch copy: the verdict, the reason and the traps; the
// device and the temporary directory are left as they were.
TEST_F(PkgsimTest, CheckSaysWhatThePluginWillDoWithoutChangingTheDevice) {
  Install("mediaplayer");
  const std::string type = "upgradable_webapi_type", typeKey = kNs + type;
  const struct {
    int status;
    std::string package;
    Lines shown;
  } cases[] = {
      // clang-format off
      {1, Sample("mediaplayer"), {"verdict: not stored: version 1.2.0 equals the recorded one\n"}},
      {0, Sample("mediaplayer-1.3.0"), {"on a scratch copy of " + device_ + " (the device does not change)\n",
          "  ~ mediaplayer replaced\n", "warnings: none\nverdict: stored: mediaplayer\n"}},
      {0, Sample("voice-traps"), {"  read voice.json\n", "warnings:\n"
          "  unknown key " + kNs + "upgradable_webapi_aplist in the plug-in's namespace\n"
          "  allow-listed Zz9Yy8Xx7W.Karaoke is no application on the device\n"
          "  the allow-list \"Ab3Cd5Ef7G.SportsLive,,Zz9Yy8Xx7W.Karaoke\" holds an empty id (a stray comma): "
          "every rewrite terminates \"\"\n"
          "  record tv.voice points at shared/res/libvoicecontrol.so, which the package does not have\n"
          "  uninstall: removed nothing: no record is named voice; the record tv.voice of this package stays\n"
          "verdict: stored: tv.voice\n"}},
      {1, Sample("weather-broken"), {"verdict: not stored: no description file of the package describes an"}},
      {1, Crafted("kind", "1.0.0", Meta(type, "pepper")),
          {"verdict: not stored: kind \"pepper\" is none of pepperplugin, b2bpepperplugin, xwalkplugin\n"}},
      {1, Crafted("unversioned", "", Meta(type)), {"  the package has no version: the plug-in never stores it\n",
          "verdict: not stored: the package has no version\n"}},
      {1, Crafted("zero", "0.0.0", Meta(type)), {"  version 0.0.0 is what the plug-in assumes for an unknown",
          "verdict: not stored: version 0.0.0 is what the plug-in assumes for a plug-in it has no record of\n"}},
      {1, Crafted("elsewhere", "1.0.0", "", App("x.settings", Meta(type))),
          {"  application x.settings carries " + typeKey + ", but the plug-in reads the application whose id",
           "verdict: not stored: application com.korvane.tv.pepper.elsewhere has no " + typeKey +
           " metadata (the metadata is on x.settings)\n"}},
      {1, Crafted("com.korvane.tv.orphan", "1.0.0", Meta(type)), {"  the package id has neither \"pepper.\" nor",
          "verdict: not stored: the package id has neither \"pepper.\" nor \"xwalk.\" in it, so it names no"}},
      {1, Crafted("cased", "1.0.0", Meta("Upgradable_webapi_type")),
          {"  " + kNs + "Upgradable_webapi_type differs from " + typeKey + " in case: the plug-in matches",
           "verdict: not stored: not handled: no item has the key " + typeKey + " exactly (" + kNs +
           "Upgradable_webapi_type differs in case)\n"}},
      // clang-format on
  };
  const auto tree = Tree(device_);
  for (const auto& c : cases) {
    const Outcome outcome = Expect(c.status, {"--quiet", "check", c.package}, c.shown);
    EXPECT_EQ(outcome.out.find(root_ + "/tmp/"), std::string::npos)
        << "scratch paths are shown as the device's";
  }
  EXPECT_EQ(Tree(device_), tree);
  EXPECT_FALSE(ScratchLeftBehind());
}

// show lets the plug-in judge the database and the result file, on copies of a device damaged four ways;
// an operation on the damaged device then says how the plug-in recovered.
TEST_F(PkgsimTest, ShowSaysWhenTheDatabaseIsDamagedAndTheResultFileStale) {
  Install("mediaplayer");
  const std::string db = "/opt/dbspace/.AppBinaryManager.db",
                    backup = "/opt/dbspace/.AppBinaryManager_Backup.db";
  const std::string result = ResultPath().substr(device_.size());
  const struct {
    Lines damaged;  // files overwritten with text
    Lines shown;
  } cases[] = {
      {{}, {"database: valid\n", "upgrade_webapi_result.json: current: the document the records give\n"}},
      {{db},
       {"database: damaged (fails SQLite's integrity check): the next operation restores it from the "
        "backup, with 1 record (mediaplayer)\n",
        "current: the document the records give"}},
      {{db, backup},
       {"database: damaged (fails SQLite's integrity check), and so is its backup: the next operation "
        "deletes it and creates an empty database; its records are lost\n",
        "stale: it differs from the document the records give (it lists mediaplayer; the records give no "
        "plug-in)"}},
      {{result},
       {"database: valid\n",
        "stale: it differs from the document the records give (it is not JSON; the "
        "records give mediaplayer); the next rewrite replaces it\n"}},
  };
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    const std::string copy = root_ + "/case" + std::to_string(i);
    fs::copy(device_, copy, fs::copy_options::recursive);
    for (const std::string& file : cases[i].damaged) wup_test::WriteFile(copy + file, "damaged\n");
    const auto tree = Tree(copy);
    const Outcome outcome = Run({"--device", copy, "show"});
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    ExpectShown(outcome.out, cases[i].shown);
    EXPECT_EQ(Tree(copy), tree) << "show changes nothing";
  }
  device_ = root_ + "/case1";
  Install("signage",
          {"  warning: the database was damaged (fails SQLite's integrity check): the plug-in restored it "
           "from its backup\n"});
  EXPECT_EQ(Rows().size(), 2u);
  EXPECT_FALSE(ScratchLeftBehind());
}

// A later step of the installation fails: the installer undoes the plug-in step and the device is back
// where it was, for a new package and for an upgrade.
TEST_F(PkgsimTest, AFailedInstallationUndoesThePluginStep) {
  Install("mediaplayer");
  const Records rows = Rows();
  const auto tree = Tree(device_ + "/opt/usr/apps/" + kMediaPlayer);
  const std::string fail = "--fail-after-plugin";
  const struct {
    std::string package, undo;
  } cases[] = {
      {"signage",
       "calling PKGMGR_MDPARSER_PLUGIN_UNINSTALL(com.korvane.tv.pepper.signage, "
       "com.korvane.tv.pepper.signage, 2 items)\n  removed signage\n"},
      {"mediaplayer-1.3.0",
       kMediaPlayer + " is back at its previous version 1.2.0\ncalling PKGMGR_MDPARSER_PLUGIN_UPGRADE(" +
           kMediaPlayer + ", " + kMediaPlayer + ", 2 items)\n" +
           "  kind pepper (\"pepperplugin\"), plug-in name mediaplayer\n"
           "  installed in the writable area only (isUpdate 1): " +
           RwApp(kMediaPlayer) + "\n" + "  stored mediaplayer: version 1.2.0 replaces the recorded 1.3.0\n"},
  };
  for (const auto& c : cases) {
    const Outcome outcome =
        Expect(1, {"--quiet", "install", fail, Sample(c.package)},
               {"a later step of the installation fails (--fail-after-plugin): the installer undoes the "
                "plug-in step\n" +
                c.undo});
    EXPECT_NE(outcome.err.find("failed (--fail-after-plugin); the plug-in step was undone"),
              std::string::npos);
    EXPECT_EQ(Rows(), rows) << c.package;
  }
  EXPECT_FALSE(fs::exists(RwApp("com.korvane.tv.pepper.signage")));
  EXPECT_EQ(Tree(device_ + "/opt/usr/apps/" + kMediaPlayer), tree);
  EXPECT_NE(ReadFile(device_ + "/opt/share/packages/" + kMediaPlayer + ".xml").find("version=\"1.2.0\""),
            std::string::npos);
}

TEST_F(PkgsimTest, BadInputIsRefusedWithOneLineAndTheDeviceUntouched) {
  Install("mediaplayer");
  Succeeds({"install", "--preload", Sample("drmplayer-1.0.0")});
  const std::string empty = root_ + "/empty", malformed = root_ + "/malformed", nowhere = root_ + "/nowhere";
  wup_test::MakeDirs(empty);
  wup_test::MakeDirs(malformed);
  wup_test::WriteFile(malformed + "/tizen-manifest.xml", "<manifest package=\"com.korvane.tv.pepper.x\"");
  wup_test::WriteFile(root_ + "/file", "");
  const std::string signage = Sample("signage");
  const std::string noDevice =
      "pkgsim: no device at " + nowhere + " (create one: pkgsim init " + nowhere + ")\n";
  const auto tree = Tree(device_);

  // A message without its final newline is the start of the line; the rest is the library's.
  const std::vector<std::pair<std::vector<std::string>, std::string>> refused = {
      {{"--device", device_, "install", empty}, "pkgsim: no tizen-manifest.xml in " + empty + "\n"},
      {{"--device", device_, "install", signage, root_ + "/missing"},
       "pkgsim: " + root_ + "/missing is not a package directory\n"},
      {{"--device", device_, "check", malformed},
       "pkgsim: malformed manifest: " + malformed + "/tizen-manifest.xml: not XML"},
      {{"--device", device_, "--plugin", root_ + "/none.so", "install", signage},
       "pkgsim: cannot load the plug-in: "},
      {{"--device", device_, "uninstall", "com.korvane.tv.pepper.nosuch"},
       "pkgsim: unknown package: com.korvane.tv.pepper.nosuch\n"},
      {{"--device", device_, "uninstall", "../device"}, "pkgsim: unknown package: ../device\n"},
      {{"--device", nowhere, "show"}, noDevice},
      {{"--device", nowhere, "install", signage}, noDevice},
      {{"--device", nowhere, "check", signage}, noDevice},
      {{"--device", nowhere, "uninstall", kMediaPlayer}, noDevice},
      {{"--device", nowhere, "foreground", "a.b"}, noDevice},
      {{"init", device_}, "pkgsim: " + device_ + " exists and is not empty\n"},
      {{"init", root_ + "/file"}, "pkgsim: " + root_ + "/file is a file, not a directory\n"},
      {{"--device", device_, "install", "--preload", Sample("drmplayer-1.1.0")},
       "pkgsim: " + kDrmPlayer +
           " is already on the device; only a package that is not there can be preloaded\n"},
      {{"--device", device_, "install", "--preload", signage, signage},
       "pkgsim: com.korvane.tv.pepper.signage is already on the device; only a package that is not there "
       "can be preloaded\n"},
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
  EXPECT_EQ(Tree(device_), tree);
}

TEST_F(PkgsimTest, CommandLineMisuseExitsWithTwoAndHelpWithZero) {
  for (const char* line :
       {"", "bogus", "--frobnicate show", "uninstall", "show extra", "uninstall --preload x", "foreground",
        "--device", "check", "--keep show", "install"}) {
    std::vector<std::string> args = {"--device", device_};
    std::istringstream words(line);
    for (std::string word; words >> word;) args.push_back(word);
    EXPECT_EQ(Run(args).status, 2) << "'" << line << "'";
  }
  for (const char* command : {"init", "check", "install", "uninstall", "show", "foreground", "demo"}) {
    const Outcome help = Run({command, "--help"});
    EXPECT_EQ(help.status, 0) << command;
    EXPECT_EQ(help.out.rfind(std::string("usage: pkgsim ") + command, 0), 0u) << help.out;
  }
}

// The tour runs to its end on its own temporary device, removes it, and prints every line that the
// README quotes from it.
TEST_F(PkgsimTest, DemoTourRunsToItsEndAsTheReadmeShows) {
  const Outcome tour = Run({"--quiet", "demo"});
  EXPECT_EQ(tour.status, 0) << tour.err;
  EXPECT_NE(tour.err.find("pkgsim: unknown package: com.korvane.tv.pepper.nosuchplayer"), std::string::npos);
  ExpectShown(tour.out, {"database: valid\nplug-in records (6):\n", "The demo's device is removed"});
  EXPECT_FALSE(ScratchLeftBehind());

  std::ifstream readme(kExamples + "/../README.md");
  std::string line;
  while (std::getline(readme, line) && line != "<!-- pkgsim demo excerpt -->") {
  }
  std::getline(readme, line);  // the opening fence
  int quoted = 0;
  while (std::getline(readme, line) && line != "```") {
    if (line == "...") continue;
    ++quoted;
    // "..." stands for a part that differs from run to run.
    for (std::size_t from = 0; from <= line.size();) {
      const std::size_t gap = std::min(line.find("...", from), line.size());
      EXPECT_NE(tour.out.find(line.substr(from, gap - from)), std::string::npos) << line;
      from = gap + 3;
    }
  }
  EXPECT_GT(quoted, 10);
}

}  // namespace
