// Which metadata lists select a package, and uninstalling.
#include <gtest/gtest.h>

#include "device.h"

namespace wup_e2e {
namespace {

Package PlacedPepper(Device& device, const std::string& name, const std::string& version) {
  Package package;
  package.pkgid = "com.korvane.tv.pepper." + name;
  package.version = version;
  package.kind = "pepperplugin";
  device.Place(package);
  return package;
}

bool DatabaseCreated(const Device& device) { return wup_test::PathExists(device.DatabasePath()); }

TEST(EntryPoints, EmptyListIsRefusedBeforeAnythingIsCreated) {
  Device device;
  const Package package = PlacedPepper(device, "empty", "1.0.0");
  ASSERT_EQ(0, device.Run([&package](Plugin& plugin) {
    EXPECT_EQ(0, plugin.Install(package.pkgid.c_str(), "the.app", {}));
    EXPECT_EQ(0, plugin.Uninstall(package.pkgid.c_str(), "the.app", {}));
  }));
  EXPECT_EQ((std::vector<std::string>{
                "METADATA INSTALL", "pkgid(" + package.pkgid + ") appid(the.app) list(0)", "[ERROR] No Engine Metadata",
                "METADATA UNINSTALL", "pkgid(" + package.pkgid + ") appid(the.app) list(0)",
                "[ERROR] No Engine Metadata"}),
            device.Log());
  EXPECT_FALSE(DatabaseCreated(device));
}

TEST(EntryPoints, OnlyTheExactKeySelectsThePackage) {
  Device device;
  const Package package = PlacedPepper(device, "nearmiss", "1.0.0");
  const std::string longer = TypeKey() + "x";
  const std::string prefix = TypeKey().substr(0, TypeKey().size() - 1);
  std::string upper = TypeKey();
  upper.back() = 'E';
  ASSERT_EQ(0, device.Run([&](Plugin& plugin) {
    const MetadataList items = {{longer.c_str(), "pepperplugin"}, {prefix.c_str(), "pepperplugin"},
                                {upper.c_str(), "pepperplugin"}};
    EXPECT_EQ(0, plugin.Install(package.pkgid.c_str(), package.pkgid.c_str(), items));
    EXPECT_EQ(0, plugin.Uninstall(package.pkgid.c_str(), package.pkgid.c_str(), items));
  }));
  EXPECT_EQ((std::vector<std::string>{
                "METADATA INSTALL", "pkgid(" + package.pkgid + ") appid(" + package.pkgid + ") list(3)",
                "key(" + longer + ") - value(pepperplugin)", "key(" + prefix + ") - value(pepperplugin)",
                "key(" + upper + ") - value(pepperplugin)", "finish", "METADATA UNINSTALL",
                "pkgid(" + package.pkgid + ") appid(" + package.pkgid + ") list(3)", "finish"}),
            device.Log());
  EXPECT_FALSE(DatabaseCreated(device));
}

TEST(EntryPoints, WalkSkipsEmptyItemsAndStopsAtTheFirstMatch) {
  Device device;
  const Package package = PlacedPepper(device, "walk", "1.0.0");
  ASSERT_EQ(0, device.Run([&](Plugin& plugin) {
    const MetadataList items = {{nullptr, nullptr},
                                {nullptr, "value without key"},
                                {"other.key", "x"},
                                {TypeKey().c_str(), ""},  // any value selects the package
                                {TypeKey().c_str(), "pepperplugin"},
                                {"after.match", "y"}};
    EXPECT_EQ(0, plugin.Install(package.pkgid.c_str(), package.pkgid.c_str(), items));
  }));
  const std::vector<std::string> log = device.Log();
  EXPECT_EQ("pkgid(" + package.pkgid + ") appid(" + package.pkgid + ") list(6)", log[1]);
  EXPECT_EQ("key(other.key) - value(x)", log[2]);
  EXPECT_EQ("key(" + TypeKey() + ") - value()", log[3]);
  EXPECT_EQ("create instance", log[4]);
  EXPECT_EQ(1, Count(log, "create instance"));
  EXPECT_EQ(1, Count(log, "PluginHandler::PluginHandler()"));
  EXPECT_FALSE(Has(log, "key(after.match) - value(y)"));
  EXPECT_EQ(1u, device.Rows().size());
  EXPECT_EQ("finish", log.back());
}

TEST(EntryPoints, NullPackageIdLeavesThePluginAsAnException) {
  Device device;
  const int status = device.Run([](Plugin& plugin) {
    const MetadataList items = {{TypeKey().c_str(), "pepperplugin"}};
    plugin.Install(nullptr, "the.app", items);
  });
  EXPECT_EQ(Device::kExceptionLeft, status);
}

TEST(Uninstall, StoredPluginIsRemovedAndTheResultRebuilt) {
  Device device;
  const Package kept = PlacedPepper(device, "kept", "1.0.0");
  const Package removed = PlacedPepper(device, "removed", "1.0.0");
  ASSERT_EQ(0, device.InstallPlaced(kept));
  ASSERT_EQ(0, device.InstallPlaced(removed));
  ASSERT_EQ(2u, device.Rows().size());

  device.ClearLog();
  ASSERT_EQ(0, device.Run([&removed](Plugin& plugin) {
    EXPECT_EQ(0, plugin.Uninstall(removed.pkgid.c_str(), removed.pkgid.c_str(), MetadataOf(removed)));
  }));
  const std::vector<std::string> log = device.Log();
  EXPECT_EQ("METADATA UNINSTALL", log[0]);
  EXPECT_FALSE(Has(log, "create instance"));
  EXPECT_FALSE(Has(log, "key(" + TypeKey() + ") - value(pepperplugin)"));
  EXPECT_TRUE(Has(log, "Current remove sql is [delete from 'pluginTable' where name='removed']"));
  EXPECT_EQ("finish", log.back());

  const std::vector<Row> rows = device.Rows();
  ASSERT_EQ(1u, rows.size());
  EXPECT_EQ("kept", rows[0].name);
  EXPECT_EQ(std::string::npos, device.ResultFile().find("\"removed\""));
  EXPECT_NE(std::string::npos, device.ResultFile().find("\"kept\""));
  EXPECT_EQ(wup_test::ReadFile(device.DatabasePath()), wup_test::ReadFile(device.BackupPath()));
}

TEST(Uninstall, UnknownPluginStillRebuildsTheResultAndABadIdChangesNothing) {
  Device device;
  const Package kept = PlacedPepper(device, "kept", "1.0.0");
  ASSERT_EQ(0, device.InstallPlaced(kept));
  wup_test::WriteFile(device.ResultPath(), "stale");

  Package unknown;
  unknown.pkgid = "com.korvane.tv.pepper.neverstored";
  unknown.kind = "pepperplugin";
  ASSERT_EQ(0, device.Run([&unknown](Plugin& plugin) {
    plugin.Uninstall(unknown.pkgid.c_str(), unknown.pkgid.c_str(), MetadataOf(unknown));
  }));
  EXPECT_EQ(1u, device.Rows().size());
  EXPECT_NE("stale", device.ResultFile());
  EXPECT_NE(std::string::npos, device.ResultFile().find("\"kept\""));

  wup_test::WriteFile(device.ResultPath(), "stale");
  device.ClearLog();
  Package badId;
  badId.pkgid = "com.korvane.tv.pepper.";
  badId.kind = "pepperplugin";
  ASSERT_EQ(0, device.Run([&badId](Plugin& plugin) {
    plugin.Uninstall(badId.pkgid.c_str(), badId.pkgid.c_str(), MetadataOf(badId));
  }));
  const std::vector<std::string> log = device.Log();
  EXPECT_TRUE(Has(log, "get plugin name fail"));
  EXPECT_TRUE(Has(log, "get tpk name fail"));
  EXPECT_EQ("stale", device.ResultFile());
  EXPECT_EQ(1u, device.Rows().size());
}

}  // namespace
}  // namespace wup_e2e
