// Installing and upgrading plug-in packages through the package manager's entry points.
#include <gtest/gtest.h>
#include <json/json.h>

#include <sstream>

#include "device.h"

namespace wup_e2e {
namespace {

Json::Value ParseJson(const std::string& text) {
  Json::Value document;
  Json::CharReaderBuilder builder;
  std::string errors;
  std::istringstream in(text);
  EXPECT_TRUE(Json::parseFromStream(builder, in, &document, &errors)) << errors;
  return document;
}

Package Pepper(const std::string& name, const std::string& version, Location location = Location::kWritable) {
  Package package;
  package.pkgid = "com.korvane.tv.pepper." + name;
  package.version = version;
  package.kind = "pepperplugin";
  package.location = location;
  return package;
}

TEST(Install, NewPepperPackageIsStoredPublishedAndItsBackgroundAppsTerminated) {
  Device device;
  Package package = Pepper("sampleplayer", "1.2.0");
  package.appList = "App.One, App.Two";
  device.Place(package);
  device.SetForeground("App.Two");

  ASSERT_EQ(0, device.InstallPlaced(package));

  const std::string res = device.layout().rwApp + "/com.korvane.tv.pepper.sampleplayer/shared/res/";
  const std::vector<Row> rows = device.Rows();
  ASSERT_EQ(1u, rows.size());
  EXPECT_EQ("sampleplayer", rows[0].name);
  EXPECT_EQ("1.2.0", rows[0].version);
  EXPECT_EQ(res, rows[0].path);
  EXPECT_EQ(package.pkgid, rows[0].pkgid);
  EXPECT_EQ("", rows[0].entryPoints);
  EXPECT_EQ(1, rows[0].pluginType);
  EXPECT_EQ(0, rows[0].hasForceMetaData);
  EXPECT_EQ(1, rows[0].isUpdate);
  EXPECT_EQ("App.One, App.Two", rows[0].appWhiteList);
  EXPECT_EQ("", rows[0].systemPath);

  EXPECT_EQ(wup_test::ReadFile(device.DatabasePath()), wup_test::ReadFile(device.BackupPath()));
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
  EXPECT_FALSE(wup_test::PathExists(device.ResultPath() + "_bak"));
  EXPECT_EQ(std::vector<std::string>{"App.One"}, device.Terminated());

  const std::vector<std::string> log = device.Log();
  const std::vector<std::string> opening(log.begin(), log.begin() + 7);
  EXPECT_EQ((std::vector<std::string>{
                "METADATA INSTALL",
                "pkgid(" + package.pkgid + ") appid(" + package.pkgid + ") list(2)",
                "key(" + TypeKey() + ") - value(pepperplugin)",
                "create instance",
                "PluginHandler::PluginHandler()",
                "GetPluginListFromDB",
                "GetPluginListFromDB",
            }),
            opening);
  EXPECT_TRUE(Has(log, "pkgid = [" + package.pkgid + "], version = [1.2.0]"));
  EXPECT_TRUE(Has(log, "tpkVersion[1.2.0], localVersion[0.0.0]"));
  EXPECT_TRUE(Has(log, "insert new data:name[sampleplayer]version[1.2.0]path[" + res + "]pkgid[" + package.pkgid +
                           "]entrypoints[]pluginType[1]hasForceMetadata[0]isupdate[1]appWhiteList[App.One, "
                           "App.Two]systempath=[]"));
  EXPECT_TRUE(Has(log, "App.Two is at foreground"));
  EXPECT_TRUE(Has(log, "vex_terminate_app [App.One] success"));
  EXPECT_EQ("finish", log.back());
}

TEST(Install, XwalkPackageStoresEveryExtensionWithPathsInItsOwnResourceDirectory) {
  Device device;
  Package package;
  package.pkgid = "com.korvane.tv.xwalk.tv";
  package.version = "3.0.1";
  package.kind = "xwalkplugin";
  package.appList = "Viewer.App";
  package.descriptions["channel.json"] =
      R"([{"name": "tv.channel", "lib": "/usr/lib/ext/libchannel.so", "entry_points": ["tizen.tvchannel"]},
          {"name": "tv.window", "lib": "libwindow.so", "entry_points": ["tizen.tvwindow", "tizen.tvvideo"]}])";
  package.descriptions["audio.json"] = R"([{"name": "tv.audio", "lib": "lib/libaudio.so"}])";
  device.Place(package);

  ASSERT_EQ(0, device.InstallPlaced(package));

  const std::string res = device.layout().rwApp + "/com.korvane.tv.xwalk.tv/shared/res/";
  const std::vector<Row> rows = device.Rows();
  ASSERT_EQ(3u, rows.size());
  EXPECT_EQ("tv.audio", rows[0].name);
  EXPECT_EQ(res + "libaudio.so", rows[0].path);
  EXPECT_EQ("", rows[0].entryPoints);
  EXPECT_EQ("tv.channel", rows[1].name);
  EXPECT_EQ(res + "libchannel.so", rows[1].path);
  EXPECT_EQ("tv.window", rows[2].name);
  EXPECT_EQ("tizen.tvwindow,tizen.tvvideo", rows[2].entryPoints);
  for (const Row& row : rows) {
    EXPECT_EQ("3.0.1", row.version) << row.name;
    EXPECT_EQ(package.pkgid, row.pkgid) << row.name;
    EXPECT_EQ(0, row.pluginType) << row.name;
    EXPECT_EQ(1, row.isUpdate) << row.name;
    EXPECT_EQ("Viewer.App", row.appWhiteList) << row.name;
  }

  const Json::Value document = ParseJson(device.ResultFile());
  const Json::Value& xwalk = document["forceupdate_webapi"]["xwalk"];
  ASSERT_EQ(3u, xwalk.size());
  EXPECT_EQ("tv.audio", xwalk[0]["name"].asString());
  EXPECT_FALSE(xwalk[0].isMember("entry_points"));
  EXPECT_EQ("tizen.tvvideo", xwalk[2]["entry_points"][1].asString());
  EXPECT_FALSE(document["forceupdate_webapi"].isMember("pepper"));
  EXPECT_EQ(3u, document["upgradable_webapi_applist"]["xwalk"]["Viewer.App"].size());
  // One termination per record that lists the application.
  EXPECT_EQ((std::vector<std::string>{"Viewer.App", "Viewer.App", "Viewer.App"}), device.Terminated());
}

TEST(Install, B2bPepperPackageIsKeptApartInTheDatabaseButPublishedAsPepper) {
  Device device;
  Package package;
  package.pkgid = "com.korvane.tv.pepper.signage";
  package.version = "1.0.0";
  package.kind = "b2bpepperplugin";
  device.Place(package);
  ASSERT_EQ(0, device.InstallPlaced(package));

  const std::vector<Row> rows = device.Rows();
  ASSERT_EQ(1u, rows.size());
  EXPECT_EQ(2, rows[0].pluginType);
  const Json::Value document = ParseJson(device.ResultFile());
  EXPECT_EQ("signage", document["forceupdate_webapi"]["pepper"][0]["name"].asString());
  EXPECT_FALSE(document.isMember("upgradable_webapi_applist"));
}

TEST(Install, InstallLocationDecidesSystemPathAndWhetherAppsAreTerminated) {
  struct Case {
    Location location;
    int code;
    bool hasSystemPath;
    bool terminates;
  };
  for (const Case& c : {Case{Location::kReadOnly, 0, true, false}, Case{Location::kWritable, 1, false, true},
                        Case{Location::kBoth, 2, true, true}}) {
    Device device;
    Package package = Pepper("located", "2.0.0", c.location);
    package.appList = "Some.App";
    device.Place(package);
    ASSERT_EQ(0, device.InstallPlaced(package));

    const std::vector<Row> rows = device.Rows();
    ASSERT_EQ(1u, rows.size()) << c.code;
    EXPECT_EQ(c.code, rows[0].isUpdate);
    const std::string roRes = device.layout().roApp + "/" + package.pkgid + "/shared/res/";
    EXPECT_EQ(c.hasSystemPath ? roRes : "", rows[0].systemPath) << c.code;
    const std::string rootDir = c.location == Location::kReadOnly ? device.layout().roApp : device.layout().rwApp;
    EXPECT_EQ(rootDir + "/" + package.pkgid + "/shared/res/", rows[0].path) << c.code;

    const Json::Value entry = ParseJson(device.ResultFile())["forceupdate_webapi"]["pepper"][0];
    EXPECT_EQ(c.code != 1, entry["system"].asBool()) << c.code;
    EXPECT_EQ(c.terminates ? std::vector<std::string>{"Some.App"} : std::vector<std::string>{},
              device.Terminated())
        << c.code;
  }
}

TEST(Install, SameVersionAgainStoresNothingAndRewritesOnlyAMissingResultFile) {
  Device device;
  Package package = Pepper("again", "1.0.0");
  device.Place(package);
  ASSERT_EQ(0, device.InstallPlaced(package));
  const std::string published = device.ResultFile();
  const std::string database = wup_test::ReadFile(device.DatabasePath());

  // Result file present: left exactly as it is (a marker proves it is not rewritten).
  wup_test::WriteFile(device.ResultPath(), "marker");
  device.ClearLog();
  ASSERT_EQ(0, device.InstallPlaced(package));
  std::vector<std::string> log = device.Log();
  EXPECT_TRUE(Has(log, "tpkVersion[1.0.0], localVersion[1.0.0]"));
  EXPECT_TRUE(Has(log, "tpkVersion == localVersion"));
  EXPECT_TRUE(Has(log, "no need insert"));
  for (const std::string& message : log) EXPECT_EQ(std::string::npos, message.find("insert new data:")) << message;
  EXPECT_EQ("marker", device.ResultFile());
  EXPECT_EQ(database, wup_test::ReadFile(device.DatabasePath()));

  // Result file missing: rebuilt from the database although nothing changed.
  wup_test::RemoveTree(device.ResultPath());
  ASSERT_EQ(0, device.InstallPlaced(package));
  EXPECT_EQ(published, device.ResultFile());
  EXPECT_EQ(1u, device.Rows().size());
}

TEST(Install, LowerVersionReplacesTheRecordedOneAndUpgradeBehavesAsInstall) {
  Device device;
  Package package = Pepper("downgrade", "2.0.0");
  device.Place(package);
  ASSERT_EQ(0, device.InstallPlaced(package));

  package.version = "1.9.9";
  device.Place(package);
  wup_test::WriteFile(device.ResultPath(), "stale");
  device.ClearLog();
  ASSERT_EQ(0, device.Run([&package](Plugin& plugin) {
    EXPECT_EQ(0, plugin.Upgrade(package.pkgid.c_str(), package.pkgid.c_str(), MetadataOf(package)));
  }));

  const std::vector<std::string> log = device.Log();
  ASSERT_GE(log.size(), 2u);
  EXPECT_EQ("METADATA UPGRADE", log[0]);
  EXPECT_EQ("METADATA INSTALL", log[1]);
  EXPECT_TRUE(Has(log, "tpkVersion[1.9.9], localVersion[2.0.0]"));
  EXPECT_EQ("finish", log.back());
  ASSERT_EQ(1u, device.Rows().size());
  EXPECT_EQ("1.9.9", device.Rows()[0].version);
  EXPECT_NE("stale", device.ResultFile());
}

TEST(Install, PackagesThatCannotBeToldApartChangeNothing) {
  Device device;
  Package unreadable = Pepper("noversion", "1.0.0");
  device.Place(unreadable);
  ASSERT_EQ(0, device.Run(
                   [&unreadable](Plugin& plugin) {
                     plugin.Install(unreadable.pkgid.c_str(), unreadable.pkgid.c_str(), MetadataOf(unreadable));
                   },
                   {"HOST_PKGMGRINFO_FAIL=pkgmgrinfo_pkginfo_get_version"}));
  std::vector<std::string> log = device.Log();
  EXPECT_TRUE(Has(log, "get [" + unreadable.pkgid + "] version fail!!"));
  EXPECT_TRUE(Has(log, "pkgid = [" + unreadable.pkgid + "], version = [0.0.0]"));
  EXPECT_TRUE(Has(log, "no need insert"));
  EXPECT_TRUE(device.Rows().empty());
  // Nothing recorded, but the web runtime still gets a (null) result file.
  EXPECT_EQ("null", device.ResultFile());

  Package unknown = Pepper("other", "1.0.0");
  unknown.kind = "otherplugin";
  Device second;
  second.Place(unknown);
  ASSERT_EQ(0, second.InstallPlaced(unknown));
  log = second.Log();
  EXPECT_TRUE(Has(log, "[" + unknown.pkgid + "] type is [99]"));
  EXPECT_TRUE(Has(log, "check[" + unknown.pkgid + "]fail"));
  EXPECT_TRUE(second.Rows().empty());
  EXPECT_FALSE(second.ResultFileExists());
}

TEST(Install, UnwritableResultFileEmptiesTheDatabaseForTheNextStart) {
  Device device;
  Package first = Pepper("first", "1.0.0");
  device.Place(first);
  ASSERT_EQ(0, device.InstallPlaced(first));
  ASSERT_EQ(1u, device.Rows().size());
  const std::string published = device.ResultFile();

  // The staging file cannot be opened: a directory stands in its way. Within the same process the
  // change stays pending, so the next call writes the result once it can, though it stores nothing.
  const std::string staging = device.ResultPath() + "_bak";
  wup_test::MakeDirs(staging);
  Package second = Pepper("second", "1.0.0");
  device.Place(second);
  device.ClearLog();
  ASSERT_EQ(0, device.Run([&](Plugin& plugin) {
    plugin.Install(second.pkgid.c_str(), second.pkgid.c_str(), MetadataOf(second));
    if (device.ResultFile() != published) std::exit(5);  // a failed write leaves the previous result
    wup_test::RemoveTree(staging);
    plugin.Install(second.pkgid.c_str(), second.pkgid.c_str(), MetadataOf(second));
  }));

  const std::vector<std::string> log = device.Log();
  EXPECT_TRUE(Has(log, "open [" + staging + "] fail!"));
  EXPECT_TRUE(Has(log, "update fail!clear DB for next boot"));
  EXPECT_TRUE(Has(log, "Current remove sql is [delete from 'pluginTable']"));
  EXPECT_TRUE(device.Rows().empty());
  EXPECT_EQ(wup_test::ReadFile(device.DatabasePath()), wup_test::ReadFile(device.BackupPath()));
  EXPECT_EQ("null", device.ResultFile()) << "the pending rewrite publishes the emptied database";

  // At the next start every package is stored again.
  ASSERT_EQ(0, device.InstallPlaced(first));
  ASSERT_EQ(0, device.InstallPlaced(second));
  EXPECT_EQ(2u, device.Rows().size());
}

TEST(Install, DamagedDatabaseIsRecoveredFromItsBackupDuringAnInstall) {
  Device device;
  Package first = Pepper("kept", "1.0.0");
  device.Place(first);
  ASSERT_EQ(0, device.InstallPlaced(first));

  wup_test::WriteFile(device.DatabasePath(), "this is not a database, it was cut short by a power loss");
  Package second = Pepper("added", "1.0.0");
  device.Place(second);
  device.ClearLog();
  ASSERT_EQ(0, device.InstallPlaced(second));

  const std::vector<Row> rows = device.Rows();
  ASSERT_EQ(2u, rows.size());
  EXPECT_EQ("added", rows[0].name);
  EXPECT_EQ("kept", rows[1].name);
  EXPECT_EQ(wup_test::ReadFile(device.DatabasePath()), wup_test::ReadFile(device.BackupPath()));
  const std::vector<std::string> log = device.Log();
  EXPECT_TRUE(Has(log, "valid check, dbPath : [" + device.DatabasePath() + "], PRAGMA integrity_check error: [26]"));
  EXPECT_TRUE(Has(log, "valid check failed, integrity_verify[0], version table check[0], plugin table check[0]"));
  EXPECT_TRUE(Has(log, "Backup versionDB."));
}

}  // namespace
}  // namespace wup_e2e
