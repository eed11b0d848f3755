// The package manager's calls: each input is a short sequence of INSTALL, UPGRADE and UNINSTALL calls,
// each with a package id (a plug-in package placed on the device, or any text; never null, which the
// plug-in leaves to throw), an application id (null allowed) and a metadata list whose nodes may lack an
// item, a key or a value, and whose keys are the plug-in's, near misses of its type key, or any text.
// Every call must return 0 with no exception, the handler must be created exactly for the install and
// upgrade calls whose list holds the exact type key, and the result file must stay a whole JSON document.
//
// Every input starts from the same device (database pair and result file restored, instances destroyed
// after the previous one), so that a finding replays alone; within an input the instances live on, as in
// one package manager run.
#include <fuzzer/FuzzedDataProvider.h>
#include <json/json.h>
#include <unistd.h>

#include <cstring>
#include <optional>
#include <sstream>

#include "DBUtil.h"
#include "PluginDataUtil.h"
#include "PluginHandler.h"
#include "VersionSqliteDB.h"
#include "WebapisUtil.h"
#include "fuzz_support.h"
#include "hostkit/plugin_call.h"
#include "plugin_parser_interface.h"

namespace {

using Text = std::optional<std::string>;
using hostkit::EntryPoint;

struct PlacedPackage {
  const char* pkgid;
  const char* kind;
  const char* appList;
  bool writable, readOnly, recordedAtStart;
};

// A pepper update of nothing, a b2b update of a preloaded package, an xwalk package with two extensions,
// a preloaded-only pepper and a package of an unknown kind; two of them recorded before every input.
const PlacedPackage kPackages[] = {
    {"com.korvane.tv.pepper.fzplayer", "pepperplugin", "Fz.One, Fz.Two", true, false, false},
    {"com.korvane.tv.pepper.fzsign", "b2bpepperplugin", "Fz.Two,,Fg.App", true, true, true},
    {"com.korvane.tv.xwalk.fzinfo", "xwalkplugin", "Fz.Three", true, false, true},
    {"com.korvane.tv.pepper.fzro", "pepperplugin", "Fz.One", false, true, false},
    {"com.korvane.tv.pepper.fzodd", "oddplugin", "Fz.One", true, false, false},
};
const char kDescription[] =
    R"([{"name":"fz.info","lib":"libfzinfo.so","version":"1.0.0","entry_points":["fz.a","fz.b"]},)"
    R"({"name":"fz.more","lib":"/usr/lib/libfzmore.so"}])";

// The files an input may change, with their content at the start of every input.
struct Snapshot {
  std::string database, backup, result;
};
Snapshot start;

void PlaceCopy(const PlacedPackage& package, const std::string& manifests, const std::string& apps) {
  hostkit::WriteManifest(manifests, package.pkgid, "1.0.0", {package.pkgid},
                         {{strMETADATA_TYPE_KEY, package.kind}, {strMETADATA_APPLIST_KEY, package.appList}});
  const std::string res = apps + "/" + package.pkgid + "/shared/res/";
  hostkit::MakeDirs(res);
  if (std::strcmp(package.kind, "xwalkplugin") == 0) hostkit::WriteFile(res + "fzinfo.json", kDescription);
}

void Place(const PlacedPackage& package) {
  const hostkit::Layout& device = wup_fuzz::Device();
  if (package.writable) PlaceCopy(package, device.rwPackages, device.rwApp);
  if (package.readOnly) PlaceCopy(package, device.roPackages, device.roApp);
}

void DestroyInstances() {
  CSingleton<PluginHandler>::DestroyInstance();
  CSingleton<DBUtil>::DestroyInstance();
  CSingleton<VersionSqliteDB>::DestroyInstance();
  CSingleton<PluginDataUtil>::DestroyInstance();
  CSingleton<WebapisUtil>::DestroyInstance();
}

void RestoreDevice() {
  DestroyInstances();
  hostkit::RemoveTree(wup_fuzz::Device().db);  // journals and staging files go with their directories
  hostkit::RemoveTree(strRESULT_DIR);
  hostkit::MakeDirs(wup_fuzz::Device().db);
  hostkit::MakeDirs(strRESULT_DIR);
  hostkit::WriteFile(strVERSION_DB, start.database);
  hostkit::WriteFile(strVERSION_DB_BAKUP, start.backup);
  hostkit::WriteFile(strRESULT_FILE, start.result);
  unlink(wup_fuzz::Device().TerminatedFile().c_str());
}

Text ConsumeKey(FuzzedDataProvider& in) {
  std::string key = strMETADATA_TYPE_KEY;
  switch (in.ConsumeIntegralInRange(0, 6)) {
    case 0:
      return std::nullopt;
    case 1:
      return key;
    case 2:  // a prefix
      key.resize(in.ConsumeIntegralInRange<size_t>(0, key.size() - 1));
      return key;
    case 3:  // something after it
      return key + in.ConsumeRandomLengthString(8);
    case 4:  // one byte off, often only its case
      key[in.ConsumeIntegralInRange<size_t>(0, key.size() - 1)] ^=
          in.ConsumeBool() ? 0x20 : in.ConsumeIntegral<char>();
      return key;
    case 5:
      return in.ConsumeBool() ? strMETADATA_APPLIST_KEY : strMETADATA_FORCE_KEY;
    default:
      return in.ConsumeRandomLengthString(64);
  }
}

Text ConsumeValue(FuzzedDataProvider& in) {
  switch (in.ConsumeIntegralInRange(0, 3)) {
    case 0:
      return std::nullopt;
    case 1:
      return std::string();
    case 2:
      return std::string(in.PickValueInArray(kPackages).kind);
    default:
      return in.ConsumeRandomLengthString(64);
  }
}

const char* CString(const Text& text) { return text ? text->c_str() : nullptr; }

// One call of an entry point with a list built the way the package manager builds it; true when the
// list holds the exact type key, which is what selects the package.
struct Call {
  EntryPoint entry;
  std::string pkgid;
  Text appid;
  std::vector<std::optional<std::pair<Text, Text>>> items;  // nullopt: a node without an item

  bool Selects() const {
    for (const auto& item : items) {
      if (item && item->first && std::strcmp(item->first->c_str(), strMETADATA_TYPE_KEY.c_str()) == 0)
        return true;
    }
    return false;
  }

  int Run() const {
    hostkit::MetadataNodes nodes;
    for (const auto& item : items) {
      nodes.push_back(item ? hostkit::MetadataNode({CString(item->first), CString(item->second)})
                           : std::nullopt);
    }
    return hostkit::CallEntryPoint(entry, pkgid.c_str(), CString(appid), nodes);
  }
};

Call ConsumeCall(FuzzedDataProvider& in) {
  Call call;
  call.entry = in.PickValueInArray<EntryPoint>(
      {PKGMGR_MDPARSER_PLUGIN_INSTALL, PKGMGR_MDPARSER_PLUGIN_UPGRADE, PKGMGR_MDPARSER_PLUGIN_UNINSTALL});
  call.pkgid = in.ConsumeBool() ? in.PickValueInArray(kPackages).pkgid : in.ConsumeRandomLengthString(48);
  if (in.ConsumeBool()) call.appid = in.ConsumeBool() ? call.pkgid : in.ConsumeRandomLengthString(48);
  for (int count = in.ConsumeIntegralInRange(0, 5); count > 0; --count) {
    if (in.ConsumeIntegralInRange(0, 7) == 0) {
      call.items.emplace_back();
    } else {
      Text key = ConsumeKey(in);
      call.items.emplace_back(std::make_pair(std::move(key), ConsumeValue(in)));
    }
  }
  return call;
}

bool IsJsonDocument(const std::string& text) {
  std::istringstream stream(text);
  Json::Value document;
  return !text.empty() && Json::parseFromStream(Json::CharReaderBuilder(), stream, &document, nullptr);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  hostkit::WriteFile(wup_fuzz::Device().ForegroundFile(), "Fg.App");
  for (const PlacedPackage& package : kPackages) Place(package);
  for (const PlacedPackage& package : kPackages) {
    if (!package.recordedAtStart) continue;
    Call install{PKGMGR_MDPARSER_PLUGIN_INSTALL, package.pkgid, std::string(package.pkgid), {}};
    install.items.emplace_back(std::make_pair(Text(strMETADATA_TYPE_KEY), Text(package.kind)));
    install.Run();
  }
  DestroyInstances();
  start = {hostkit::ReadFile(strVERSION_DB), hostkit::ReadFile(strVERSION_DB_BAKUP),
           hostkit::ReadFile(strRESULT_FILE)};
  if (start.database.empty() || !IsJsonDocument(start.result))
    wup_fuzz::Fail("the starting device was not set up");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  wup_fuzz::ResetLog();
  bool changed = false;
  int selecting = 0;
  for (int count = in.ConsumeIntegralInRange(1, 3); count > 0; --count) {
    const Call call = ConsumeCall(in);
    changed = changed || call.Selects();
    selecting += call.entry != PKGMGR_MDPARSER_PLUGIN_UNINSTALL && call.Selects();
    try {
      if (call.Run() != 0) wup_fuzz::Fail("an entry point returned non-zero");
    } catch (const std::exception& error) {
      wup_fuzz::Fail(std::string("exception left an entry point: ") + error.what());
    }
  }
  if (wup_fuzz::LoggedLines("create instance") != selecting) {
    wup_fuzz::Fail("the handler ran for " + std::to_string(wup_fuzz::LoggedLines("create instance")) +
                   " calls, expected " + std::to_string(selecting));
  }
  if (!IsJsonDocument(hostkit::ReadFile(strRESULT_FILE)))
    wup_fuzz::Fail("the result file is not a whole document");
  // Restored before the input ends, so that the instances it created do not count as its leaks. A call
  // whose list selects no package changes nothing.
  if (changed) RestoreDevice();
  return 0;
}
