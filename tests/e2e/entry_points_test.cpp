// Which metadata lists select a package, and uninstalling.
#include <gtest/gtest.h>

#include <algorithm>

#include "device.h"

namespace wup_e2e {
namespace {

std::string Call(const std::string& pkgid, const std::string& appid, int items) {
  return "pkgid(" + pkgid + ") appid(" + appid + ") list(" + std::to_string(items) + ")";
}

TEST(EntryPoints, EmptyListIsRefusedBeforeAnythingIsCreated) {
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
}

// Only the whole type key, compared exactly, selects the package; the walk passes over nodes without an
// item or a key and stops at the first match.
TEST(EntryPoints, TheFirstItemWithExactlyTheTypeKeySelectsThePackage) {
  Device device;
  const Package package = Pepper("walk");
  device.Place(package);
  const std::string id = package.pkgid, longer = kTypeKey + "x",
                    prefix = kTypeKey.substr(0, kTypeKey.size() - 1);
  const std::string upper = prefix + "E";
  ASSERT_EQ(0, device.Run([&](Plugin& plugin) {
    EXPECT_EQ(0, plugin.Install(id.c_str(), id.c_str(),
                                {{nullptr, nullptr},
                                 {nullptr, "no key"},
                                 {longer.c_str(), "pepperplugin"},
                                 {prefix.c_str(), "pepperplugin"},
                                 {upper.c_str(), "pepperplugin"},
                                 {kTypeKey.c_str(), ""},
                                 {kTypeKey.c_str(), "pepperplugin"},
                                 {"after.match", "y"}}));
  }));
  const Lines log = device.Log();
  const Lines opening = {"METADATA INSTALL",
                         Call(id, id, 8),
                         "key(" + longer + ") - value(pepperplugin)",
                         "key(" + prefix + ") - value(pepperplugin)",
                         "key(" + upper + ") - value(pepperplugin)",
                         "key(" + kTypeKey + ") - value()",
                         "create instance",
                         "PluginHandler::PluginHandler()"};
  ASSERT_GE(log.size(), opening.size());
  EXPECT_EQ(opening, Lines(log.begin(), log.begin() + opening.size()));
  EXPECT_EQ(1, std::count(log.begin(), log.end(), "create instance"));
  EXPECT_FALSE(Has(log, "key(after.match) - value(y)"));
  EXPECT_EQ(1u, device.Rows().size());
  EXPECT_EQ("finish", log.back());
}

TEST(EntryPoints, NullPackageIdLeavesThePluginAsAnException) {
  Device device;
  EXPECT_EQ(Device::kExceptionLeft, device.Run([](Plugin& plugin) {
    plugin.Install(nullptr, "the.app", {{kTypeKey.c_str(), "pepperplugin"}});
  }));
}

TEST(Uninstall, ThePluginNamedByTheIdIsRemovedAndTheResultRebuiltUnlessTheIdNamesNone) {
  Device device;
  const Package kept = Pepper("kept"), removed = Pepper("removed");
  ASSERT_EQ(0, device.Install(kept));
  const Lines keptRow = device.Rows();
  ASSERT_EQ(0, device.Install(removed));
  ASSERT_EQ(2u, device.Rows().size());
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
      Lines(log.begin(), log.begin() + 3));
  EXPECT_TRUE(Has(log, "Current remove sql is [delete from 'pluginTable' where name='removed']"));
  EXPECT_EQ("finish", log.back());
  EXPECT_EQ(keptRow, device.Rows());
  EXPECT_EQ(std::string::npos, device.ResultFile().find("\"removed\""));
  EXPECT_NE(std::string::npos, device.ResultFile().find("\"kept\""));
  EXPECT_EQ(wup_test::ReadFile(device.DatabasePath()), wup_test::ReadFile(device.BackupPath()));

  // A plug-in that was never stored: nothing removed, the result rebuilt all the same.
  uninstall(Pepper("neverstored"));
  EXPECT_EQ(keptRow, device.Rows());
  EXPECT_NE("stale", device.ResultFile());

  uninstall(Pepper(""));
  log = device.Log();
  EXPECT_TRUE(Has(log, "get plugin name fail"));
  EXPECT_TRUE(Has(log, "get tpk name fail"));
  EXPECT_EQ("stale", device.ResultFile());
  EXPECT_EQ(keptRow, device.Rows());
}

}  // namespace
}  // namespace wup_e2e
