// The host stand-in of the package-information service: what it answers from the manifests of the sandbox
// device, how it fails, and how it keeps count of its handles.
#include <gtest/gtest.h>
#include <pkgmgr-info-host.h>
#include <pkgmgr-info.h>

#include <cstdlib>
#include <string>

#include "sample_packages.h"
#include "sandbox.h"

namespace {

using wup_test::Device;

const char kPepper[] = "com.korvane.tv.pepper.sampleplayer";

class PkgmgrInfoStandInTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Device().Reset();
    unsetenv("HOST_PKGMGRINFO_FAIL");
    host_pkgmgrinfo_reset_counters();
  }
  void TearDown() override {
    unsetenv("HOST_PKGMGRINFO_FAIL");
    EXPECT_EQ(host_pkgmgrinfo_open_handles(), 0) << "a test left a handle open";
  }

  // The package version, or "<result>" when the service fails.
  static std::string Version(const char* pkgid) {
    pkgmgrinfo_pkginfo_h handle = nullptr;
    int result = pkgmgrinfo_pkginfo_get_pkginfo(pkgid, &handle);
    if (result != PMINFO_R_OK) return "<" + std::to_string(result) + ">";
    char* version = nullptr;
    result = pkgmgrinfo_pkginfo_get_version(handle, &version);
    const std::string answer = result == PMINFO_R_OK ? version : "<" + std::to_string(result) + ">";
    EXPECT_EQ(pkgmgrinfo_pkginfo_destroy_pkginfo(handle), PMINFO_R_OK);
    return answer;
  }

  // The application's root path, or "<result>" when the service fails.
  static std::string RootPath(const char* appid) {
    pkgmgrinfo_appinfo_h handle = nullptr;
    int result = pkgmgrinfo_appinfo_get_appinfo(appid, &handle);
    if (result != PMINFO_R_OK) return "<" + std::to_string(result) + ">";
    char* path = nullptr;
    result = pkgmgrinfo_appinfo_get_root_path(handle, &path);
    const std::string answer = result == PMINFO_R_OK ? path : "<" + std::to_string(result) + ">";
    EXPECT_EQ(pkgmgrinfo_appinfo_destroy_appinfo(handle), PMINFO_R_OK);
    return answer;
  }
};

TEST_F(PkgmgrInfoStandInTest, UpdatedManifestShadowsThePreloadedOne) {
  wup_test::InstallReadOnly(kPepper, "1.0.0", {});
  EXPECT_EQ(Version(kPepper), "1.0.0");
  EXPECT_EQ(RootPath(kPepper), Device().roApp + "/" + kPepper);

  wup_test::InstallWritable(kPepper, "2.0.0", {});
  EXPECT_EQ(Version(kPepper), "2.0.0");
  EXPECT_EQ(RootPath(kPepper), Device().rwApp + "/" + kPepper);

  // An update that no longer has an application of the preloaded package hides it.
  wup_test::WriteManifest(Device().roPackages, "pkg", "1", {{"pkg", {}}, {"pkg.old", {}}});
  wup_test::WriteManifest(Device().rwPackages, "pkg", "2", {{"pkg", {}}});
  EXPECT_EQ(RootPath("pkg.old"), "<-3>");

  // A broken update shadows the preloaded manifest as well: the call fails instead of answering old facts.
  wup_test::WriteFile(Device().rwPackages + "/" + kPepper + ".xml", "<manifest version=\"3\">");
  EXPECT_EQ(Version(kPepper), "<-1>");
  EXPECT_EQ(RootPath(kPepper), "<-1>");
}

TEST_F(PkgmgrInfoStandInTest, ApplicationsAreFoundByAppidInAnyManifest) {
  wup_test::WriteManifest(Device().rwPackages, "multi", "1.2", {{"multi.main", {}}, {"multi.service", {}}});
  wup_test::WriteManifest(Device().roPackages, "preloaded", "0.1", {{"preloaded.app", {}}});
  EXPECT_EQ(RootPath("multi.service"), Device().rwApp + "/multi");
  EXPECT_EQ(RootPath("preloaded.app"), Device().roApp + "/preloaded");
  // Application ids and package ids are different name spaces.
  EXPECT_EQ(RootPath("multi"), "<-3>");
  EXPECT_EQ(Version("multi.main"), "<-3>");
  EXPECT_EQ(Version("multi"), "1.2");
}

TEST_F(PkgmgrInfoStandInTest, MissingOrBrokenManifestsFailTheCallWithoutHarm) {
  EXPECT_EQ(Version(kPepper), "<-3>");
  EXPECT_EQ(RootPath(kPepper), "<-3>");
  EXPECT_EQ(Version("../packages/x"), "<-3>");
  EXPECT_EQ(Version(""), "<-3>");

  wup_test::WriteFile(Device().roPackages + "/broken.xml", "not a manifest");
  wup_test::InstallWritable(kPepper, "1.0.0", {});
  EXPECT_EQ(Version("broken"), "<-1>");
  // A broken manifest does not hide the others, but an application that may be in it is an error.
  EXPECT_EQ(RootPath(kPepper), Device().rwApp + "/" + kPepper);
  EXPECT_EQ(RootPath("nowhere"), "<-1>");

  pkgmgrinfo_appinfo_h app = nullptr;
  pkgmgrinfo_pkginfo_h package = nullptr;
  EXPECT_EQ(pkgmgrinfo_appinfo_get_appinfo(nullptr, &app), PMINFO_R_EINVAL);
  EXPECT_EQ(pkgmgrinfo_appinfo_get_appinfo(kPepper, nullptr), PMINFO_R_EINVAL);
  EXPECT_EQ(pkgmgrinfo_pkginfo_get_pkginfo(nullptr, &package), PMINFO_R_EINVAL);
  EXPECT_EQ(pkgmgrinfo_pkginfo_get_pkginfo(kPepper, nullptr), PMINFO_R_EINVAL);
  ASSERT_EQ(pkgmgrinfo_appinfo_get_appinfo(kPepper, &app), PMINFO_R_OK);
  char* text = nullptr;
  EXPECT_EQ(pkgmgrinfo_appinfo_get_root_path(app, nullptr), PMINFO_R_EINVAL);
  EXPECT_EQ(pkgmgrinfo_appinfo_get_metadata_value(app, nullptr, &text), PMINFO_R_EINVAL);
  EXPECT_EQ(pkgmgrinfo_appinfo_get_metadata_value(app, "k", nullptr), PMINFO_R_EINVAL);
  EXPECT_EQ(pkgmgrinfo_appinfo_destroy_appinfo(app), PMINFO_R_OK);
}

TEST_F(PkgmgrInfoStandInTest, MetadataKeysMatchIgnoringCaseAndStringsLiveAsLongAsTheHandle) {
  wup_test::InstallWritable(kPepper, "1.0.0",
                            {{"http://korvane.com/tv/metadata/Upgradable_WebAPI_Type", "pepperplugin"},
                             {"empty", ""},
                             {"EMPTY", "second"}});
  pkgmgrinfo_appinfo_h app = nullptr;
  ASSERT_EQ(pkgmgrinfo_appinfo_get_appinfo(kPepper, &app), PMINFO_R_OK);
  char* type = nullptr;
  char* empty = nullptr;
  char* root = nullptr;
  char* missing = nullptr;
  EXPECT_EQ(pkgmgrinfo_appinfo_get_metadata_value(
                app, "HTTP://KORVANE.COM/tv/metadata/upgradable_webapi_type", &type),
            PMINFO_R_OK);
  EXPECT_EQ(pkgmgrinfo_appinfo_get_metadata_value(app, "Empty", &empty), PMINFO_R_OK);
  EXPECT_EQ(pkgmgrinfo_appinfo_get_metadata_value(app, "upgradable_webapi_type", &missing), PMINFO_R_EINVAL);
  EXPECT_EQ(missing, nullptr);
  EXPECT_EQ(pkgmgrinfo_appinfo_get_root_path(app, &root), PMINFO_R_OK);

  // Other handles come and go, and the manifest changes, while the first one is still open.
  wup_test::InstallWritable(kPepper, "2.0.0", {});
  EXPECT_EQ(RootPath(kPepper), Device().rwApp + "/" + kPepper);
  EXPECT_STREQ(type, "pepperplugin");
  EXPECT_STREQ(empty, "");
  EXPECT_EQ(std::string(root), Device().rwApp + "/" + kPepper);
  EXPECT_EQ(pkgmgrinfo_appinfo_destroy_appinfo(app), PMINFO_R_OK);
}

TEST_F(PkgmgrInfoStandInTest, ForcedFailuresHitOnlyTheNamedCallsAndAreReadAtCallTime) {
  wup_test::InstallWritable(kPepper, "1.0.0", {{"k", "v"}});
  setenv("HOST_PKGMGRINFO_FAIL", "pkgmgrinfo_pkginfo_get_version,pkgmgrinfo_appinfo_get_root_path", 1);
  EXPECT_EQ(Version(kPepper), "<-1>");
  EXPECT_EQ(RootPath(kPepper), "<-1>");
  pkgmgrinfo_appinfo_h app = nullptr;
  ASSERT_EQ(pkgmgrinfo_appinfo_get_appinfo(kPepper, &app), PMINFO_R_OK);
  char* value = nullptr;
  EXPECT_EQ(pkgmgrinfo_appinfo_get_metadata_value(app, "k", &value), PMINFO_R_OK);

  setenv("HOST_PKGMGRINFO_FAIL", "pkgmgrinfo_appinfo_get_metadata_value", 1);
  EXPECT_EQ(pkgmgrinfo_appinfo_get_metadata_value(app, "k", &value), PMINFO_R_ERROR);
  // A failing destroy still releases, so that tests provoking it leak nothing.
  setenv("HOST_PKGMGRINFO_FAIL", "pkgmgrinfo_appinfo_destroy_appinfo", 1);
  EXPECT_EQ(pkgmgrinfo_appinfo_destroy_appinfo(app), PMINFO_R_ERROR);
  EXPECT_EQ(host_pkgmgrinfo_open_appinfo_handles(), 0);

  setenv("HOST_PKGMGRINFO_FAIL", "pkgmgrinfo_appinfo_get_appinfo,pkgmgrinfo_pkginfo_get_pkginfo", 1);
  EXPECT_EQ(Version(kPepper), "<-1>");
  EXPECT_EQ(RootPath(kPepper), "<-1>");
  // Only whole names count.
  setenv("HOST_PKGMGRINFO_FAIL", "pkgmgrinfo_pkginfo,get_version", 1);
  EXPECT_EQ(Version(kPepper), "1.0.0");
  unsetenv("HOST_PKGMGRINFO_FAIL");
  EXPECT_EQ(RootPath(kPepper), Device().rwApp + "/" + kPepper);
}

TEST_F(PkgmgrInfoStandInTest, KeepsCountOfHandlesAndCallsAndCatchesBadDestroys) {
  wup_test::InstallWritable(kPepper, "1.0.0", {});
  pkgmgrinfo_appinfo_h app = nullptr;
  pkgmgrinfo_pkginfo_h package = nullptr;
  ASSERT_EQ(pkgmgrinfo_appinfo_get_appinfo(kPepper, &app), PMINFO_R_OK);
  ASSERT_EQ(pkgmgrinfo_pkginfo_get_pkginfo(kPepper, &package), PMINFO_R_OK);
  EXPECT_EQ(host_pkgmgrinfo_open_appinfo_handles(), 1);
  EXPECT_EQ(host_pkgmgrinfo_open_pkginfo_handles(), 1);
  EXPECT_EQ(host_pkgmgrinfo_open_handles(), 2);

  // Handles of the other kind are not accepted, by the queries or the destroy calls.
  char* text = nullptr;
  EXPECT_EQ(pkgmgrinfo_pkginfo_get_version(app, &text), PMINFO_R_EINVAL);
  EXPECT_EQ(pkgmgrinfo_appinfo_get_root_path(package, &text), PMINFO_R_EINVAL);
  EXPECT_EQ(pkgmgrinfo_pkginfo_destroy_pkginfo(app), PMINFO_R_EINVAL);
  EXPECT_EQ(host_pkgmgrinfo_bad_destroys(), 1);

  EXPECT_EQ(pkgmgrinfo_appinfo_destroy_appinfo(app), PMINFO_R_OK);
  EXPECT_EQ(pkgmgrinfo_pkginfo_destroy_pkginfo(package), PMINFO_R_OK);
  EXPECT_EQ(host_pkgmgrinfo_open_handles(), 0);
  // A destroyed handle is neither usable nor destroyable again.
  EXPECT_EQ(pkgmgrinfo_appinfo_get_root_path(app, &text), PMINFO_R_EINVAL);
  EXPECT_EQ(pkgmgrinfo_appinfo_destroy_appinfo(app), PMINFO_R_EINVAL);
  EXPECT_EQ(pkgmgrinfo_appinfo_destroy_appinfo(nullptr), PMINFO_R_EINVAL);
  EXPECT_EQ(host_pkgmgrinfo_bad_destroys(), 3);

  EXPECT_EQ(host_pkgmgrinfo_calls("pkgmgrinfo_appinfo_get_appinfo"), 1);
  EXPECT_EQ(host_pkgmgrinfo_calls("pkgmgrinfo_appinfo_destroy_appinfo"), 3);
  EXPECT_EQ(host_pkgmgrinfo_calls("pkgmgrinfo_pkginfo_get_version"), 1);
  EXPECT_EQ(host_pkgmgrinfo_calls("no_such_call"), 0);
  host_pkgmgrinfo_reset_counters();
  EXPECT_EQ(host_pkgmgrinfo_calls("pkgmgrinfo_appinfo_get_appinfo"), 0);
  EXPECT_EQ(host_pkgmgrinfo_bad_destroys(), 0);
}

}  // namespace
