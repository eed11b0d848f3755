// PluginHandler: carries one package through the plug-in. For an installed or upgraded package it
// compares the package version with the recorded one, stores the package's records and rebuilds the
// result file; for an uninstalled package it removes the plug-in's record and rebuilds the result file.
//
// Its map mirrors the database as of construction or the last rewrite; it is used only to look up the
// version recorded for a plug-in and to feed the result file.
#ifndef WEBAPI_UPGRADE_PLUGIN_HANDLER_H_
#define WEBAPI_UPGRADE_PLUGIN_HANDLER_H_

#include <string>

#include "PluginCommon.h"

class PluginHandler {
 public:
  PluginHandler();
  ~PluginHandler();

  void HandleSingleTpk(const char* pkgid);
  void RemoveTpk(const char* pkgid);

  // Steps of the operations above, public so that each can be driven on its own.
  bool m_checkTpk(std::string& pkgid, std::string& tpkVersion);
  bool m_RewriteJson();
  // Hardened build: true unless the result file differs from the document the records give.
  bool m_ResultMatchesRecords();
  // Hardened build: once the open check had to start an empty database, stores again every installed
  // package that carries the plug-in's type key, but `current`, the package of the call at hand (an
  // install stores it next, an uninstall removes it). True when the records had been lost.
  bool m_RebuildLostRecords(const std::string& current);

 private:
  bool m_RemovePackageRecords(const std::string& pkgid, const std::string& name);

  PluginDataMap m_pluginMap;
};

#endif  // WEBAPI_UPGRADE_PLUGIN_HANDLER_H_
