// The upgrade result document built from fuzzed plug-in records (names, paths, entry points, allow-lists
// with commas and spaces, any kind, location and force value), as the result file writer builds it: one
// MakeUpgradeWebapiJson per record in map order, then ParseJsonToStr. The text must read back as JSON
// with one plug-in entry per record of a known kind, and the guard must run exactly once for every
// allow-listed id of every record that passes the allow-list gate.
//
// Input layout (FuzzedDataProvider): per record, the texts name, path, entry points, allow-list and
// system path from the front; kind, location and force codes from the back.
#include <fuzzer/FuzzedDataProvider.h>
#include <json/json.h>
#include <vex_app_service.h>

#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <sstream>

#include "JsonUtil.h"
#include "fuzz_support.h"

namespace {

const std::string kForeground = "Fg.App";
int terminations = 0;

// Mostly one of the meaningful codes, sometimes any 32-bit value.
int32_t ConsumeCode(FuzzedDataProvider& in, std::initializer_list<int32_t> codes) {
  if (in.ConsumeBool()) return in.ConsumeIntegral<int32_t>();
  return *(codes.begin() + in.ConsumeIntegralInRange<size_t>(0, codes.size() - 1));
}

_PluginData ConsumeRecord(FuzzedDataProvider& in) {
  _PluginData record;
  record.name = in.ConsumeRandomLengthString(32);
  record.path = in.ConsumeRandomLengthString(64);
  record.entryPoints = in.ConsumeRandomLengthString(64);
  record.appWhiteList = in.ConsumeRandomLengthString(128);
  record.systemPath = in.ConsumeRandomLengthString(64);
  record.pluginType = static_cast<PLUGIN_TYPE>(
      ConsumeCode(in, {XWALK_PLUGIN, PEPPER_PLUGIN, B2B_PEPPER_PLUGIN, UNKNOWN_PLUGIN}));
  record.isUpdate = ConsumeCode(in, {INSTALLED_ONLY_RO, INSTALLED_ONLY_RW, INSTALLED_BOTH_RO_RW});
  record.hasForceMetaData = ConsumeCode(in, {0, 1});
  return record;
}

// The application ids that the guard must be asked about: spaces dropped, cut at commas, empty ids
// kept, nothing after a trailing comma.
std::vector<std::string> GuardedIds(const _PluginData& record) {
  std::vector<std::string> ids;
  if (record.appWhiteList.empty() || record.isUpdate == INSTALLED_ONLY_RO) return ids;
  std::string list = record.appWhiteList;
  list.erase(std::remove(list.begin(), list.end(), ' '), list.end());
  for (size_t start = 0; start < list.size();) {
    const size_t comma = std::min(list.find(',', start), list.size());
    ids.push_back(list.substr(start, comma - start));
    start = comma + 1;
  }
  return ids;
}

Json::ArrayIndex EntriesOf(const Json::Value& document, const char* kind) {
  const Json::Value& group = document["forceupdate_webapi"];
  return group.isObject() ? group[kind].size() : 0;
}

}  // namespace

// The application service, in memory (an allow-list may name hundreds of applications, and the host
// stand-in reads and writes a file for each): kForeground is shown, never a null id; terminations are
// counted.
extern "C" int vex_get_current_showing_app(char** appid) {
  *appid = strdup(kForeground.c_str());
  return 0;
}

extern "C" int vex_get_app_info(const char* appid, vex_app_info_t* info) {
  std::memset(info, 0, sizeof *info);
  std::strncpy(info->bytes + VEX_APP_INFO_APPID_OFFSET, appid,
               VEX_APP_INFO_SIZE - VEX_APP_INFO_APPID_OFFSET - 1);
  return 0;
}

extern "C" int vex_terminate_app(const char*) {
  ++terminations;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  PluginDataMap map;
  for (int count = in.ConsumeIntegralInRange(0, 6); count > 0; --count) {
    _PluginData record = ConsumeRecord(in);
    map.insert(std::make_pair(record.name, record));
  }

  terminations = 0;
  wup_fuzz::ResetLog();
  Json::Value document(Json::nullValue);
  std::string text;
  try {
    for (auto& entry : map) JsonUtil::MakeUpgradeWebapiJson(document, entry.second);
    JsonUtil::ParseJsonToStr(document, text);
  } catch (const std::exception& error) {
    wup_fuzz::Fail(std::string("exception left the document builder: ") + error.what());
  }

  std::istringstream stream(text);
  Json::Value reread;
  std::string errors;
  if (!Json::parseFromStream(Json::CharReaderBuilder(), stream, &reread, &errors)) {
    wup_fuzz::Fail("the result text does not read back: " + errors);
  }
  Json::ArrayIndex xwalk = 0, pepper = 0;
  int guarded = 0, spared = 0;
  for (const auto& entry : map) {
    const _PluginData& record = entry.second;
    xwalk += record.pluginType == XWALK_PLUGIN;
    pepper += record.pluginType == PEPPER_PLUGIN || record.pluginType == B2B_PEPPER_PLUGIN;
    const std::vector<std::string> ids = GuardedIds(record);
    guarded += static_cast<int>(ids.size());
    spared += static_cast<int>(std::count(ids.begin(), ids.end(), kForeground));
  }
  if (EntriesOf(reread, "xwalk") != xwalk || EntriesOf(reread, "pepper") != pepper) {
    wup_fuzz::Fail("plug-in entries do not match the records' kinds");
  }
  if (wup_fuzz::LoggedLines("%s is at foreground") != spared || terminations != guarded - spared) {
    wup_fuzz::Fail("guard calls: " + std::to_string(terminations) + " terminated, expected " +
                   std::to_string(guarded - spared));
  }
  return 0;
}
