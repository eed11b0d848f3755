// The host stand-in of the package-information service: what it answers from the sandbox device's
// manifests, how it fails, and how it keeps count of its handles.
#include <gtest/gtest.h>
#include <pkgmgr-info-host.h>
#include <pkgmgr-info.h>

#include <cstdlib>
#include <string>

#include "sample_packages.h"

namespace {

using wup_test::Device;

class PkgmgrInfoStandInTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Device().Reset();
    unsetenv("HOST_PKGMGRINFO_FAIL");
    host_pkgmgrinfo_reset_counters();
  }
  void TearDown() override { EXPECT_EQ(host_pkgmgrinfo_open_handles(), 0); }

  // The package version, or "<result>" when a call fails.
  static std::string Version(const char* pkgid) {
    pkgmgrinfo_pkginfo_h handle = nullptr;
    char* text = nullptr;
    int result = pkgmgrinfo_pkginfo_get_pkginfo(pkgid, &handle);
    std::string answer;
    if (result == PMINFO_R_OK && (result = pkgmgrinfo_pkginfo_get_version(handle, &text)) == PMINFO_R_OK) {
      answer = text;
    }
    if (handle != nullptr) pkgmgrinfo_pkginfo_destroy_pkginfo(handle);
    return result == PMINFO_R_OK ? answer : "<" + std::to_string(result) + ">";
  }

  // The application's root path, or "<result>" when a call fails.
  static std::string RootPath(const char* appid) {
    pkgmgrinfo_appinfo_h handle = nullptr;
    char* text = nullptr;
    int result = pkgmgrinfo_appinfo_get_appinfo(appid, &handle);
    std::string answer;
    if (result == PMINFO_R_OK && (result = pkgmgrinfo_appinfo_get_root_path(handle, &text)) == PMINFO_R_OK) {
      answer = text;
    }
    if (handle != nullptr) pkgmgrinfo_appinfo_destroy_appinfo(handle);
    return result == PMINFO_R_OK ? answer : "<" + std::to_string(result) + ">";
  }
};

TEST_F(PkgmgrInfoStandInTest, UpdatedManifestShadowsThePreloadedOne) {
  wup_test::WriteManifest(Device().roPackages, "pkg", "1.0.0", {"pkg", "pkg.old"});
  wup_test::WriteManifest(Device().roPackages, "other", "0.1", {"other.app"});
  EXPECT_EQ(Version("pkg"), "1.0.0");
  EXPECT_EQ(RootPath("pkg.old"), Device().roApp + "/pkg");

  wup_test::WriteManifest(Device().rwPackages, "pkg", "2.0.0", {"pkg", "pkg.new"});
  EXPECT_EQ(Version("pkg"), "2.0.0");
  EXPECT_EQ(RootPath("pkg"), Device().rwApp + "/pkg");
  EXPECT_EQ(RootPath("pkg.new"), Device().rwApp + "/pkg");
  EXPECT_EQ(RootPath("pkg.old"), "<-3>") << "the update hides the preloaded manifest";
  EXPECT_EQ(RootPath("other.app"), Device().roApp + "/other");
  EXPECT_EQ(Version("pkg.new"), "<-3>") << "application ids are no package ids";
  EXPECT_EQ(RootPath("other"), "<-3>");

  // A broken update still shadows: the call fails rather than answer the old facts.
  wup_test::WriteFile(Device().rwPackages + "/pkg.xml", "<manifest version=\"3\">");
  EXPECT_EQ(Version("pkg"), "<-1>");
  EXPECT_EQ(RootPath("pkg.old"), "<-1>") << "an application that may be in a broken manifest is an error";
  EXPECT_EQ(RootPath("other.app"), Device().roApp + "/other");
  EXPECT_EQ(Version("absent"), "<-3>");
  EXPECT_EQ(Version("../share/packages/pkg"), "<-3>");
  EXPECT_EQ(Version(nullptr), "<-2>");
  EXPECT_EQ(RootPath(nullptr), "<-2>");
}

TEST_F(PkgmgrInfoStandInTest, MetadataKeysMatchIgnoringCaseAndStringsLiveAsLongAsTheHandle) {
  wup_test::WriteManifest(Device().rwPackages, "pkg", "1", {"pkg"},
                          {{"Type_Key", "pepperplugin"}, {"e", ""}});
  pkgmgrinfo_appinfo_h app = nullptr;
  ASSERT_EQ(pkgmgrinfo_appinfo_get_appinfo("pkg", &app), PMINFO_R_OK);
  char* type = nullptr;
  char* empty = nullptr;
  char* missing = nullptr;
  EXPECT_EQ(pkgmgrinfo_appinfo_get_metadata_value(app, "TYPE_key", &type), PMINFO_R_OK);
  EXPECT_EQ(pkgmgrinfo_appinfo_get_metadata_value(app, "E", &empty), PMINFO_R_OK);
  EXPECT_EQ(pkgmgrinfo_appinfo_get_metadata_value(app, "Type", &missing), PMINFO_R_EINVAL);
  EXPECT_EQ(pkgmgrinfo_appinfo_get_metadata_value(app, nullptr, &missing), PMINFO_R_EINVAL);
  // Other handles come and go and the manifest changes while the first handle is open.
  wup_test::WriteManifest(Device().rwPackages, "pkg", "2", {"pkg"});
  EXPECT_EQ(RootPath("pkg"), Device().rwApp + "/pkg");
  EXPECT_STREQ(type, "pepperplugin");
  EXPECT_STREQ(empty, "");
  EXPECT_EQ(missing, nullptr);
  pkgmgrinfo_appinfo_destroy_appinfo(app);
}

TEST_F(PkgmgrInfoStandInTest, ForcedFailuresHitTheNamedCallsReadAtCallTimeAndStillRelease) {
  wup_test::WriteManifest(Device().rwPackages, "pkg", "1.0.0", {"pkg"});
  setenv("HOST_PKGMGRINFO_FAIL", "pkgmgrinfo_pkginfo_get_version,pkgmgrinfo_appinfo_get_appinfo", 1);
  EXPECT_EQ(Version("pkg"), "<-1>");
  EXPECT_EQ(RootPath("pkg"), "<-1>");
  setenv("HOST_PKGMGRINFO_FAIL", "pkgmgrinfo_appinfo_get_root_path,pkgmgrinfo_pkginfo", 1);
  EXPECT_EQ(RootPath("pkg"), "<-1>");
  EXPECT_EQ(Version("pkg"), "1.0.0") << "only whole names count";
  setenv("HOST_PKGMGRINFO_FAIL", "pkgmgrinfo_pkginfo_destroy_pkginfo", 1);
  pkgmgrinfo_pkginfo_h package = nullptr;
  ASSERT_EQ(pkgmgrinfo_pkginfo_get_pkginfo("pkg", &package), PMINFO_R_OK);
  EXPECT_EQ(pkgmgrinfo_pkginfo_destroy_pkginfo(package), PMINFO_R_ERROR);
  EXPECT_EQ(host_pkgmgrinfo_open_pkginfo_handles(), 0);
}

TEST_F(PkgmgrInfoStandInTest, CountsHandlesAndCallsAndCatchesBadDestroys) {
  wup_test::WriteManifest(Device().rwPackages, "pkg", "1.0.0", {"pkg"});
  pkgmgrinfo_appinfo_h app = nullptr;
  pkgmgrinfo_pkginfo_h package = nullptr;
  char* text = nullptr;
  ASSERT_EQ(pkgmgrinfo_appinfo_get_appinfo("pkg", &app), PMINFO_R_OK);
  ASSERT_EQ(pkgmgrinfo_pkginfo_get_pkginfo("pkg", &package), PMINFO_R_OK);
  EXPECT_EQ(host_pkgmgrinfo_open_appinfo_handles(), 1);
  EXPECT_EQ(host_pkgmgrinfo_open_pkginfo_handles(), 1);
  EXPECT_EQ(pkgmgrinfo_pkginfo_get_version(app, &text), PMINFO_R_EINVAL) << "handle of the other kind";
  EXPECT_EQ(pkgmgrinfo_pkginfo_destroy_pkginfo(app), PMINFO_R_EINVAL);
  EXPECT_EQ(pkgmgrinfo_appinfo_destroy_appinfo(app), PMINFO_R_OK);
  EXPECT_EQ(pkgmgrinfo_pkginfo_destroy_pkginfo(package), PMINFO_R_OK);
  EXPECT_EQ(pkgmgrinfo_appinfo_get_root_path(app, &text), PMINFO_R_EINVAL) << "destroyed handle";
  EXPECT_EQ(pkgmgrinfo_appinfo_destroy_appinfo(app), PMINFO_R_EINVAL);
  EXPECT_EQ(host_pkgmgrinfo_bad_destroys(), 2);
  EXPECT_EQ(host_pkgmgrinfo_calls("pkgmgrinfo_appinfo_destroy_appinfo"), 2);
  EXPECT_EQ(host_pkgmgrinfo_calls("pkgmgrinfo_pkginfo_get_version"), 1);
  host_pkgmgrinfo_reset_counters();
  EXPECT_EQ(host_pkgmgrinfo_calls("pkgmgrinfo_appinfo_get_appinfo"), 0);
  EXPECT_EQ(host_pkgmgrinfo_bad_destroys(), 0);
}

}  // namespace
