// JsonUtil: builds the upgrade result document from plug-in records and serialises it with JsonCpp's
// default writer. While it walks a record's allow-list it asks the application service to terminate
// each listed application that is not in the foreground. Stateless: static members only; exceptions
// from JsonCpp, the standard library or the guard pass through to the caller.
#ifndef WEBAPI_UPGRADE_PLUGIN_JSON_UTIL_H_
#define WEBAPI_UPGRADE_PLUGIN_JSON_UTIL_H_

#include <string>

#include "PluginCommon.h"

namespace Json {
class Value;
}

class JsonUtil {
 public:
  // Adds `record` to `document`: its plug-in entry by kind, and one application entry per allow-listed
  // application id (terminating each background application on the way).
  static void MakeUpgradeWebapiJson(Json::Value& document, _PluginData& record);
  // The same document, built without terminating any application: what the result file should read,
  // for comparing it with the file as it is.
  static void MakeExpectedWebapiJson(Json::Value& document, _PluginData& record);
  // Replaces `text` with the document as the default StreamWriterBuilder writes it.
  static void ParseJsonToStr(Json::Value& document, std::string& text);

  // Removes every blank (0x20 only) from `text`.
  static void m_RemoveAllSpaceChar(std::string& text);
  // Terminates `appId` unless it is the foreground application; does nothing when the foreground
  // cannot be determined.
  static void m_TerminateBGApp(const std::string& appId);
};

#endif  // WEBAPI_UPGRADE_PLUGIN_JSON_UTIL_H_
