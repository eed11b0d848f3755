// The result document is what the web runtime parses: its text, its keys and the order of its entries
// are checked as the runtime sees them, and each allow-listed id must pass through the guard.
#include <gtest/gtest.h>
#include <json/json.h>

#include <sstream>
#include <string>
#include <vector>

#include "JsonUtil.h"
#include "log_capture.h"
#include "sandbox.h"

namespace {

using Lines = std::vector<std::string>;

_PluginData Record(const std::string& name, PLUGIN_TYPE type, int isUpdate, const std::string& whiteList,
                   const std::string& entryPoints = "") {
  return {name, "", name + "/", "", entryPoints, type, 0, isUpdate, whiteList, ""};
}

class JsonDocumentTest : public ::testing::Test {
 protected:
  void SetUp() override {
    wup_test::Device().Reset();
    wup_test::ClearLog();
  }

  static Json::Value Build(std::vector<_PluginData> records) {
    Json::Value document(Json::nullValue);
    for (_PluginData& record : records) JsonUtil::MakeUpgradeWebapiJson(document, record);
    return document;
  }
  static Json::Value Parse(const std::string& text) {
    Json::Value value;
    std::istringstream in(text);
    EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &value, nullptr)) << text;
    return value;
  }
  static Lines Terminated() { return wup_test::ReadLines(wup_test::Device().vex + "/terminated"); }
};

TEST_F(JsonDocumentTest, TwoRecordsGiveTheRuntimesDocumentByteForByte) {
  Json::Value document = Build(
      {{"demoext", "", "/opt/usr/apps/demo.ext/shared/res/libdemoext.so", "", "demo.alpha,demo.beta",
        XWALK_PLUGIN, 0, INSTALLED_ONLY_RW, "Ab12Cd34Ef.Player", ""},
       {"demopepper", "", "/opt/usr/apps/demo.pepper/shared/res/", "", "", PEPPER_PLUGIN, 1,
        INSTALLED_BOTH_RO_RW, "Ab12Cd34Ef.Player, Gh56Ij78Kl.Viewer", "/usr/apps/demo.pepper/shared/res/"}});
  std::string text = "previous text";
  JsonUtil::ParseJsonToStr(document, text);

  EXPECT_EQ(text, R"({
	"forceupdate_webapi" : 
	{
		"pepper" : 
		[
			{
				"forceupdate" : true,
				"name" : "demopepper",
				"path" : "/opt/usr/apps/demo.pepper/shared/res/",
				"system" : true,
				"systempath" : "/usr/apps/demo.pepper/shared/res/"
			}
		],
		"xwalk" : 
		[
			{
				"entry_points" : 
				[
					"demo.alpha",
					"demo.beta"
				],
				"forceupdate" : false,
				"name" : "demoext",
				"path" : "/opt/usr/apps/demo.ext/shared/res/libdemoext.so",
				"system" : false,
				"systempath" : ""
			}
		]
	},
	"upgradable_webapi_applist" : 
	{
		"pepper" : 
		{
			"Ab12Cd34Ef.Player" : 
			[
				{
					"name" : "demopepper",
					"path" : "/opt/usr/apps/demo.pepper/shared/res/"
				}
			],
			"Gh56Ij78Kl.Viewer" : 
			[
				{
					"name" : "demopepper",
					"path" : "/opt/usr/apps/demo.pepper/shared/res/"
				}
			]
		},
		"xwalk" : 
		{
			"Ab12Cd34Ef.Player" : 
			[
				{
					"entry_points" : 
					[
						"demo.alpha",
						"demo.beta"
					],
					"name" : "demoext",
					"path" : "/opt/usr/apps/demo.ext/shared/res/libdemoext.so"
				}
			]
		}
	}
})");
  EXPECT_EQ(Terminated(), (Lines{"Ab12Cd34Ef.Player", "Ab12Cd34Ef.Player", "Gh56Ij78Kl.Viewer"}));
}

TEST_F(JsonDocumentTest, AllowListsAndEntryPointsAreSplitAtEveryComma) {
  const Json::Value document = Build({Record("pep", PEPPER_PLUGIN, INSTALLED_ONLY_RW, "a, b,,c,"),
                                      Record("ext", XWALK_PLUGIN, INSTALLED_ONLY_RW, "c", "x, y,,z,")});

  EXPECT_EQ(document["forceupdate_webapi"]["xwalk"][0]["entry_points"], Parse(R"(["x", " y", "", "z"])"));
  EXPECT_EQ(document["upgradable_webapi_applist"], Parse(R"({
      "pepper": {"a": [{"name": "pep", "path": "pep/"}], "b": [{"name": "pep", "path": "pep/"}],
                 "": [{"name": "pep", "path": "pep/"}], "c": [{"name": "pep", "path": "pep/"}]},
      "xwalk": {"c": [{"name": "ext", "path": "ext/", "entry_points": ["x", " y", "", "z"]}]}})"));
  EXPECT_EQ(Terminated(), (Lines{"a", "b", "", "c", "c"}));

  std::string text = "a \tb\n  c ";
  JsonUtil::m_RemoveAllSpaceChar(text);
  EXPECT_EQ(text, "a\tb\nc");
}

TEST_F(JsonDocumentTest, KindsAndInstallLocationsDecideWhatIsListed) {
  _PluginData odd = Record("odd", XWALK_PLUGIN, 99, "shared.app");
  odd.hasForceMetaData = 2;
  const Json::Value document = Build({Record("b2b", B2B_PEPPER_PLUGIN, INSTALLED_ONLY_RW, "shared.app"),
                                      Record("ro", PEPPER_PLUGIN, INSTALLED_ONLY_RO, "ro.app"),
                                      Record("nolist", PEPPER_PLUGIN, INSTALLED_ONLY_RW, ""),
                                      Record("unknown", UNKNOWN_PLUGIN, INSTALLED_ONLY_RW, "u1,u2"),
                                      Record("blank", PEPPER_PLUGIN, INSTALLED_ONLY_RW, "   "), odd,
                                      Record("pep", PEPPER_PLUGIN, INSTALLED_BOTH_RO_RW, "shared.app")});

  EXPECT_EQ(document, Parse(R"({"forceupdate_webapi": {
      "pepper": [{"name": "b2b", "path": "b2b/", "forceupdate": false, "systempath": "", "system": false},
                 {"name": "ro", "path": "ro/", "forceupdate": false, "systempath": "", "system": true},
                 {"name": "nolist", "path": "nolist/", "forceupdate": false, "systempath": "", "system": false},
                 {"name": "blank", "path": "blank/", "forceupdate": false, "systempath": "", "system": false},
                 {"name": "pep", "path": "pep/", "forceupdate": false, "systempath": "", "system": true}],
      "xwalk": [{"name": "odd", "path": "odd/", "forceupdate": false, "systempath": "", "system": true}]},
    "upgradable_webapi_applist": {
      "pepper": {"shared.app": [{"name": "b2b", "path": "b2b/"}, {"name": "pep", "path": "pep/"}]},
      "xwalk": {"shared.app": [{"name": "odd", "path": "odd/"}]}}})"));
  EXPECT_EQ(Terminated(), (Lines{"shared.app", "u1", "u2", "shared.app", "shared.app"}));
  EXPECT_TRUE(wup_test::LogHas("[ro]app whitelist empty OR Only RO TPK,ignore its applist value!"));
  EXPECT_TRUE(wup_test::LogHas("[nolist]app whitelist empty OR Only RO TPK,ignore its applist value!"));
}

}  // namespace
