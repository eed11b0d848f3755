// The hardened plug-in as the package manager uses it, on the real library: for each hazard that the
// default build keeps on purpose, what the hardened build does instead.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstring>

#include "device.h"

namespace wup_e2e {
namespace {

using wup_test::Query;
using wup_test::WriteFile;

// An xwalk package whose extensions have other names than the one cut from its id.
Package Ambient() {
  Package package{"com.korvane.tv.xwalk.ambient", "1.0.0", "xwalkplugin", "", "", {}};
  package.descriptions["ambient.json"] = R"([{"name": "ambient"}, {"name": "ambient.light"}])";
  return package;
}

Lines Names(const Device& device) {
  return Query(device.DatabasePath(), "select name from pluginTable order by name");
}

// Runs `change` on the main database file and on its backup alike.
void OnBoth(const Device& device, void (*change)(const std::string& file)) {
  for (const std::string& file : {device.DatabasePath(), device.BackupPath()}) change(file);
}

int Uninstall(Device& device, const Package& package) {
  return device.Run([&package](Plugin& plugin) {
    plugin.Uninstall(package.pkgid.c_str(), package.pkgid.c_str(), MetadataOf(package));
  });
}

TEST(Hardened, TheLibraryNamesItsBuild) {
  ASSERT_EQ(0, Device().Run([](Plugin&) {
    const void* name = dlsym(dlopen(WUP_PLUGIN_LIBRARY, RTLD_NOW | RTLD_NOLOAD), "WUP_POLICY_NAME");
    if (name == nullptr || std::strcmp(static_cast<const char*>(name), "hardened") != 0) std::exit(5);
  }));
}

TEST(Hardened, APackageIsStoredWholeOrNotAtAll) {
  Device device;
  ASSERT_EQ(0, device.Install(Pepper("kept")));
  OnBoth(device, [](const std::string& file) {  // the database refuses the second extension
    Query(file,
          "create trigger refuse before insert on pluginTable when new.name = 'ambient.light'"
          " begin select raise(abort, 'refused'); end");
  });
  ASSERT_EQ(0, device.Install(Ambient()));
  EXPECT_EQ(Lines{"kept"}, Names(device)) << "none of the package's records, not the first alone";

  // Once the database takes them, the next call stores the whole package: its version was never recorded.
  OnBoth(device, [](const std::string& file) { Query(file, "drop trigger refuse"); });
  ASSERT_EQ(0, device.Install(Ambient()));
  EXPECT_EQ((Lines{"ambient", "ambient.light", "kept"}), Names(device));
}

TEST(Hardened, AResultFileThatDiffersFromTheRecordsIsRewrittenAtTheNextCall) {
  Device device;
  Package package = Pepper("player");
  package.appList = "App.One";
  ASSERT_EQ(0, device.Install(package));
  const std::string published = device.ResultFile();
  // Nothing changed: the comparison builds the document without terminating anything.
  ASSERT_EQ(0, device.Install(package));
  EXPECT_EQ(Lines{"App.One"}, device.Terminated());

  // A process killed between the commit and the rename left another text: the next call rewrites it, and
  // only that real rewrite terminates.
  WriteFile(device.ResultPath(), "left by a killed process");
  ASSERT_EQ(0, device.Install(package));
  EXPECT_EQ(published, device.ResultFile());
  EXPECT_TRUE(Has(device.Log(), "result file differs from the records, rewrite it"));
  EXPECT_EQ((Lines{"App.One", "App.One"}), device.Terminated());
}

TEST(Hardened, AFailedResultWriteKeepsTheRecordsAndTheNextCallWritesTheFile) {
  Device device;
  ASSERT_EQ(0, device.Install(Pepper("first")));
  const std::string published = device.ResultFile(), staging = device.ResultPath() + "_bak";
  wup_test::MakeDirs(staging);  // the staging file cannot be opened
  ASSERT_EQ(0, device.Install(Pepper("second")));
  EXPECT_TRUE(
      Has(device.Log(), "update fail!records kept, the result file is written again at the next call"));
  EXPECT_EQ((Lines{"first", "second"}), Names(device));
  EXPECT_EQ(published, device.ResultFile());

  wup_test::RemoveTree(staging);
  ASSERT_EQ(0, device.Install(Pepper("second")));
  EXPECT_NE(std::string::npos, device.ResultFile().find("\"second\""));
}

TEST(Hardened, UninstallRemovesEveryRecordThePackageBrought) {
  Device device;
  ASSERT_EQ(0, device.Install(Pepper("kept")));
  ASSERT_EQ(0, device.Install(Ambient()));
  ASSERT_EQ(0, Uninstall(device, Ambient()));
  EXPECT_EQ(Lines{"kept"}, Names(device));
  EXPECT_EQ(std::string::npos, device.ResultFile().find("ambient"));
}

// Both files damaged: the records come back from the installed packages that carry the type key (the
// package being uninstalled excepted), whether the files are no databases or databases of another shape.
TEST(Hardened, BothFilesDamagedRebuildTheRecordsFromTheInstalledPackages) {
  void (*const damages[])(const std::string&) = {
      [](const std::string& file) { WriteFile(file, std::string(4096, 'x')); },
      [](const std::string& file) {
        WriteFile(file, "");
        Query(file,
              "create table versionTable(name TEXT PRIMARY KEY, version TEXT, size TEXT);"
              "create table pluginTable(name TEXT PRIMARY KEY, version TEXT)");
      }};
  for (const auto damage : damages) {
    Device device;
    Package player = Pepper("player"), other = Pepper("other");
    player.appList = "App.One";
    other.kind = "";  // installed without the type key: never the plug-in's
    ASSERT_EQ(0, device.Install(player));
    ASSERT_EQ(0, device.Install(Ambient()));
    device.Place(other);
    const Lines rows = device.Rows();

    OnBoth(device, damage);
    ASSERT_EQ(0, device.Install(Pepper("added")));
    EXPECT_EQ((Lines{"added", "ambient", "ambient.light", "player"}), Names(device));
    EXPECT_NE(std::string::npos, device.ResultFile().find("\"ambient.light\""));
    OnBoth(device, damage);
    ASSERT_EQ(0, Uninstall(device, Pepper("added")));
    EXPECT_EQ(rows, device.Rows());
  }
}

}  // namespace
}  // namespace wup_e2e
