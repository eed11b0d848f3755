// The host stand-in of the package-information service: what it answers from the sandbox device's
// manifests, how it fails, and how it keeps count of its handles.
#include <gtest/gtest.h>
#include <pkgmgr-info-host.h>
#include <pkgmgr-info.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "sample_packages.h"

namespace {

using wup_test::Device;

// What a query of one package or application answers, or "<result>" when a call fails; the handle is
// released either way.
template <typename Handle>
std::string Ask(int (*open)(const char*, Handle*), int (*read)(Handle, char**), int (*destroy)(Handle),
                const char* id) {
  Handle handle = nullptr;
  char* text = nullptr;
  int result = open(id, &handle);
  if (result == PMINFO_R_OK) result = read(handle, &text);
  const std::string answer = result == PMINFO_R_OK ? text : "<" + std::to_string(result) + ">";
  if (handle != nullptr) destroy(handle);
  return answer;
}
std::string Version(const char* pkgid) {
  return Ask(pkgmgrinfo_pkginfo_get_pkginfo, pkgmgrinfo_pkginfo_get_version,
             pkgmgrinfo_pkginfo_destroy_pkginfo, pkgid);
}
std::string RootPath(const char* appid) {
  return Ask(pkgmgrinfo_appinfo_get_appinfo, pkgmgrinfo_appinfo_get_root_path,
             pkgmgrinfo_appinfo_destroy_appinfo, appid);
}

class PkgmgrInfoStandInTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Device().Reset();
    unsetenv("HOST_PKGMGRINFO_FAIL");
    host_pkgmgrinfo_reset_counters();
  }
  void TearDown() override { EXPECT_EQ(host_pkgmgrinfo_open_handles(), 0); }
};

TEST_F(PkgmgrInfoStandInTest, UpdatedManifestShadowsThePreloadedOne) {
  wup_test::WriteManifest(Device().roPackages, "pkg", "1.0.0", {"pkg", "pkg.old"});
  wup_test::WriteManifest(Device().roPackages, "other", "0.1", {"other.app"});
  EXPECT_EQ(Version("pkg"), "1.0.0");
  EXPECT_EQ(RootPath("pkg.old"), Device().roApp + "/pkg");

  wup_test::WriteManifest(Device().rwPackages, "pkg", "2.0.0", {"pkg", "pkg.new"});
  EXPECT_EQ(Version("pkg"), "2.0.0");
  EXPECT_EQ(RootPath("pkg.new"), Device().rwApp + "/pkg");
  EXPECT_EQ(RootPath("pkg.old"), "<-3>") << "the update hides the preloaded manifest";
  EXPECT_EQ(Version("pkg.new"), "<-3>") << "application ids are no package ids";

  // A broken update still shadows: the call fails rather than answer the old facts.
  wup_test::WriteFile(Device().rwPackages + "/pkg.xml", "<manifest version=\"3\">");
  EXPECT_EQ(Version("pkg"), "<-1>");
  EXPECT_EQ(RootPath("pkg.old"), "<-1>") << "an application that may be in a broken manifest is an error";
  EXPECT_EQ(RootPath("other.app"), Device().roApp + "/other");
  EXPECT_EQ(Version("absent"), "<-3>");
  EXPECT_EQ(Version(nullptr), "<-2>");
}

TEST_F(PkgmgrInfoStandInTest, MetadataKeysMatchIgnoringCaseAndStringsLiveAsLongAsTheHandle) {
  wup_test::WriteManifest(Device().rwPackages, "pkg", "1", {"pkg"}, {{"Type_Key", "pepperplugin"}});
  pkgmgrinfo_appinfo_h app = nullptr;
  ASSERT_EQ(pkgmgrinfo_appinfo_get_appinfo("pkg", &app), PMINFO_R_OK);
  char* type = nullptr;
  char* missing = nullptr;
  EXPECT_EQ(pkgmgrinfo_appinfo_get_metadata_value(app, "TYPE_key", &type), PMINFO_R_OK);
  EXPECT_EQ(pkgmgrinfo_appinfo_get_metadata_value(app, "Type", &missing), PMINFO_R_EINVAL);
  EXPECT_EQ(pkgmgrinfo_appinfo_get_metadata_value(app, nullptr, &missing), PMINFO_R_EINVAL);
  // Other handles come and go and the manifest changes while the first handle is open.
  wup_test::WriteManifest(Device().rwPackages, "pkg", "2", {"pkg"});
  EXPECT_EQ(RootPath("pkg"), Device().rwApp + "/pkg");
  EXPECT_STREQ(type, "pepperplugin");
  EXPECT_EQ(missing, nullptr);
  pkgmgrinfo_appinfo_destroy_appinfo(app);
}

// What the other tests rely on to provoke failures and to find records released never or twice.
TEST_F(PkgmgrInfoStandInTest, ForcedFailuresAndHandleCounts) {
  wup_test::WriteManifest(Device().rwPackages, "pkg", "1.0.0", {"pkg"});
  setenv("HOST_PKGMGRINFO_FAIL", "pkgmgrinfo_pkginfo_get_version,pkgmgrinfo_appinfo", 1);
  EXPECT_EQ(Version("pkg"), "<-1>");
  EXPECT_EQ(RootPath("pkg"), Device().rwApp + "/pkg") << "only whole names count";

  pkgmgrinfo_appinfo_h app = nullptr;
  pkgmgrinfo_pkginfo_h package = nullptr;
  ASSERT_EQ(pkgmgrinfo_appinfo_get_appinfo("pkg", &app), PMINFO_R_OK);
  ASSERT_EQ(pkgmgrinfo_pkginfo_get_pkginfo("pkg", &package), PMINFO_R_OK);
  EXPECT_EQ(host_pkgmgrinfo_open_appinfo_handles(), 1);
  EXPECT_EQ(host_pkgmgrinfo_open_pkginfo_handles(), 1);
  EXPECT_EQ(pkgmgrinfo_pkginfo_destroy_pkginfo(app), PMINFO_R_EINVAL) << "handle of the other kind";
  EXPECT_EQ(pkgmgrinfo_appinfo_destroy_appinfo(app), PMINFO_R_OK);
  EXPECT_EQ(pkgmgrinfo_appinfo_destroy_appinfo(app), PMINFO_R_EINVAL) << "destroyed handle";
  setenv("HOST_PKGMGRINFO_FAIL", "pkgmgrinfo_pkginfo_destroy_pkginfo", 1);
  EXPECT_EQ(pkgmgrinfo_pkginfo_destroy_pkginfo(package), PMINFO_R_ERROR)
      << "a failing destroy still releases";
  EXPECT_EQ(host_pkgmgrinfo_bad_destroys(), 2);
  host_pkgmgrinfo_reset_counters();
  EXPECT_EQ(host_pkgmgrinfo_bad_destroys(), 0);
}

// Manifests are read once per process: every change between two calls must show in the next answer, even
// a rewrite of the same size within the same clock tick, and what only the XML parser can read.
TEST_F(PkgmgrInfoStandInTest, AnswersFollowEveryChangeBetweenCalls) {
  const std::string rw = Device().rwPackages;
  const std::string outside = Device().root + "/elsewhere";
  wup_test::MakeDirs(outside);
  wup_test::WriteManifest(rw, "pkg", "1.0.0", {"pkg"});
  EXPECT_EQ(Version("pkg"), "1.0.0");
  wup_test::WriteManifest(rw, "pkg", "1.0.1", {"pkg"});
  EXPECT_EQ(Version("pkg"), "1.0.1");
  wup_test::WriteManifest(rw, "staged", "2.0.0", {"pkg.next"});
  ASSERT_EQ(std::rename((rw + "/staged.xml").c_str(), (rw + "/pkg.xml").c_str()), 0);
  EXPECT_EQ(Version("pkg"), "2.0.0");
  EXPECT_EQ(RootPath("pkg.next"), Device().rwApp + "/pkg");
  EXPECT_EQ(Version("staged"), "<-3>");

  // A link's target may change where no watch of the manifest directory sees it.
  wup_test::WriteManifest(outside, "target", "1", {"linked"});
  ASSERT_EQ(symlink((outside + "/target.xml").c_str(), (rw + "/link.xml").c_str()), 0);
  EXPECT_EQ(RootPath("linked"), Device().rwApp + "/link");
  wup_test::WriteManifest(outside, "target", "1", {"relinked"});
  EXPECT_EQ(RootPath("linked"), "<-3>");
  EXPECT_EQ(RootPath("relinked"), Device().rwApp + "/link");

  wup_test::WriteFile(rw + "/ref.xml", "<manifest package=\"ref\"><ui-application appid=\"r&#101;f\"/></manifest>");
  EXPECT_EQ(RootPath("ref"), Device().rwApp + "/ref") << "an id written with a character reference";
  ASSERT_EQ(std::remove((rw + "/pkg.xml").c_str()), 0);
  EXPECT_EQ(Version("pkg"), "<-3>");

  // A new directory at the same path.
  wup_test::RemoveTree(rw);
  wup_test::MakeDirs(rw);
  wup_test::WriteManifest(rw, "fresh", "3", {"ref"});
  EXPECT_EQ(Version("fresh"), "3");
  EXPECT_EQ(RootPath("ref"), Device().rwApp + "/fresh");
}

}  // namespace
