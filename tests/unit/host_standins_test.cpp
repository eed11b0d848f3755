// The host stand-ins the other tests rely on: the manifest reader (what it reads, and the one-line reason
// for a file it cannot use) and the package-information service (answers, forced failures, handle counts).
#include <pkgmgr-info-host.h>
#include <pkgmgr-info.h>
#include <unistd.h>

#include <cstdlib>

#include "hostkit/fail_list.h"
#include "hostkit/manifest.h"
#include "unit.h"

namespace {

using namespace wup_test;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::Pair;
using ::testing::StartsWith;

TEST(ManifestReader, ReadsApplicationsAndTheirMetadataInManifestOrder) {
  const std::string path = Device().root + "/tizen-manifest.xml";
  WriteFile(path, R"(<?xml version="1.0" encoding="utf-8"?>
<manifest xmlns="http://tizen.org/ns/packages" package="pkg" version="2.1.0" api-version="6.0">
  <ui-application appid="pkg.ui"><metadata key="t" value="x"/><metadata key="b"/><metadata value="no key"/>
    <label>ignored</label></ui-application>
  <service-application appid="pkg.svc"><metadata key="z" value="1"/></service-application>
  <application appid="not-an-application-element"/>
  <ui-application-extra appid="suffix-in-the-middle"/>
  <widget-application><metadata key="no appid" value="x"/></widget-application>
</manifest>)");
  hostkit::Manifest manifest;
  std::string error;
  ASSERT_TRUE(hostkit::ReadManifest(path, manifest, error)) << error;
  EXPECT_EQ(manifest.package + " " + manifest.version, "pkg 2.1.0");
  ASSERT_EQ(manifest.apps.size(), 2u);
  EXPECT_EQ(manifest.apps[0].appid, "pkg.ui");
  EXPECT_THAT(manifest.apps[0].metadata, ElementsAre(Pair("t", "x"), Pair("b", "")));
  EXPECT_EQ(manifest.apps[1].appid, "pkg.svc");
  EXPECT_THAT(manifest.apps[1].metadata, ElementsAre(Pair("z", "1")));

  const std::pair<std::string, std::string> unusable[] = {
      {"", "No such file"},  // no file at all
      {"<manifest package=\"p\">\n<ui-application appid=\"a\">\n</manifest>\n", "not XML"},
      {"<package package=\"p\" version=\"1\"/>", "root element is not <manifest>"},
      {"<manifest version=\"1\"><ui-application appid=\"a\"/></manifest>", "no package attribute"},
      {"<manifest package=\"\"/>", "no package attribute"},
  };
  for (const auto& [content, reason] : unusable) {
    RemoveTree(path);
    if (!content.empty()) WriteFile(path, content);
    manifest.package = "untouched";
    EXPECT_FALSE(hostkit::ReadManifest(path, manifest, error)) << content;
    EXPECT_THAT(error, AllOf(StartsWith(path + ": "), HasSubstr(reason), Not(HasSubstr("\n")))) << content;
    EXPECT_EQ(manifest.package, "untouched") << content;
  }
}

// What a query answers, or "<result>" when a call fails; the handle is released either way.
template <typename Handle, typename Read>
std::string Ask(int (*open)(const char*, Handle*), Read read, int (*destroy)(Handle), const char* id) {
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

std::string MetadataValue(const char* appid, const char* key) {
  const auto read = [key](pkgmgrinfo_appinfo_h app, char** value) {
    return pkgmgrinfo_appinfo_get_metadata_value(app, key, value);
  };
  return Ask(pkgmgrinfo_appinfo_get_appinfo, read, pkgmgrinfo_appinfo_destroy_appinfo, appid);
}

// The lists of forced failures of every stand-in: whole names, blanks around them ignored.
TEST(FailList, NamesWholeEntriesWithBlanksAroundThemIgnored) {
  const struct {
    const char* list;  // nullptr: unset
    const char* name;
    bool listed;
  } cases[] = {
      {nullptr, "a", false}, {"", "a", false},      {"a", "a", true},    {"b, a", "a", true},
      {" a\t,b", "a", true}, {"ab,ba", "a", false}, {"a b", "a", false}, {"a,,b", "", true},
      {"a,b", "", false},    {"x,a ", "a", true},
  };
  for (const auto& c : cases) {
    c.list != nullptr ? setenv("HOST_TEST_FAIL", c.list, 1) : unsetenv("HOST_TEST_FAIL");
    EXPECT_EQ(c.listed, hostkit::Listed("HOST_TEST_FAIL", c.name))
        << (c.list ? c.list : "(unset)") << " " << c.name;
  }
  unsetenv("HOST_TEST_FAIL");
}

class PkgmgrInfoStandIn : public ::testing::Test {
 protected:
  void SetUp() override {
    Device().Reset();
    unsetenv("HOST_PKGMGRINFO_FAIL");
    host_pkgmgrinfo_reset_counters();
  }
  void TearDown() override { EXPECT_EQ(host_pkgmgrinfo_open_handles(), 0); }
  const std::string rw_ = Device().rwPackages;
};

TEST_F(PkgmgrInfoStandIn, UpdatedManifestShadowsThePreloadedOneAndMetadataKeysIgnoreCase) {
  WriteManifest(Device().roPackages, "pkg", "1.0.0", {"pkg", "pkg.old"}, {{"Type_Key", "pepperplugin"}});
  WriteManifest(Device().roPackages, "other", "0.1", {"other.app"});
  EXPECT_EQ(Version("pkg"), "1.0.0");
  EXPECT_EQ(RootPath("pkg.old"), Device().roApp + "/pkg");
  EXPECT_EQ(MetadataValue("pkg.old", "TYPE_key"), "pepperplugin");
  EXPECT_EQ(MetadataValue("pkg.old", "Type"), "<-2>");

  WriteManifest(rw_, "pkg", "2.0.0", {"pkg", "pkg.new"});
  EXPECT_EQ(Version("pkg"), "2.0.0");
  EXPECT_EQ(RootPath("pkg.new"), Device().rwApp + "/pkg");
  EXPECT_EQ(RootPath("pkg.old"), "<-3>") << "the update hides the preloaded manifest";
  EXPECT_EQ(Version("pkg.new"), "<-3>") << "application ids are no package ids";

  // A broken update still shadows: the call fails rather than answer the old facts.
  WriteFile(rw_ + "/pkg.xml", "<manifest version=\"3\">");
  EXPECT_EQ(Version("pkg"), "<-1>");
  EXPECT_EQ(RootPath("pkg.old"), "<-1>") << "an application that may be in a broken manifest is an error";
  EXPECT_EQ(RootPath("other.app"), Device().roApp + "/other");
  EXPECT_EQ(Version("absent"), "<-3>");
  EXPECT_EQ(Version(nullptr), "<-2>");
}

// What the other tests rely on to provoke failures and to find records released never or twice.
TEST_F(PkgmgrInfoStandIn, ForcedFailuresAndHandleCounts) {
  WriteManifest(rw_, "pkg", "1.0.0", {"pkg"});
  setenv("HOST_PKGMGRINFO_FAIL", "pkgmgrinfo_pkginfo_get_version,pkgmgrinfo_appinfo", 1);
  EXPECT_EQ(Version("pkg"), "<-1>");
  EXPECT_EQ(RootPath("pkg"), Device().rwApp + "/pkg") << "only whole names count";

  pkgmgrinfo_appinfo_h app = nullptr;
  pkgmgrinfo_pkginfo_h package = nullptr;
  ASSERT_EQ(pkgmgrinfo_appinfo_get_appinfo("pkg", &app), PMINFO_R_OK);
  ASSERT_EQ(pkgmgrinfo_pkginfo_get_pkginfo("pkg", &package), PMINFO_R_OK);
  EXPECT_EQ(host_pkgmgrinfo_open_appinfo_handles() + host_pkgmgrinfo_open_pkginfo_handles(), 2);
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

// The walk shows what pkgmgrinfo_appinfo_get_appinfo would (an update hides the preloaded manifest it
// replaces), hands each application's package out, stops on a negative return, and every filter handle is
// destroyed exactly once.
TEST_F(PkgmgrInfoStandIn, MetadataFilterWalksTheApplicationsThatCarryTheKey) {
  WriteManifest(Device().roPackages, "pre", "1", {"pre.a", "pre.b"}, {{"type", "x"}});
  WriteManifest(Device().roPackages, "updated", "1", {"updated"}, {{"type", "x"}});
  WriteManifest(rw_, "updated", "2", {"updated"});  // the update dropped the key
  WriteManifest(rw_, "inst", "1", {"inst"}, {{"type", "y"}});
  WriteManifest(rw_, "case", "1", {"case"}, {{"TYPE", "x"}});
  WriteManifest(rw_, "plain", "1", {"plain"});
  auto walk = [](const char* value, int stopAfter) {
    pkgmgrinfo_appinfo_metadata_filter_h filter = nullptr;
    EXPECT_EQ(pkgmgrinfo_appinfo_metadata_filter_create(&filter), PMINFO_R_OK);
    EXPECT_EQ(pkgmgrinfo_appinfo_metadata_filter_add(filter, nullptr, value), PMINFO_R_EINVAL);
    EXPECT_EQ(pkgmgrinfo_appinfo_metadata_filter_add(filter, "type", value), PMINFO_R_OK);
    std::pair<Lines, int> seen{{}, stopAfter};
    const auto collect = [](const pkgmgrinfo_appinfo_h app, void* data) {
      auto& [packages, left] = *static_cast<std::pair<Lines, int>*>(data);
      char* pkgid = nullptr;
      EXPECT_EQ(pkgmgrinfo_appinfo_get_pkgid(app, &pkgid), PMINFO_R_OK);
      packages.push_back(pkgid);
      return --left == 0 ? -1 : 0;
    };
    EXPECT_EQ(pkgmgrinfo_appinfo_metadata_filter_foreach(filter, collect, &seen), PMINFO_R_OK);
    EXPECT_EQ(host_pkgmgrinfo_open_filter_handles(), 1);
    EXPECT_EQ(pkgmgrinfo_appinfo_metadata_filter_destroy(filter), PMINFO_R_OK);
    EXPECT_EQ(pkgmgrinfo_appinfo_metadata_filter_destroy(filter), PMINFO_R_EINVAL);
    return seen.first;
  };
  EXPECT_THAT(walk(nullptr, 0), ElementsAre("inst", "pre", "pre"));
  EXPECT_THAT(walk("x", 0), ElementsAre("pre", "pre"));
  EXPECT_THAT(walk(nullptr, 1), ElementsAre("inst"));
  EXPECT_EQ(host_pkgmgrinfo_bad_destroys(), 3);
  const std::string own = Device().root + "/home/owner/packages";  // seen by its user's walks only
  MakeDirs(own);
  WriteManifest(own, "mine", "1", {"mine"}, {{"type", "x"}});
  setenv("TZ_USER_PACKAGES", own.c_str(), 1);
  EXPECT_THAT(walk("x", 0), ElementsAre("pre", "pre"));
  setenv("HOST_PKGMGRINFO_UID", "5001", 1);
  EXPECT_THAT(walk("x", 0), ElementsAre("pre", "pre", "mine"));
  for (const char* name : {"TZ_USER_PACKAGES", "HOST_PKGMGRINFO_UID"}) unsetenv(name);
}

// A package installed for one user is seen by that user's processes only, never by root (the installer):
// calls without a user answer for the calling process's user.
TEST_F(PkgmgrInfoStandIn, PackagesOfOneUserAreSeenByThatUserOnly) {
  const std::string home = Device().root + "/home/owner";
  setenv("TZ_USER_PACKAGES", (home + "/packages").c_str(), 1);
  setenv("TZ_USER_APP", (home + "/apps_rw").c_str(), 1);
  MakeDirs(home + "/packages");
  WriteManifest(home + "/packages", "mine", "1.0.0", {"mine"});
  WriteManifest(rw_, "shared", "2.0.0", {"shared"});
  const std::string mine = home + "/apps_rw/mine";
  const struct {
    const char *uid, *version;
    std::string root;  // every caller sees the package for all users
  } callers[] = {
      {"5001", "1.0.0", mine}, {"5000", "1.0.0", mine}, {"4999", "<-3>", "<-3>"}, {"0", "<-3>", "<-3>"}};
  for (const auto& caller : callers) {
    setenv("HOST_PKGMGRINFO_UID", caller.uid, 1);
    EXPECT_EQ(Version("mine"), caller.version) << caller.uid;
    EXPECT_EQ(RootPath("mine"), caller.root) << caller.uid;
    EXPECT_EQ(RootPath("shared"), Device().rwApp + "/shared") << caller.uid;
  }
  WriteFile(home + "/packages/mine.xml", "<manifest");
  setenv("HOST_PKGMGRINFO_UID", "5001", 1);
  EXPECT_EQ(RootPath("mine"), "<-1>") << "an application that may be in a broken manifest is an error";
  unsetenv("HOST_PKGMGRINFO_UID");
  EXPECT_EQ(RootPath("mine"), getuid() < 5000 ? "<-3>" : "<-1>")
      << "the real uid answers without the variable";
  for (const char* name : {"TZ_USER_PACKAGES", "TZ_USER_APP"}) unsetenv(name);
}

}  // namespace
