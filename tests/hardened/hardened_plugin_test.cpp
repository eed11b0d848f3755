// The hardened plug-in as the package manager uses it: what it does where the default build keeps a
// hazard on purpose. Each test asserts the hardened outcome of one hazard, on the real library.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstring>

#include "device.h"

namespace wup_e2e {
namespace {

using wup_test::Query;
using wup_test::ReadFile;
using wup_test::WriteFile;

// An xwalk package whose extensions have other names than the one cut from its id.
Package Ambient() {
  Package package{"com.korvane.tv.xwalk.ambient", "1.0.0", "xwalkplugin", "", "", {}};
  package.descriptions["ambient.json"] =
      R"([{"name": "ambient", "lib": "libambient.so"}, {"name": "ambient.light", "lib": "liblight.so"}])";
  return package;
}

Lines Names(const Lines& rows) {
  Lines names;
  for (const std::string& row : rows) names.push_back(row.substr(0, row.find('|')));
  return names;
}

int Uninstall(Device& device, const Package& package) {
  return device.Run([&package](Plugin& plugin) {
    plugin.Uninstall(package.pkgid.c_str(), package.pkgid.c_str(), MetadataOf(package));
  });
}

TEST(Hardened, TheLibraryNamesItsBuild) {
  Device device;
  ASSERT_EQ(0, device.Run([](Plugin&) {
    void* library = dlopen(WUP_PLUGIN_LIBRARY, RTLD_NOW | RTLD_NOLOAD);
    const auto* name = library ? static_cast<const char*>(dlsym(library, "WUP_POLICY_NAME")) : nullptr;
    if (name == nullptr || std::strcmp(name, "hardened") != 0) std::exit(5);
  }));
}

TEST(Hardened, APackageIsStoredWholeOrNotAtAll) {
  Device device;
  ASSERT_EQ(0, device.Install(Pepper("kept")));
  // The database refuses the second extension, in the main file and in the backup alike.
  for (const std::string& file : {device.DatabasePath(), device.BackupPath()}) {
    Query(file,
          "create trigger refuse before insert on pluginTable when new.name = 'ambient.light'"
          " begin select raise(abort, 'refused'); end");
  }
  ASSERT_EQ(0, device.Install(Ambient()));
  EXPECT_EQ(Lines{"kept"}, Names(device.Rows())) << "none of the package's records, not the first alone";

  // Once the database takes them, the next call stores the whole package: its version was never recorded.
  for (const std::string& file : {device.DatabasePath(), device.BackupPath()})
    Query(file, "drop trigger refuse");
  ASSERT_EQ(0, device.Install(Ambient()));
  EXPECT_EQ((Lines{"ambient", "ambient.light", "kept"}), Names(device.Rows()));
}

TEST(Hardened, AResultFileThatDiffersFromTheRecordsIsRewrittenAtTheNextCall) {
  Device device;
  Package package = Pepper("player");
  package.appList = "App.One";
  ASSERT_EQ(0, device.Install(package));
  const std::string published = device.ResultFile();
  ASSERT_EQ(Lines{"App.One"}, device.Terminated());

  // Nothing changed: the comparison builds the document without terminating anything.
  ASSERT_EQ(0, device.Install(package));
  EXPECT_EQ(published, device.ResultFile());
  EXPECT_EQ(Lines{"App.One"}, device.Terminated());

  // A process killed between the commit and the rename left another text: the next call rewrites it, and
  // only that real rewrite terminates.
  WriteFile(device.ResultPath(), "left by a killed process");
  device.ClearLog();
  ASSERT_EQ(0, device.Install(package));
  EXPECT_EQ(published, device.ResultFile());
  EXPECT_TRUE(Has(device.Log(), "result file differs from the records, rewrite it"));
  EXPECT_EQ((Lines{"App.One", "App.One"}), device.Terminated());
}

TEST(Hardened, AFailedResultWriteKeepsTheRecordsAndTheNextCallWritesTheFile) {
  Device device;
  const Package first = Pepper("first"), second = Pepper("second");
  ASSERT_EQ(0, device.Install(first));
  const std::string published = device.ResultFile();
  const std::string staging = device.ResultPath() + "_bak";
  wup_test::MakeDirs(staging);  // the staging file cannot be opened
  device.ClearLog();
  ASSERT_EQ(0, device.Install(second));
  EXPECT_TRUE(
      Has(device.Log(), "update fail!records kept, the result file is written again at the next call"));
  EXPECT_EQ((Lines{"first", "second"}), Names(device.Rows()));
  EXPECT_EQ(published, device.ResultFile());

  wup_test::RemoveTree(staging);
  ASSERT_EQ(0, device.Install(second));
  EXPECT_NE(std::string::npos, device.ResultFile().find("\"second\""));
  EXPECT_EQ((Lines{"first", "second"}), Names(device.Rows()));
}

TEST(Hardened, UninstallRemovesEveryRecordThePackageBrought) {
  Device device;
  ASSERT_EQ(0, device.Install(Pepper("kept")));
  ASSERT_EQ(0, device.Install(Ambient()));
  ASSERT_EQ((Lines{"ambient", "ambient.light", "kept"}), Names(device.Rows()));
  ASSERT_EQ(0, Uninstall(device, Ambient()));
  EXPECT_EQ(Lines{"kept"}, Names(device.Rows()));
  EXPECT_EQ(std::string::npos, device.ResultFile().find("ambient"));
}

// Both files damaged: the records come back from the installed packages that carry the type key (the
// package being uninstalled excepted), whether the files are no databases or databases of another shape.
TEST(Hardened, BothFilesDamagedRebuildTheRecordsFromTheInstalledPackages) {
  const struct {
    const char* name;
    void (*damage)(const std::string& file);
  } damages[] = {
      {"garbage", [](const std::string& file) { WriteFile(file, std::string(4096, 'x')); }},
      {"plug-in table of another shape",
       [](const std::string& file) {
         WriteFile(file, "");
         Query(file,
               "create table versionTable(name TEXT PRIMARY KEY, version TEXT, size TEXT);"
               "create table pluginTable(name TEXT PRIMARY KEY, version TEXT)");
       }},
  };
  for (const auto& damage : damages) {
    SCOPED_TRACE(damage.name);
    Device device;
    Package player = Pepper("player");
    player.appList = "App.One";
    ASSERT_EQ(0, device.Install(player));
    ASSERT_EQ(0, device.Install(Ambient()));
    Package other = Pepper("other");
    other.kind = "";  // installed without the type key: never the plug-in's
    device.Place(other);
    const Lines rows = device.Rows();

    for (const std::string& file : {device.DatabasePath(), device.BackupPath()}) damage.damage(file);
    const Package added = Pepper("added");
    ASSERT_EQ(0, device.Install(added));
    EXPECT_EQ((Lines{"added", "ambient", "ambient.light", "player"}), Names(device.Rows()));
    EXPECT_NE(std::string::npos, device.ResultFile().find("\"ambient.light\""));

    for (const std::string& file : {device.DatabasePath(), device.BackupPath()}) damage.damage(file);
    ASSERT_EQ(0, Uninstall(device, added));
    EXPECT_EQ(rows, device.Rows());
  }
}

}  // namespace
}  // namespace wup_e2e
