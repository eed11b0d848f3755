// The plug-in as the package manager uses it: which metadata lists select a package, installing, upgrading
// and uninstalling, and what the user sees of it (rows, the result file, terminations, the log).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "device.h"

namespace wup_e2e {
namespace {

using ::testing::IsSupersetOf;

std::string Call(const std::string& pkgid, const std::string& appid, int items) {
  return "pkgid(" + pkgid + ") appid(" + appid + ") list(" + std::to_string(items) + ")";
}

Lines Head(const Lines& log, size_t count) {
  return Lines(log.begin(), log.begin() + std::min(count, log.size()));
}

// An empty list is refused before anything is created; a null package id leaves the plug-in as an exception.
TEST(EntryPoints, EmptyListIsRefusedBeforeAnythingIsCreatedAndANullIdThrows) {
  Device device;
  const Package package = Pepper("empty");
  device.Place(package);
  ASSERT_EQ(0, device.Run([&package](Plugin& plugin) {
    EXPECT_EQ(0, plugin.Install(package.pkgid.c_str(), "the.app", {}));
    EXPECT_EQ(0, plugin.Uninstall(package.pkgid.c_str(), "the.app", {}));
  }));
  const std::string call = Call(package.pkgid, "the.app", 0), refused = "[ERROR] No Engine Metadata";
  EXPECT_EQ((Lines{"METADATA INSTALL", call, refused, "METADATA UNINSTALL", call, refused}), device.Log());
  EXPECT_FALSE(wup_test::PathExists(device.DatabasePath()));
  EXPECT_EQ(Device::kExceptionLeft, device.Run([](Plugin& plugin) {
    plugin.Install(nullptr, "the.app", {{kTypeKey.c_str(), "pepperplugin"}});
  }));
}

// Only the whole type key, compared exactly, selects the package; the walk passes over nodes without an
// item or a key and stops at the first match.
TEST(EntryPoints, TheFirstItemWithExactlyTheTypeKeySelectsThePackage) {
  Device device;
  const Package package = Pepper("walk");
  device.Place(package);
  const std::string id = package.pkgid, prefix = kTypeKey.substr(0, kTypeKey.size() - 1);
  const Lines nearMisses = {kTypeKey + "x", prefix, prefix + "E"};
  MetadataList items = {{nullptr, nullptr}, {nullptr, "no key"}};
  Lines opening = {"METADATA INSTALL", Call(id, id, 8)};
  for (const std::string& key : nearMisses) {
    items.emplace_back(key.c_str(), "pepperplugin");
    opening.push_back("key(" + key + ") - value(pepperplugin)");
  }
  items.insert(items.end(),
               {{kTypeKey.c_str(), ""}, {kTypeKey.c_str(), "pepperplugin"}, {"after.match", "y"}});
  opening.insert(opening.end(),
                 {"key(" + kTypeKey + ") - value()", "create instance", "PluginHandler::PluginHandler()"});
  ASSERT_EQ(0,
            device.Run([&](Plugin& plugin) { EXPECT_EQ(0, plugin.Install(id.c_str(), id.c_str(), items)); }));
  const Lines log = device.Log();
  EXPECT_EQ(opening, Head(log, opening.size()));
  EXPECT_EQ(1, std::count(log.begin(), log.end(), "create instance"));
  EXPECT_FALSE(Has(log, "key(after.match) - value(y)"));
  EXPECT_EQ(1u, device.Rows().size());
  EXPECT_EQ("finish", log.back());
}

TEST(Install, NewPepperPackageIsStoredPublishedAndItsBackgroundAppsTerminated) {
  Device device;
  Package package = Pepper("sampleplayer", "1.2.0");
  package.appList = "App.One, App.Two";
  package.force = "true";  // not honoured: every stored record says 0, and the result "forceupdate" false
  device.SetForeground("App.Two");

  ASSERT_EQ(0, device.Install(package));

  const std::string res = device.layout().rwApp + "/com.korvane.tv.pepper.sampleplayer/shared/res/";
  // name|version|path|pkgid|entryPoints|pluginType|hasForceMetaData|isUpdate|appWhiteList|systemPath
  EXPECT_EQ(Lines{"sampleplayer|1.2.0|" + res + "|" + package.pkgid + "||1|0|1|App.One, App.Two|"},
            device.Rows());
  EXPECT_EQ(wup_test::ReadFile(device.DatabasePath()), wup_test::ReadFile(device.BackupPath()));
  // clang-format off
  const std::string listed =  // under each application of the allow-list alike
      "\t\t\t[\n"
      "\t\t\t\t{\n"
      "\t\t\t\t\t\"name\" : \"sampleplayer\",\n"
      "\t\t\t\t\t\"path\" : \"" + res + "\"\n"
      "\t\t\t\t}\n"
      "\t\t\t]";
  EXPECT_EQ(
      "{\n"
      "\t\"forceupdate_webapi\" : \n"
      "\t{\n"
      "\t\t\"pepper\" : \n"
      "\t\t[\n"
      "\t\t\t{\n"
      "\t\t\t\t\"forceupdate\" : false,\n"
      "\t\t\t\t\"name\" : \"sampleplayer\",\n"
      "\t\t\t\t\"path\" : \"" + res + "\",\n"
      "\t\t\t\t\"system\" : false,\n"
      "\t\t\t\t\"systempath\" : \"\"\n"
      "\t\t\t}\n"
      "\t\t]\n"
      "\t},\n"
      "\t\"upgradable_webapi_applist\" : \n"
      "\t{\n"
      "\t\t\"pepper\" : \n"
      "\t\t{\n"
      "\t\t\t\"App.One\" : \n" + listed + ",\n"
      "\t\t\t\"App.Two\" : \n" + listed + "\n"
      "\t\t}\n"
      "\t}\n"
      "}",
      device.ResultFile());
  // clang-format on
  EXPECT_FALSE(wup_test::PathExists(device.ResultPath() + "_bak"));
  EXPECT_EQ(Lines{"App.One"}, device.Terminated());

  const Lines log = device.Log();
  EXPECT_EQ((Lines{"METADATA INSTALL", Call(package.pkgid, package.pkgid, 3),
                   "key(" + kTypeKey + ") - value(pepperplugin)", "create instance",
                   "PluginHandler::PluginHandler()", "GetPluginListFromDB", "GetPluginListFromDB"}),
            Head(log, 7));
  EXPECT_THAT(
      log, IsSupersetOf(Lines{
               "pkgid = [" + package.pkgid + "], version = [1.2.0]", "tpkVersion[1.2.0], localVersion[0.0.0]",
               "insert new data:name[sampleplayer]version[1.2.0]path[" + res + "]pkgid[" + package.pkgid +
                   "]entrypoints[]pluginType[1]hasForceMetadata[0]isupdate[1]appWhiteList[App.One, "
                   "App.Two]systempath=[]"}));
  EXPECT_EQ("finish", log.back());
}

TEST(Install, XwalkPackageStoresEveryExtensionInItsOwnResourceDirectoryWhileItCanBeRead) {
  Device device;
  Package package{"com.korvane.tv.xwalk.tv.channel", "3.0.1", "xwalkplugin", "Viewer.App", "", {}};
  package.descriptions["channel.json"] =
      R"([{"name": "tv.channel", "lib": "/usr/lib/ext/libchannel.so", "entry_points": ["tizen.tvchannel"]},
          {"name": "tv.window", "lib": "libwindow.so", "entry_points": ["tizen.tvwindow", "tizen.tvvideo"]}])";
  package.descriptions["audio.json"] = R"([{"name": "tv.audio", "lib": "lib/libaudio.so", "version": "9"}])";
  ASSERT_EQ(0, device.Install(package));

  const std::string res = device.layout().rwApp + "/" + package.pkgid + "/shared/res/";
  // The package's version, id and allow-list; of each library only its file part, in the resource directory.
  const std::string common = "|3.0.1|" + res + "lib";
  const Lines rows = {
      "tv.audio" + common + "audio.so|" + package.pkgid + "||0|0|1|Viewer.App|",
      "tv.channel" + common + "channel.so|" + package.pkgid + "|tizen.tvchannel|0|0|1|Viewer.App|",
      "tv.window" + common + "window.so|" + package.pkgid +
          "|tizen.tvwindow,tizen.tvvideo|0|0|1|Viewer.App|"};
  EXPECT_EQ(rows, device.Rows());
  // One termination per record that lists the application.
  EXPECT_EQ(Lines(3, "Viewer.App"), device.Terminated());

  // The same version again (the plug-in name is one of its extensions), its resource directory gone: the
  // records cannot be built, so the check fails, and not even a missing result file is rebuilt.
  wup_test::RemoveTree(res);
  wup_test::RemoveTree(device.ResultPath());
  device.ClearLog();
  ASSERT_EQ(0, device.Run([&package](Plugin& plugin) {
    plugin.Install(package.pkgid.c_str(), package.pkgid.c_str(), MetadataOf(package));
  }));
  const Lines log = device.Log();
  EXPECT_THAT(log, IsSupersetOf(Lines{"tpkVersion == localVersion", "Get the inserted list fail",
                                      "check[" + package.pkgid + "]fail"}));
  EXPECT_FALSE(device.ResultFileExists());
  EXPECT_EQ(rows, device.Rows());
}

TEST(Install, SameVersionAgainStoresNothingAndRewritesOnlyAMissingResultFileButAnyOtherIsStored) {
  Device device;
  Package package = Pepper("again", "2.0.0");
  ASSERT_EQ(0, device.Install(package));
  const std::string published = device.ResultFile();
  const std::string database = wup_test::ReadFile(device.DatabasePath());

  // Result file present: left exactly as it is (a marker proves it is not rewritten).
  wup_test::WriteFile(device.ResultPath(), "marker");
  device.ClearLog();
  ASSERT_EQ(0, device.Install(package));
  const Lines log = device.Log();
  EXPECT_THAT(log, IsSupersetOf(Lines{"tpkVersion[2.0.0], localVersion[2.0.0]", "tpkVersion == localVersion",
                                      "no need insert"}));
  EXPECT_EQ("marker", device.ResultFile());
  EXPECT_EQ(database, wup_test::ReadFile(device.DatabasePath()));

  // Result file missing: rebuilt from the database although nothing changed.
  wup_test::RemoveTree(device.ResultPath());
  ASSERT_EQ(0, device.Install(package));
  EXPECT_EQ(published, device.ResultFile());

  // A lower version is no less a change; an upgrade is an install.
  package.version = "1.9.9";
  device.Place(package);
  wup_test::WriteFile(device.ResultPath(), "marker");
  device.ClearLog();
  ASSERT_EQ(0, device.Run([&package](Plugin& plugin) {
    EXPECT_EQ(0, plugin.Upgrade(package.pkgid.c_str(), package.pkgid.c_str(), MetadataOf(package)));
  }));
  const Lines upgrade = device.Log();
  EXPECT_EQ((Lines{"METADATA UPGRADE", "METADATA INSTALL"}), Head(upgrade, 2));
  EXPECT_TRUE(Has(upgrade, "tpkVersion[1.9.9], localVersion[2.0.0]"));
  EXPECT_EQ("finish", upgrade.back());
  const std::string res = device.layout().rwApp + "/" + package.pkgid + "/shared/res/";
  EXPECT_EQ(Lines{"again|1.9.9|" + res + "|" + package.pkgid + "||1|0|1||"}, device.Rows());
  EXPECT_EQ(published, device.ResultFile());
}

// An unreadable version reads as "0.0.0", which a plug-in not yet recorded also has.
TEST(Install, PackageWithAnUnreadableVersionIsNotStored) {
  Device device;
  const Package package = Pepper("noversion");
  ASSERT_EQ(0, device.Install(package, {"HOST_PKGMGRINFO_FAIL=pkgmgrinfo_pkginfo_get_version"}));
  const Lines log = device.Log();
  EXPECT_THAT(log,
              IsSupersetOf(Lines{"get [" + package.pkgid + "] version fail!!",
                                 "pkgid = [" + package.pkgid + "], version = [0.0.0]", "no need insert"}));
  EXPECT_TRUE(device.Rows().empty());
  // Nothing recorded, but the web runtime still gets a (null) result file.
  EXPECT_EQ("null", device.ResultFile());
}

TEST(Install, UnwritableResultFileEmptiesTheDatabaseForTheNextStart) {
  Device device;
  const Package first = Pepper("first"), second = Pepper("second");
  ASSERT_EQ(0, device.Install(first));
  const std::string published = device.ResultFile();

  // The staging file cannot be opened: a directory stands in its way. Within the same process the
  // change stays pending, so the next call writes the result once it can, though it stores nothing.
  const std::string staging = device.ResultPath() + "_bak";
  wup_test::MakeDirs(staging);
  device.Place(second);
  device.ClearLog();
  ASSERT_EQ(0, device.Run([&](Plugin& plugin) {
    plugin.Install(second.pkgid.c_str(), second.pkgid.c_str(), MetadataOf(second));
    if (device.ResultFile() != published) std::exit(5);  // a failed write leaves the previous result
    wup_test::RemoveTree(staging);
    plugin.Install(second.pkgid.c_str(), second.pkgid.c_str(), MetadataOf(second));
  }));

  const Lines log = device.Log();
  EXPECT_THAT(log, IsSupersetOf(Lines{"[" + staging + "] is not a symbol link",
                                      "open [" + staging + "] fail!", "update fail!clear DB for next boot",
                                      "Current remove sql is [delete from 'pluginTable']"}));
  EXPECT_TRUE(device.Rows().empty());
  EXPECT_EQ("null", device.ResultFile()) << "the pending rewrite publishes the emptied database";

  // At the next start every package is stored again.
  ASSERT_EQ(0, device.Install(first));
  ASSERT_EQ(0, device.Install(second));
  EXPECT_EQ(2u, device.Rows().size());
}

TEST(Uninstall, ThePluginNamedByTheIdIsRemovedAndTheResultRebuiltUnlessTheIdNamesNone) {
  Device device;
  const Package kept = Pepper("kept"), removed = Pepper("removed");
  ASSERT_EQ(0, device.Install(kept));
  const Lines keptRow = device.Rows();
  ASSERT_EQ(0, device.Install(removed));
  auto uninstall = [&device](const Package& package) {
    wup_test::WriteFile(device.ResultPath(), "stale");
    device.ClearLog();
    ASSERT_EQ(0, device.Run([&package](Plugin& plugin) {
      EXPECT_EQ(0, plugin.Uninstall(package.pkgid.c_str(), package.pkgid.c_str(), MetadataOf(package)));
    }));
  };

  uninstall(removed);
  Lines log = device.Log();
  EXPECT_EQ(
      (Lines{"METADATA UNINSTALL", Call(removed.pkgid, removed.pkgid, 1), "PluginHandler::PluginHandler()"}),
      Head(log, 3));
  EXPECT_TRUE(Has(log, "Current remove sql is [delete from 'pluginTable' where name='removed']"));
  EXPECT_EQ("finish", log.back());
  EXPECT_EQ(keptRow, device.Rows());
  EXPECT_EQ(std::string::npos, device.ResultFile().find("\"removed\""));
  EXPECT_NE(std::string::npos, device.ResultFile().find("\"kept\""));

  // A plug-in that was never stored: nothing removed, the result rebuilt all the same.
  uninstall(Pepper("neverstored"));
  EXPECT_EQ(keptRow, device.Rows());
  EXPECT_NE("stale", device.ResultFile());

  uninstall(Pepper(""));
  log = device.Log();
  EXPECT_THAT(log, IsSupersetOf(Lines{"get plugin name fail", "get tpk name fail"}));
  EXPECT_EQ("stale", device.ResultFile());
  EXPECT_EQ(keptRow, device.Rows());
}

// The harness itself: an expectation that fails in a scenario's process fails the test that ran it. The
// disabled test runs only in the program that the next test starts.
TEST(Harness, DISABLED_ExpectationFailingInTheScenarioProcess) {
  Device device;
  device.Run([](Plugin&) { EXPECT_EQ(1, 2) << "planted in the scenario's process"; });
}

TEST(Harness, AnExpectationFailingInTheScenarioProcessFailsTheTest) {
  const std::string self =
      std::filesystem::read_symlink("/proc/self/exe");  // the program, also under valgrind
  const wup_test::CommandResult run = wup_test::RunCommand(
      {self, "--gtest_also_run_disabled_tests", "--gtest_filter=Harness.DISABLED_ExpectationFailing*"});
  EXPECT_TRUE(run.exited && run.status == 1) << run.output;
  for (const char* printed :
       {"planted in the scenario's process", "an expectation failed in the scenario's process",
        "[  FAILED  ] Harness.DISABLED_ExpectationFailingInTheScenarioProcess"})
    EXPECT_NE(std::string::npos, run.output.find(printed)) << printed << "\n" << run.output;
}

}  // namespace
}  // namespace wup_e2e
