#include "JsonUtil.h"

#include <json/json.h>
#include <vex_app_service.h>

#include <cstdlib>
#include <memory>
#include <sstream>
#include <utility>

namespace {

// Set while a document is built only to be compared with the result file: nothing is terminated then.
bool g_comparingOnly = false;

struct FreeDeleter {
  void operator()(char* text) const { std::free(text); }
};
using ServiceText = std::unique_ptr<char, FreeDeleter>;

// The web runtime reads entry points exactly as they were joined: pieces are neither trimmed nor
// dropped, only a trailing comma yields nothing.
void AppendEntryPoints(Json::Value& entry, const std::string& entryPoints) {
  std::istringstream pieces(entryPoints);
  for (std::string piece; std::getline(pieces, piece, ',');) {
    entry["entry_points"].append(Json::Value(piece));
  }
}

Json::Value MakePluginEntry(const _PluginData& record) {
  Json::Value entry(Json::nullValue);
  entry["name"] = Json::Value(record.name);
  entry["path"] = Json::Value(record.path);
  entry["forceupdate"] = Json::Value(record.hasForceMetaData == 1);
  entry["systempath"] = Json::Value(record.systemPath);
  entry["system"] = Json::Value(record.isUpdate != INSTALLED_ONLY_RW);
  return entry;
}

// The runtime does not tell b2b pepper plug-ins apart from pepper ones; unknown kinds are not listed.
void AddPluginEntry(Json::Value& document, const _PluginData& record) {
  Json::Value entry = MakePluginEntry(record);
  switch (record.pluginType) {
    case PEPPER_PLUGIN:
    case B2B_PEPPER_PLUGIN:
      document["forceupdate_webapi"]["pepper"].append(std::move(entry));
      break;
    case XWALK_PLUGIN:
      AppendEntryPoints(entry, record.entryPoints);
      document["forceupdate_webapi"]["xwalk"].append(std::move(entry));
      break;
    default:
      break;
  }
}

void AddApplicationEntry(Json::Value& document, const _PluginData& record, const std::string& appId) {
  Json::Value entry(Json::nullValue);
  entry["name"] = Json::Value(record.name);
  entry["path"] = Json::Value(record.path);
  switch (record.pluginType) {
    case PEPPER_PLUGIN:
    case B2B_PEPPER_PLUGIN:
      document["upgradable_webapi_applist"]["pepper"][appId].append(std::move(entry));
      break;
    case XWALK_PLUGIN:
      AppendEntryPoints(entry, record.entryPoints);
      document["upgradable_webapi_applist"]["xwalk"][appId].append(std::move(entry));
      break;
    default:
      break;
  }
}

}  // namespace

void JsonUtil::MakeUpgradeWebapiJson(Json::Value& document, _PluginData& record) {
  AddPluginEntry(document, record);

  // A plug-in only in the system image is not upgraded, so its applications keep the built-in one.
  if (record.appWhiteList.empty() || record.isUpdate == INSTALLED_ONLY_RO) {
    PLUGIN_LOG("[%s]app whitelist empty OR Only RO TPK,ignore its applist value!", record.name.c_str());
    return;
  }

  std::string whiteList = record.appWhiteList;
  PLUGIN_LOG("strWhiteList = %s", whiteList.c_str());
  m_RemoveAllSpaceChar(whiteList);
  PLUGIN_LOG("remove space char, strWhiteList = %s", whiteList.c_str());

  // Empty ids between commas are kept: an application entry is published under the empty id as well.
  while (!whiteList.empty()) {
    const std::string appId = whiteList.substr(0, whiteList.find(','));
    PLUGIN_LOG("pluginname:[%s]tizenid:[%s]", record.name.c_str(), appId.c_str());
    // A running application keeps the plug-in it loaded; it must restart to pick up the upgrade.
    if (!g_comparingOnly) m_TerminateBGApp(appId);
    AddApplicationEntry(document, record, appId);
    whiteList.erase(0, appId.size() + 1);
  }
}

void JsonUtil::MakeExpectedWebapiJson(Json::Value& document, _PluginData& record) {
  struct ComparingOnly {
    ComparingOnly() { g_comparingOnly = true; }
    ~ComparingOnly() { g_comparingOnly = false; }
  } comparing;
  MakeUpgradeWebapiJson(document, record);
}

void JsonUtil::ParseJsonToStr(Json::Value& document, std::string& text) {
  // The runtime's reader is tested against the default layout; nothing here may change it.
  Json::StreamWriterBuilder builder;
  std::unique_ptr<Json::StreamWriter> writer(builder.newStreamWriter());
  std::ostringstream out;
  writer->write(document, &out);
  text = out.str();
}

void JsonUtil::m_RemoveAllSpaceChar(std::string& text) {
  for (size_t pos = text.find(' '); pos != std::string::npos; pos = text.find(' ')) {
    text.erase(pos, 1);
  }
}

void JsonUtil::m_TerminateBGApp(const std::string& appId) {
  char* shown = nullptr;
  if (vex_get_current_showing_app(&shown) != 0) {
    PLUGIN_LOG("vex_get_current_showing_app failed");
    return;
  }
  const ServiceText shownText(shown);
  // A null id after a successful query is not expected from the service; the string copy raises
  // std::logic_error for it, and that error is deliberately left to pass out of the rebuild.
  const std::string foreground(shownText.get());

  if (!foreground.empty()) {
    vex_app_info_t info;  // filled by the service; only the id field is read
    if (vex_get_app_info(foreground.c_str(), &info) != 0) {
      PLUGIN_LOG("vex_get_app_info failed");
      return;
    }
    if (appId == info.bytes + VEX_APP_INFO_APPID_OFFSET) {
      PLUGIN_LOG("%s is at foreground", appId.c_str());
      return;
    }
  }

  PLUGIN_LOG("appId is empty");
  if (vex_terminate_app(appId.c_str()) == 0) {
    PLUGIN_LOG("vex_terminate_app [%s] success", appId.c_str());
  } else {
    PLUGIN_LOG("vex_terminate_app [%s] fail", appId.c_str());
  }
}
