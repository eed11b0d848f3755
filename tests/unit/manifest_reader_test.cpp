// The host manifest reader: what the stand-ins learn from a tizen-manifest.xml, and the one-line reason
// they get for a file they cannot use.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "manifest.h"
#include "sandbox.h"

namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::Pair;
using ::testing::StartsWith;

std::string ManifestFile() { return wup_test::Device().root + "/tizen-manifest.xml"; }

TEST(ManifestReaderTest, ReadsApplicationsAndTheirMetadataInManifestOrder) {
  const std::string path = ManifestFile();
  wup_test::WriteFile(path, R"(<?xml version="1.0" encoding="utf-8"?>
<manifest xmlns="http://tizen.org/ns/packages" package="pkg" version="2.1.0" api-version="6.0">
  <label>ignored</label>
  <ui-application appid="pkg.ui"><metadata key="t" value="x"/><metadata key="b"/><metadata value="no key"/>
    <label>ignored</label></ui-application>
  <service-application appid="pkg.svc"><metadata key="z" value="1"/></service-application>
  <application appid="not-an-application-element"/>
  <ui-application-extra appid="suffix-in-the-middle"/>
  <widget-application><metadata key="no appid" value="x"/></widget-application>
</manifest>)");
  host::Manifest manifest;
  std::string error;
  ASSERT_TRUE(host::ReadManifest(path, manifest, error)) << error;
  EXPECT_EQ(manifest.package, "pkg");
  EXPECT_EQ(manifest.version, "2.1.0");
  ASSERT_EQ(manifest.apps.size(), 2u);
  EXPECT_EQ(manifest.apps[0].appid, "pkg.ui");
  EXPECT_THAT(manifest.apps[0].metadata, ElementsAre(Pair("t", "x"), Pair("b", "")));
  EXPECT_EQ(manifest.apps[1].appid, "pkg.svc");
  EXPECT_THAT(manifest.apps[1].metadata, ElementsAre(Pair("z", "1")));
}

TEST(ManifestReaderTest, UnusableFilesFailWithAOneLineReasonAndLeaveTheOutputAlone) {
  const std::pair<std::string, std::string> cases[] = {
      {"", "No such file"},  // no file at all
      {"<manifest package=\"p\">\n<ui-application appid=\"a\">\n</manifest>\n", "not XML"},
      {"<package package=\"p\" version=\"1\"/>", "root element is not <manifest>"},
      {"<manifest version=\"1\"><ui-application appid=\"a\"/></manifest>", "no package attribute"},
      {"<manifest package=\"\"/>", "no package attribute"},
  };
  const std::string path = ManifestFile();
  for (const auto& [content, reason] : cases) {
    wup_test::RemoveTree(path);
    if (!content.empty()) wup_test::WriteFile(path, content);
    host::Manifest manifest;
    manifest.package = "untouched";
    std::string error;
    EXPECT_FALSE(host::ReadManifest(path, manifest, error)) << content;
    EXPECT_THAT(error, AllOf(StartsWith(path + ": "), HasSubstr(reason), Not(HasSubstr("\n")))) << content;
    EXPECT_EQ(manifest.package, "untouched") << content;
  }
}

}  // namespace
