// pkgsim as a user runs it: the built binary in processes of its own, on a fresh copy of the sample device.
// What it says is compared by whole lines and blocks, in the order it says them; the plug-in's own rules
// are pinned by the end-to-end tests, so the device's state is read back through pkgsim's own `show`.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "sandbox.h"

namespace fs = std::filesystem;
using wup_test::ReadFile;

namespace {

const std::string kPackages = PKGSIM_EXAMPLES_DIR "/packages/";
const std::string kMediaPlayer = "com.korvane.tv.pepper.mediaplayer";
const std::string kDrmPlayer = "com.korvane.tv.pepper.drmplayer";

using Args = std::vector<std::string>;
using Lines = std::vector<std::string>;

struct Outcome {
  int status = -1;
  std::string out, err;
};

// Each of `parts` is in `text`, after the one before it.
void ExpectInOrder(const std::string& text, const Lines& parts) {
  std::size_t from = 0;
  for (const std::string& part : parts) {
    const std::size_t at = text.find(part, from);
    ASSERT_NE(at, std::string::npos) << "'" << part << "' is not in what follows of:\n" << text.substr(from);
    from = at + part.size();
  }
}

// Every file and directory under `dir` with its content, to show what a request left alone.
std::map<std::string, std::string> Tree(const std::string& dir) {
  std::map<std::string, std::string> tree;
  for (const auto& entry : fs::recursive_directory_iterator(dir))
    tree[entry.path().string()] = entry.is_directory() ? "<dir>" : ReadFile(entry.path().string());
  return tree;
}

class PkgsimTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = wup_test::MakeTempDir("pkgsim-test");
    device_ = root_ + "/device";
    wup_test::MakeDirs(root_ + "/tmp");
    ASSERT_EQ(Run({"init", "--sample", device_}).status, 0);
  }
  void TearDown() override {
    EXPECT_TRUE(fs::is_empty(root_ + "/tmp")) << "pkgsim left temporary files behind";
    wup_test::RemoveTree(root_);
  }

  // pkgsim in a process of its own, standard error sent to a file by the shell it replaces, and its
  // temporary directories kept inside the test's own.
  Outcome Run(Args args) const {
    args.insert(args.begin(), {"/bin/sh", "-c", "exec \"$0\" \"$@\" 2>\"$PKGSIM_TEST_ERR\"", PKGSIM_BINARY});
    const wup_test::CommandResult result =
        wup_test::RunCommand(args, {"PKGSIM_TEST_ERR=" + root_ + "/stderr", "TMPDIR=" + root_ + "/tmp",
                                    "PKGSIM_DEVICE", "HOST_VEX_FAIL"});
    return {result.exited ? result.status : -1, result.output, ReadFile(root_ + "/stderr")};
  }
  // pkgsim on the test's device, expected to end with `status` and to print `shown` in order.
  Outcome Expect(int status, Args args, const Lines& shown = {}) const {
    args.insert(args.begin(), {"--device", device_});
    const Outcome outcome = Run(args);
    EXPECT_EQ(outcome.status, status) << args.back() << ": " << outcome.err;
    ExpectInOrder(outcome.out, shown);
    return outcome;
  }

  std::string root_;
  std::string device_;
};

// A platform engineer's session on one device. After each call of the plug-in pkgsim says what it decided,
// then what changed, and the plug-in's log unless --quiet. A request is one process however many packages
// it carries, so the log shows the plug-in's handler made once per request. check gives the plug-in's own
// verdict (exit status 0: stored) from a run on a scratch copy, and warns of the traps. When a later step
// fails, the installer undoes the plug-in step: UNINSTALL for a new package, UPGRADE with the previous
// manifest for an upgrade. What check and an undo leave behind, the later steps would show.
TEST_F(PkgsimTest, OperationsAndChecksExplainWhatThePluginDecided) {
  const std::string ns = "http://korvane.com/tv/metadata/", type = ns + "upgradable_webapi_type";
  // A package made here: its one application, `appid` or else the package id, has the item `key`=`value`.
  auto crafted = [&](const std::string& name, const std::string& version, const std::string& value,
                     const std::string& key = "upgradable_webapi_type", const std::string& appid = "") {
    const std::string pkgid = name.find('.') == std::string::npos ? "com.korvane.tv.pepper." + name : name;
    const std::string dir = root_ + "/packages/" + pkgid;
    wup_test::MakeDirs(dir);
    wup_test::WriteFile(dir + "/tizen-manifest.xml",
                        "<manifest package=\"" + pkgid + (version.empty() ? "" : "\" version=\"" + version) +
                            "\"><ui-application appid=\"" + (appid.empty() ? pkgid : appid) +
                            "\"><metadata key=\"" + ns + key + "\" value=\"" + value +
                            "\"/></ui-application></manifest>");
    return dir;
  };
  const std::string signage = "com.korvane.tv.pepper.signage", fail = "--fail-after-plugin";
  const std::string drmCalled = "calling PKGMGR_MDPARSER_PLUGIN_UPGRADE(" + kDrmPlayer + ", " + kDrmPlayer;
  const std::string undoes =
      "a later step of the installation fails (--fail-after-plugin): the installer "
      "undoes the plug-in step\n";
  const std::string noChange = "changes:\n  plug-in records: no change\n",
                    notStored = "verdict: not stored: ";
  const struct {
    int status;
    Args args;
    Lines shown;
  } steps[] = {
      // clang-format off
      {0, {"--quiet", "install", "--preload", kPackages + "drmplayer-1.0.0"}, {
          ": preloaded into the read-only image\n",
          "  allow-list of drmplayer not used: it is in the read-only image only\n",
          "changes:\n  + drmplayer 1.0.0 (pepper, isUpdate 0, " + kDrmPlayer + ")\n  result file: "
          "created\n"}},
      {0, {"install", kPackages + "mediaplayer"}, {": new package\ncalling PKGMGR_MDPARSER_PLUGIN_INSTALL(" +
          kMediaPlayer + ", " + kMediaPlayer + ", 2 items)\n", "  stored mediaplayer: version 1.2.0, no "
          "record of mediaplayer before\n  result file rewritten from 2 records; each rewrite terminates "
          "the allow-listed applications of every record:\n    Ab3Cd5Ef7G.SportsLive terminated: allow-"
          "listed by mediaplayer\n    Rs8Tu1Vw3X.MovieBox terminated: allow-listed by mediaplayer\nchanges:\n"
          "  + mediaplayer 1.2.0 (pepper, isUpdate 1, " + kMediaPlayer + ")\n  result file: rewritten\n"
          "  terminated: Ab3Cd5Ef7G.SportsLive, Rs8Tu1Vw3X.MovieBox\nplug-in log ("}},
      {0, {"--quiet", "check", kPackages + "mediaplayer-1.3.0"}, {"check " + kMediaPlayer + " 1.3.0 on a "
          "scratch copy of " + device_ + " (the device does not change)\n", "  ~ mediaplayer replaced\n",
          "warnings: none\nverdict: stored: mediaplayer\n"}},
      {0, {"--quiet", "install", kPackages + "mediaplayer"}, {": upgrade of the installed 1.2.0\n",
          "  not stored: version 1.2.0 equals the recorded one\n",
          noChange + "  result file: not rewritten\n  terminated: none\n"}},
      {1, {"--quiet", "check", crafted("unversioned", "", "pepperplugin")}, {"  the package has no version: "
          "the plug-in never stores it\n", notStored + "the package has no version\n"}},
      {1, {"--quiet", "check", crafted("zero", "0.0.0", "pepperplugin")}, {"  version 0.0.0 is what the "
          "plug-in assumes for an unknown", notStored + "version 0.0.0 is what the plug-in assumes for a "
          "plug-in it has no record of\n"}},
      {1, {"--quiet", "check", crafted("elsewhere", "1.0.0", "pepperplugin", "upgradable_webapi_type",
          "x.settings")}, {"  application x.settings carries " + type + ", but the plug-in reads the "
          "application whose id is the package id\n", notStored + "the plug-in reads the kind from the "
          "application whose id is the package id, and the package has no application "
          "com.korvane.tv.pepper.elsewhere (the metadata is on x.settings)\n"}},
      {1, {"--quiet", "check", crafted("com.korvane.tv.orphan", "1.0.0", "pepperplugin")}, {"  the package "
          "id has neither \"pepper.\" nor", notStored + "the package id has neither \"pepper.\" nor "
          "\"xwalk.\" in it, so it names no plug-in\n"}},
      {1, {"--quiet", "check", crafted("cased", "1.0.0", "pepperplugin", "Upgradable_webapi_type")}, {"  " +
          ns + "Upgradable_webapi_type differs from " + type + " in case: the plug-in matches keys exactly\n",
          notStored + "not handled: no item has the key " + type + " exactly (" + ns +
          "Upgradable_webapi_type differs in case)\n"}},
      {1, {"--quiet", "install", fail, kPackages + "mediaplayer-1.3.0"}, {
          "  stored mediaplayer: version 1.3.0 replaces", undoes + kMediaPlayer + " is back at its previous "
          "version 1.2.0\ncalling PKGMGR_MDPARSER_PLUGIN_UPGRADE(", "  stored mediaplayer: version 1.2.0 "
          "replaces the recorded 1.3.0\n", noChange}},
      {1, {"--quiet", "install", fail, kPackages + "signage"}, {undoes +
          "calling PKGMGR_MDPARSER_PLUGIN_UNINSTALL(" + signage + ", " + signage + ", 2 items)\n"
          "  removed signage\n", signage + " is removed again\n", noChange}},
      {0, {"install", kPackages + "signage", kPackages + "tvinfo", kPackages + "weather-broken"}, {
          ": new package\n", "  + signage 1.0.0 (b2b pepper", "plug-in log (",
          "install com.korvane.tv.xwalk.tvinfo 2.0.1: new package\n", "    Hj2Kl4Mn6P.TvGuide terminated 4 "
          "times: allow-listed by signage, tv.audio, tv.channel, tv.inputdevice\n", "  + tv.audio 2.0.1 (",
          "plug-in log (", "install com.korvane.tv.xwalk.weather 1.0.0: new package\n", noChange,
          // The parser's message spans lines; they stay indented in the log.
          "],err:[* Line 6, Column 1\n        Missing ',' or ']' in array declaration\n      ]\n  I/"}},
      {0, {"install", kPackages + "drmplayer-1.1.0"}, {": update of the preloaded 1.0.0\n", drmCalled,
          "  installed in the writable area, over a preloaded copy (isUpdate 2): "}},
      {0, {"--quiet", "uninstall", kDrmPlayer}, {": the update of a preloaded package\n",
          "  removed drmplayer\n", kDrmPlayer + " is back at its preloaded version 1.0.0\n" + drmCalled,
          "  ~ drmplayer replaced\n      version: [1.1.0] -> [1.0.0]\n"}},
      {0, {"uninstall", signage}, {"  removed signage\n",
          "  - signage 1.0.0 (b2b pepper, isUpdate 1, " + signage + ")\n  result file: rewritten\n"}},
      {0, {"--quiet", "show"}, {"  Rs8Tu1Vw3X 1.4.2 installed\n  " + kDrmPlayer + " 1.0.0 preloaded\n  " +
          kMediaPlayer + " 1.2.0 installed\n  com.korvane.tv.xwalk.tvinfo 2.0.1 installed\n"
          "  com.korvane.tv.xwalk.weather 1.0.0 installed\nforeground: none\ndatabase: valid\n"
          "plug-in records (5):\n"}},
      // clang-format on
  };
  for (const auto& step : steps) {
    const Outcome outcome = Expect(step.status, step.args, step.shown);
    // A failed installation says so on standard error (the demo pins the words); a verdict is no failure.
    EXPECT_EQ(outcome.err.empty(), step.status == 0 || step.args[1] == "check") << outcome.err;
    EXPECT_EQ(outcome.out.find(root_ + "/tmp/"), std::string::npos)
        << "scratch paths are shown as the device's";
    const std::size_t made = outcome.out.find("PluginHandler::PluginHandler()");
    EXPECT_EQ(made == std::string::npos, step.args[0] == "--quiet") << step.args.back();
    EXPECT_EQ(made, outcome.out.rfind("PluginHandler::PluginHandler()")) << step.args.back();
  }
  const std::string lib = "/shared/res/libmediaplayer.so";
  EXPECT_EQ(ReadFile(device_ + "/opt/usr/apps/" + kMediaPlayer + lib),
            ReadFile(kPackages + "mediaplayer" + lib));
}

// show lets the plug-in judge the database and the result file on copies of a device damaged three ways,
// without changing them; an operation on the damaged device then says how the plug-in recovered.
TEST_F(PkgsimTest, ShowSaysWhenTheDatabaseIsDamagedAndTheResultFileStale) {
  Expect(0, {"install", kPackages + "mediaplayer"});
  const hostkit::Layout paths = hostkit::Layout::At("");  // relative to the device's root
  const std::string db = paths.Database(), backup = paths.Backup(), result = paths.ResultFile();
  const std::string damaged = "database: damaged (fails SQLite's integrity check)";
  const std::string stale = ": stale: it differs from the document the records give (";
  const struct {
    Lines damaged;  // files overwritten with text
    Lines shown;
  } cases[] = {
      // clang-format off
      {{}, {"database: valid\n", result + ": current: the document the records give\n"}},
      {{db}, {damaged + ": the next operation restores it from the backup, with 1 record (mediaplayer)\n",
          ": current: the document the records give\n"}},
      {{db, backup}, {damaged + ", and so is its backup: the next operation deletes it and creates an "
          "empty database; its records are lost\n", stale + "it lists mediaplayer; the records give no "
          "plug-in); the next rewrite replaces it\n"}},
      {{result}, {"database: valid\n", stale + "it is not JSON; the records give mediaplayer); the next "
          "rewrite replaces it\n"}},
      // clang-format on
  };
  const std::string healthy = device_;
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    device_ = root_ + "/case" + std::to_string(i);
    fs::copy(healthy, device_, fs::copy_options::recursive);
    for (const std::string& file : cases[i].damaged) wup_test::WriteFile(device_ + file, "damaged\n");
    const auto tree = Tree(device_);
    Expect(0, {"show"}, cases[i].shown);
    EXPECT_EQ(Tree(device_), tree) << "show changes nothing";
  }
  device_ = root_ + "/case1";
  Expect(
      0, {"--quiet", "install", kPackages + "signage"},
      {"  warning: the database was damaged (fails SQLite's integrity check): the plug-in restored it from",
       "  result file rewritten from 2 records",
       "  compared with the backup, which held 1 record: the "
       "database was unreadable before\n  + signage"});
}

// The device's registration decides which plug-in pkgsim loads and which items it hands over, as the
// installer decides: the tag rule, the prefix rule, a library that does not load, a malformed line. Each
// request says which build it ran. A package installed for one user is not seen by the plug-in, which the
// installer runs as root; show lists such packages apart.
TEST_F(PkgsimTest, RegistrationsAndUsersDecideWhatThePluginGetsAndSees) {
  const std::string registration = device_ + "/usr/share/parser-plugins/webapi-upgrade-plugin.info";
  const std::string path = "/etc/package-manager/parserlib/metadata/libwebapi-upgrade-plugin.so";
  const std::string ns = "http://korvane.com/tv/metadata", own = ReadFile(registration);
  const std::string skips = "the installer skips this plug-in: its name ends in '/'";
  const std::string signage = kPackages + "signage", drm = kPackages + "drmplayer-1.1.0";
  const std::string home = device_ + "/opt/usr/home/owner";
  // No database exists yet although signage is installed (by a plug-in stand-in): the hardened build rebuilds
  // its record from the installed packages, the default build starts empty.
  const std::string rebuilt = WUP_HARDENED
                                  ? "  records rebuilt from the installed packages that carry the type key: "
                                    "com.korvane.tv.pepper.signage 1.0.0 (signage)\n"
                                  : "";
  const struct {
    std::string registration;  // the registration file's content for this step
    int status;
    Args args;
    Lines shown;
    std::string err = "";  // the start of standard error
  } steps[] = {
      // clang-format off
      {own, 0, {"show"}, {"plug-in registrations in usr/share/parser-plugins/, as the installer reads them:\n"
          "  webapi-upgrade-plugin.info: type=\"metadata\";name=\"" + ns + "\";path=\"" + path + "\"\n"
          "    the installer loads " + path + ", ", ", for the keys starting with " + ns + "\n", "database: "
          "none yet"}},
      {own, 0, {"--plugin", PKGSIM_STUB_NAMED, "install", signage}, {"plug-in " + ns + ": " PKGSIM_STUB_NAMED
          " (--plugin) in place of " + path + ", the hardened build\ninstall "}},
      {own, 1, {"--plugin", PKGSIM_STUB_UNNAMED, "--quiet", "check", kPackages + "mediaplayer"}, {"plug-in " +
          ns + ": " PKGSIM_STUB_UNNAMED " (--plugin) in place of " + path + ", unknown build (no "
          "WUP_POLICY_NAME)\ninstall "}},
      {"type=\"metadata\";name=\"" + ns + "/upgradable_webapi_type\";path=\"" + path + "\"\n", 0,
          {"--quiet", "install", kPackages + "mediaplayer"}, {"calling PKGMGR_MDPARSER_PLUGIN_INSTALL(" +
          kMediaPlayer + ", " + kMediaPlayer + ", 1 item)\n", rebuilt + "  stored mediaplayer"}},
      {"type=\"metadata\";name=\"" + ns + "/\";path=\"" + path + "\"\n", 0, {"--quiet", "install", signage},
          {"plug-in registration webapi-upgrade-plugin.info: " + skips, "the plug-in is not called: " + skips,
          "changes:\n  plug-in records: no change\n"}},
      {"", 1, {"--quiet", "check", signage}, {"verdict: not stored: the plug-in is not called: " + skips}},
      {"", 0, {"--quiet", "show"}, {"\n    " + skips + ", so its tag (the text after the last '/') is empty\n"}},
      {"type=\"metadata\";name=\"" + ns + "\";path=\"/etc/none.so\"\n", 0, {"--quiet", "install", signage},
          {"the plug-in is not called: the installer skips this plug-in: its library /etc/none.so does not "
          "load (cannot load the plug-in: " + device_ + "/etc/none.so: "}},
      {"flag=\"0x1\";" + own, 1, {"install", signage}, {}, "pkgsim: the installer cannot read its plug-in "
          "registrations: webapi-upgrade-plugin.info line 1 is not type="},
      {"", 0, {"show"}, {"  the installer cannot read its plug-in registrations: "}},
      {own, 0, {"install", "--user", "5001", drm}, {"install " + kDrmPlayer + " 1.1.0 for user 5001: new "
          "package\n", "  not stored: installed for user 5001 only: the installer runs the plug-in as root, "
          "for which the package-information service does not list per-user packages, so the plug-in found "
          "no such application\n", "changes:\n  plug-in records: no change\n"}},
      {"", 1, {"--quiet", "check", "--user", "5002", drm}, {"verdict: not stored: installed for user 5002 "
          "only: "}},
      {"", 0, {"--quiet", "show"}, {"packages installed for one user (1), which the plug-in, run as root by "
          "the installer, does not see:\n  " + kDrmPlayer + " 1.1.0 for user 5001 (opt/usr/home/owner)\n"}},
      {"", 1, {"install", drm}, {}, "pkgsim: " + kDrmPlayer + " is installed for user 5001; it cannot be "
          "installed for all users as well\n"},
      {"", 1, {"uninstall", kDrmPlayer}, {}, "pkgsim: " + kDrmPlayer + " is installed for user 5001 only "
          "(pkgsim uninstall --user 5001 " + kDrmPlayer + ")\n"},
      // clang-format on
  };
  for (const auto& step : steps) {
    if (!step.registration.empty()) wup_test::WriteFile(registration, step.registration);
    const Outcome outcome = Expect(step.status, step.args, step.shown);
    EXPECT_EQ(outcome.err.rfind(step.err, 0), 0u) << outcome.err;
    EXPECT_EQ(outcome.err.empty(), step.err.empty()) << outcome.err;
  }
  // Where the device keeps one user's packages; an uninstall for that user removes them from there.
  const std::string files = home + "/apps_rw/" + kDrmPlayer,
                    manifest = home + "/.applications/packages/" + kDrmPlayer + ".xml";
  EXPECT_EQ(ReadFile(files + "/shared/res/libdrmplayer.so"), ReadFile(drm + "/shared/res/libdrmplayer.so"));
  EXPECT_EQ(ReadFile(manifest), ReadFile(drm + "/tizen-manifest.xml"));
  EXPECT_FALSE(fs::exists(device_ + "/opt/usr/apps/" + kDrmPlayer));
  Expect(0, {"uninstall", "--user", "5001", kDrmPlayer},
         {"uninstall " + kDrmPlayer + " 1.1.0 for user 5001\n"});
  EXPECT_FALSE(fs::exists(files) || fs::exists(manifest));
}

// Bad input ends with one line on standard error and exit status 1, before the device is touched;
// command-line misuse with one line and 2; help with 0.
TEST_F(PkgsimTest, BadInputAndMisuseAreRefusedWithOneLine) {
  Expect(0, {"install", "--preload", kPackages + "drmplayer-1.0.0"});
  const std::string empty = root_ + "/empty", malformed = root_ + "/malformed", nowhere = root_ + "/nowhere";
  const std::string signage = kPackages + "signage", file = malformed + "/tizen-manifest.xml";
  for (const std::string& dir : {empty, malformed}) wup_test::MakeDirs(dir);
  wup_test::WriteFile(file, "<manifest package=\"com.korvane.tv.pepper.x\"");
  const struct {
    int status;
    Args args;            // after --device and the test's device
    std::string message;  // the start of the line after "pkgsim: "
  } cases[] = {
      // clang-format off
      {1, {"install", empty}, "no tizen-manifest.xml in " + empty + "\n"},
      {1, {"install", signage, root_ + "/missing"}, root_ + "/missing is not a package directory\n"},
      {1, {"check", malformed}, "malformed manifest: " + file + ": not XML"},
      {1, {"--plugin", root_ + "/none.so", "install", signage}, "cannot load the plug-in: "},
      {1, {"uninstall", "../device"}, "unknown package: ../device\n"},
      {1, {"uninstall", kDrmPlayer}, kDrmPlayer + " is preloaded in the read-only image and cannot be "
          "uninstalled\n"},
      {1, {"install", "--preload", kPackages + "drmplayer-1.1.0"}, kDrmPlayer + " is already on the device; "
          "only a package that is not there can be preloaded\n"},
      {1, {"--device", nowhere, "install", signage}, "no device at " + nowhere + " (create one: pkgsim "
          "init " + nowhere + ")\n"},
      {1, {"init"}, device_ + " exists and is not empty\n"},
      {1, {"init", file}, file + " is a file, not a directory\n"},
      {2, {"bogus"}, "unknown command bogus (pkgsim --help)\n"},
      {2, {"show", "extra"}, "show takes no arguments (pkgsim show --help)\n"},
      {2, {"install"}, "install takes at least one argument (pkgsim install --help)\n"},
      {2, {"uninstall", "--preload", "x"}, "--preload is an option of install and check\n"},
      {2, {"--device"}, "--device needs a value\n"},
      {1, {"install", "--user", "5001", kPackages + "drmplayer-1.1.0"}, kDrmPlayer + " is on the device for "
          "all users; it cannot be installed for one user\n"},
      {2, {"install", "--user", "4999", signage}, "--user takes the uid of a regular user (5000 and above); "
          "packages for all users are installed without it\n"},
      {2, {"show", "--user", "5001"}, "--user is an option of install, check and uninstall\n"},
      {2, {"install", "--user=5001", "--preload", signage}, "--user and --preload exclude each other\n"},
      // clang-format on
  };
  const auto tree = Tree(device_);
  for (const auto& c : cases) {
    const Outcome outcome = Expect(c.status, c.args);
    EXPECT_EQ(outcome.out, "") << c.message;
    EXPECT_EQ(outcome.err.find('\n'), outcome.err.size() - 1) << outcome.err;
    EXPECT_EQ(outcome.err.rfind("pkgsim: " + c.message, 0), 0u) << outcome.err;
  }
  EXPECT_FALSE(fs::exists(nowhere));
  EXPECT_EQ(Tree(device_), tree);
  for (const char* command : {"init", "check", "install", "uninstall", "show", "foreground", "demo"}) {
    const Outcome help = Run({command, "--help"});
    EXPECT_EQ(help.status, 0) << command;
    EXPECT_EQ(help.out.rfind(std::string("usage: pkgsim ") + command, 0), 0u) << help.out;
  }
}

// The tour runs to its end on a temporary device of its own, removes it, and prints, with --quiet, every
// line that the README quotes from it, in the README's order ("..." stands for what differs between runs).
TEST_F(PkgsimTest, DemoRunsToItsEndAsTheReadmeShows) {
  const Outcome tour = Run({"--quiet", "demo"});
  EXPECT_EQ(tour.status, 0) << tour.err;
  EXPECT_EQ(tour.err, "pkgsim: the installation of " + kMediaPlayer +
                          " failed (--fail-after-plugin); the plug-in step was undone\n"
                          "pkgsim: unknown package: com.korvane.tv.pepper.nosuchplayer\n");
  EXPECT_EQ(tour.out.find("plug-in log"), std::string::npos);

  std::ifstream readme(PKGSIM_EXAMPLES_DIR "/../README.md");
  std::string line;
  while (std::getline(readme, line) && line != "<!-- pkgsim demo excerpt -->") {
  }
  std::getline(readme, line);  // the opening fence
  Lines quoted;
  while (std::getline(readme, line) && line != "```") {
    for (std::size_t from = 0; from <= line.size();) {
      const std::size_t gap = std::min(line.find("...", from), line.size());
      if (gap > from) quoted.push_back(line.substr(from, gap - from) + (gap == line.size() ? "\n" : ""));
      from = gap + 3;
    }
  }
  EXPECT_GT(quoted.size(), 10u);
  quoted.push_back("\nThe demo's device is removed (pkgsim demo --keep keeps it).\n");
  ExpectInOrder(tour.out, quoted);
}

}  // namespace
