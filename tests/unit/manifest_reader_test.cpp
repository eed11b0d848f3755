// The host manifest reader: what the package-information stand-in and the package-manager stand-in learn
// from a tizen-manifest.xml, and the one-line reason they get for a file they cannot use.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "manifest.h"
#include "sandbox.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::Pair;

class ManifestReaderTest : public ::testing::Test {
 protected:
  void SetUp() override { wup_test::Device().Reset(); }

  std::string Write(const std::string& name, const std::string& content) {
    const std::string path = wup_test::Device().root + "/" + name;
    wup_test::WriteFile(path, content);
    return path;
  }
};

TEST_F(ManifestReaderTest, ReadsPackageApplicationsAndMetadataInManifestOrder) {
  const std::string path = Write("p.xml", R"(<?xml version="1.0" encoding="utf-8"?>
<manifest xmlns="http://tizen.org/ns/packages" package="com.korvane.tv.xwalk.tv" version="2.1.0" api-version="6.0">
  <label>TV</label>
  <ui-application appid="com.korvane.tv.xwalk.tv" exec="tv" type="capp">
    <label>ignored</label>
    <metadata key="http://korvane.com/tv/metadata/upgradable_webapi_type" value="xwalkplugin"/>
    <metadata key="b" value=""/>
    <metadata key="a"/>
    <metadata value="no key"/>
  </ui-application>
  <privileges><privilege>http://tizen.org/privilege/application.launch</privilege></privileges>
  <service-application appid="svc"><metadata key="z" value="1"/></service-application>
  <widget-application appid="widget"/>
  <application appid="not-an-application-element"/>
  <ui-application><metadata key="orphan" value="x"/></ui-application>
  <ui-application-extra appid="suffix-in-the-middle"/>
</manifest>
)");
  host::Manifest manifest;
  std::string error;
  ASSERT_TRUE(host::ReadManifest(path, manifest, error)) << error;
  EXPECT_EQ(manifest.package, "com.korvane.tv.xwalk.tv");
  EXPECT_EQ(manifest.version, "2.1.0");
  ASSERT_EQ(manifest.apps.size(), 3u);
  EXPECT_EQ(manifest.apps[0].appid, "com.korvane.tv.xwalk.tv");
  EXPECT_THAT(manifest.apps[0].metadata,
              ElementsAre(Pair("http://korvane.com/tv/metadata/upgradable_webapi_type", "xwalkplugin"),
                          Pair("b", ""), Pair("a", "")));
  EXPECT_EQ(manifest.apps[1].appid, "svc");
  EXPECT_THAT(manifest.apps[1].metadata, ElementsAre(Pair("z", "1")));
  EXPECT_EQ(manifest.apps[2].appid, "widget");
  EXPECT_TRUE(manifest.apps[2].metadata.empty());
}

TEST_F(ManifestReaderTest, ManifestWithoutVersionOrApplicationsIsStillAPackage) {
  const std::string path = Write("bare.xml", R"(<manifest package="bare"/>)");
  host::Manifest manifest;
  std::string error;
  ASSERT_TRUE(host::ReadManifest(path, manifest, error)) << error;
  EXPECT_EQ(manifest.package, "bare");
  EXPECT_EQ(manifest.version, "");
  EXPECT_TRUE(manifest.apps.empty());
}

TEST_F(ManifestReaderTest, UnusableFilesFailWithAOneLineReasonAndLeaveTheOutputAlone) {
  struct Case {
    std::string what;
    std::string content;
    std::string reason;
  };
  const Case cases[] = {
      {"missing", "", "No such file"},
      {"empty", "\n", "not XML"},
      {"not XML", "package=\"p\"\nversion=1\n", "not XML"},
      {"unclosed", "<manifest package=\"p\">\n<ui-application appid=\"a\">\n</manifest>\n", "not XML"},
      {"other root", "<package package=\"p\" version=\"1\"/>", "root element is not <manifest>"},
      {"no package", "<manifest version=\"1\"><ui-application appid=\"a\"/></manifest>", "no package"},
      {"empty package", "<manifest package=\"\" version=\"1\"/>", "no package"},
  };
  const std::string path = wup_test::Device().root + "/case.xml";
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    wup_test::RemoveTree(path);
    if (c.what != "missing") wup_test::WriteFile(path, c.content);
    host::Manifest manifest;
    manifest.package = "untouched";
    std::string error;
    EXPECT_FALSE(host::ReadManifest(path, manifest, error));
    EXPECT_THAT(error, HasSubstr(c.reason));
    EXPECT_THAT(error, HasSubstr(path));
    EXPECT_THAT(error, Not(HasSubstr("\n")));
    EXPECT_EQ(manifest.package, "untouched");
  }
}

TEST_F(ManifestReaderTest, DirectoryInPlaceOfAManifestIsAFailure) {
  const std::string path = wup_test::Device().root + "/dir.xml";
  wup_test::MakeDirs(path);
  host::Manifest manifest;
  std::string error;
  EXPECT_FALSE(host::ReadManifest(path, manifest, error));
  EXPECT_THAT(error, HasSubstr(path));
}

}  // namespace
