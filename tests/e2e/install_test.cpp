// Installing and upgrading plug-in packages through the package manager's entry points.
#include <gtest/gtest.h>

#include "device.h"

namespace wup_e2e {
namespace {

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
      "\t\t\t\"App.One\" : \n"
      "\t\t\t[\n"
      "\t\t\t\t{\n"
      "\t\t\t\t\t\"name\" : \"sampleplayer\",\n"
      "\t\t\t\t\t\"path\" : \"" + res + "\"\n"
      "\t\t\t\t}\n"
      "\t\t\t],\n"
      "\t\t\t\"App.Two\" : \n"
      "\t\t\t[\n"
      "\t\t\t\t{\n"
      "\t\t\t\t\t\"name\" : \"sampleplayer\",\n"
      "\t\t\t\t\t\"path\" : \"" + res + "\"\n"
      "\t\t\t\t}\n"
      "\t\t\t]\n"
      "\t\t}\n"
      "\t}\n"
      "}",
      device.ResultFile());
  // clang-format on
  EXPECT_FALSE(wup_test::PathExists(device.ResultPath() + "_bak"));
  EXPECT_EQ(Lines{"App.One"}, device.Terminated());

  const Lines log = device.Log();
  ASSERT_GE(log.size(), 7u);
  EXPECT_EQ((Lines{"METADATA INSTALL", "pkgid(" + package.pkgid + ") appid(" + package.pkgid + ") list(3)",
                   "key(" + kTypeKey + ") - value(pepperplugin)", "create instance",
                   "PluginHandler::PluginHandler()", "GetPluginListFromDB", "GetPluginListFromDB"}),
            Lines(log.begin(), log.begin() + 7));
  EXPECT_TRUE(Has(log, "pkgid = [" + package.pkgid + "], version = [1.2.0]"));
  EXPECT_TRUE(Has(log, "tpkVersion[1.2.0], localVersion[0.0.0]"));
  EXPECT_TRUE(Has(log, "insert new data:name[sampleplayer]version[1.2.0]path[" + res + "]pkgid[" +
                           package.pkgid +
                           "]entrypoints[]pluginType[1]hasForceMetadata[0]isupdate[1]appWhiteList[App.One, "
                           "App.Two]systempath=[]"));
  EXPECT_TRUE(Has(log, "App.Two is at foreground"));
  EXPECT_TRUE(Has(log, "vex_terminate_app [App.One] success"));
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

  // The same version again (the package's plug-in name is one of its extensions) with the resource
  // directory gone: the records cannot be built, so the check fails, and not even a missing result file
  // is rebuilt.
  wup_test::RemoveTree(res);
  wup_test::RemoveTree(device.ResultPath());
  device.ClearLog();
  ASSERT_EQ(0, device.Run([&package](Plugin& plugin) {
    plugin.Install(package.pkgid.c_str(), package.pkgid.c_str(), MetadataOf(package));
  }));
  const Lines log = device.Log();
  EXPECT_TRUE(Has(log, "tpkVersion == localVersion"));
  EXPECT_TRUE(Has(log, "Get the inserted list fail"));
  EXPECT_TRUE(Has(log, "check[" + package.pkgid + "]fail"));
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
  EXPECT_TRUE(Has(log, "tpkVersion[2.0.0], localVersion[2.0.0]"));
  EXPECT_TRUE(Has(log, "tpkVersion == localVersion"));
  EXPECT_TRUE(Has(log, "no need insert"));
  for (const std::string& message : log)
    EXPECT_EQ(std::string::npos, message.find("insert new data:")) << message;
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
  EXPECT_EQ((Lines{"METADATA UPGRADE", "METADATA INSTALL"}), Lines(upgrade.begin(), upgrade.begin() + 2));
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
  EXPECT_TRUE(Has(log, "get [" + package.pkgid + "] version fail!!"));
  EXPECT_TRUE(Has(log, "pkgid = [" + package.pkgid + "], version = [0.0.0]"));
  EXPECT_TRUE(Has(log, "no need insert"));
  EXPECT_TRUE(device.Rows().empty());
  // Nothing recorded, but the web runtime still gets a (null) result file.
  EXPECT_EQ("null", device.ResultFile());
}

TEST(Install, UnwritableResultFileEmptiesTheDatabaseForTheNextStart) {
  Device device;
  const Package first = Pepper("first"), second = Pepper("second");
  ASSERT_EQ(0, device.Install(first));
  ASSERT_EQ(1u, device.Rows().size());
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
  EXPECT_TRUE(Has(log, "open [" + staging + "] fail!"));
  EXPECT_TRUE(Has(log, "update fail!clear DB for next boot"));
  EXPECT_TRUE(Has(log, "Current remove sql is [delete from 'pluginTable']"));
  EXPECT_TRUE(device.Rows().empty());
  EXPECT_EQ(wup_test::ReadFile(device.DatabasePath()), wup_test::ReadFile(device.BackupPath()));
  EXPECT_EQ("null", device.ResultFile()) << "the pending rewrite publishes the emptied database";

  // At the next start every package is stored again.
  ASSERT_EQ(0, device.Install(first));
  ASSERT_EQ(0, device.Install(second));
  EXPECT_EQ(2u, device.Rows().size());
}

}  // namespace
}  // namespace wup_e2e
