// The constants are built while the library is loaded, from the platform path service; these tests load
// the real library in a fresh process for each environment and read back what it built.
#include <gtest/gtest.h>

#include <map>
#include <sstream>

#include "sandbox.h"

namespace {

using Constants = std::map<std::string, std::string>;

wup_test::CommandResult LoadLibrary(const std::vector<std::string>& environment) {
  return wup_test::RunCommand({WUP_TEST_TOOLS_DIR "/print_constants", WUP_PLUGIN_LIBRARY}, environment);
}

Constants LoadConstants(const std::vector<std::string>& environment) {
  const wup_test::CommandResult result = LoadLibrary(environment);
  EXPECT_TRUE(result.exited);
  EXPECT_EQ(0, result.status);
  Constants constants;
  std::istringstream lines(result.output);
  for (std::string line; std::getline(lines, line);) {
    const size_t equals = line.find('=');
    constants[line.substr(0, equals)] = line.substr(equals + 1);
  }
  return constants;
}

const std::vector<std::string> kDevice = {"HOST_TZPLATFORM_UNSET", "TZ_SYS_RW_APP=/dev/rw",
                                          "TZ_SYS_RO_APP=/img/ro", "TZ_SYS_DB=/var/db"};

TEST(Constants, DirectoriesAndFilesComeFromThePathService) {
  Constants c = LoadConstants(kDevice);
  EXPECT_EQ("/dev/rw/", c["strRW_APP_DIR"]);
  EXPECT_EQ("/img/ro/", c["strRO_APP_DIR"]);
  EXPECT_EQ("/dev/rw/appbinarymanager/", c["strMANAGER_DIR"]);
  EXPECT_EQ("/dev/rw/pepper/", c["strPEPPER_DIR"]);
  EXPECT_EQ("/dev/rw/pepper/b2b/", c["strB2B_PEPPER_DIR"]);
  EXPECT_EQ("/dev/rw/appbinarymanager/webapi_result", c["strRESULT_DIR"]);
  EXPECT_EQ("/dev/rw/appbinarymanager/webapi_result/upgrade_webapi_result.json", c["strRESULT_FILE"]);
  EXPECT_EQ("/dev/rw/appbinarymanager/webapi_result/upgrade_webapi_result.json_bak", c["strRESULT_FILE_BAK"]);
  EXPECT_EQ("/var/db", c["strTZ_SYS_DB"]);
  EXPECT_EQ("/var/db/.AppBinaryManager.db", c["strVERSION_DB"]);
  EXPECT_EQ("/var/db/.AppBinaryManager_Backup.db", c["strVERSION_DB_BAKUP"]);
  EXPECT_EQ(c["strVERSION_DB"], c["VERSION_DB"]);
  EXPECT_EQ(c["strVERSION_DB_BAKUP"], c["VERSION_DB_BAKUP"]);
}

TEST(Constants, DatabasePathsAddNoSeparatorAndRemoveNone) {
  std::vector<std::string> environment = kDevice;
  environment.push_back("TZ_SYS_DB=/var/db/");
  Constants c = LoadConstants(environment);
  EXPECT_EQ("/var/db//.AppBinaryManager.db", c["VERSION_DB"]);
  EXPECT_EQ("/var/db//.AppBinaryManager_Backup.db", c["VERSION_DB_BAKUP"]);
}

TEST(Constants, WritableDirectoryFallsBackWhenThePathServiceHasNone) {
  std::vector<std::string> environment = kDevice;
  environment.push_back("HOST_TZPLATFORM_UNSET=TZ_SYS_RW_APP");
  Constants c = LoadConstants(environment);
  EXPECT_EQ("/opt/usr/apps/", c["strRW_APP_DIR"]);
  EXPECT_EQ("/opt/usr/apps/pepper/b2b/", c["strB2B_PEPPER_DIR"]);
  EXPECT_EQ("/opt/usr/apps/appbinarymanager/webapi_result/upgrade_webapi_result.json", c["strRESULT_FILE"]);
  EXPECT_EQ("/img/ro/", c["strRO_APP_DIR"]);
}

TEST(Constants, ReadOnlyAndDatabaseDirectoriesHaveNoFallback) {
  for (const char* variable : {"TZ_SYS_RO_APP", "TZ_SYS_DB"}) {
    std::vector<std::string> environment = kDevice;
    environment.push_back(std::string("HOST_TZPLATFORM_UNSET=") + variable);
    const wup_test::CommandResult result = LoadLibrary(environment);
    EXPECT_FALSE(result.exited && result.status == 0) << variable << " missing, yet the library loaded";
  }
}

TEST(Constants, FixedTextsAndMetadataKeys) {
  Constants c = LoadConstants(kDevice);
  const std::string ns = METADATA_NAMESPACE;
  ASSERT_GE(ns.size(), 13u);
  EXPECT_EQ("/tv/metadata/", ns.substr(ns.size() - 13));
  EXPECT_EQ(ns + "upgradable_webapi_type", c["strMETADATA_TYPE_KEY"]);
  EXPECT_EQ(ns + "forceupdate_webapi", c["strMETADATA_FORCE_KEY"]);
  EXPECT_EQ(ns + "upgradable_webapi_applist", c["strMETADATA_APPLIST_KEY"]);
  EXPECT_EQ("/usr/lib/tizen-extensions-crosswalk/", c["strXWALK_EXTENSION_DIR"]);
  EXPECT_EQ("versionTable", c["strVERSION_TABLE"]);
  EXPECT_EQ("pluginTable", c["strPLUGIN_TABLE"]);
  EXPECT_EQ("0.0.0", c["strDEFAULT_VERSION"]);
  EXPECT_EQ("com.korvane.tv.pepper.", c["strPEPPER_PKG_PREFIX"]);
  EXPECT_EQ("com.korvane.tv.xwalk.", c["strXWALK_PKG_PREFIX"]);
  EXPECT_EQ("/shared/res/", c["strSHARED_RES"]);
  EXPECT_EQ("pepperplugin", c["strPEPPER_PLUGIN"]);
  EXPECT_EQ("xwalkplugin", c["strXWALK_PLUGIN"]);
  EXPECT_EQ("b2bpepperplugin", c["strB2B_PEPPER_PLUGIN"]);
}

}  // namespace
