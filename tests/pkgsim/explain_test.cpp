// pkgsim's reading of the plug-in's log: each text it reads stands in the function of the plug-in's sources
// that logs it (a changed log line breaks here rather than silently dropping a note), and each note it can
// give is drawn from the log lines that give it, read back from a log file.
#include "explain.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>

#include "installer.h"
#include "sandbox.h"

namespace pkgsim {
namespace {

using Lines = std::vector<std::string>;

// The format strings of the PLUGIN_LOG calls in `dir`, each with the function it is in, as the log shows
// them (escapes read, adjacent literals joined, trailing line feeds dropped). The product's style indents
// every line inside a function: a function begins at the last line that starts with a name and a '('.
std::vector<std::pair<std::string, std::string>> LogCalls(const std::string& dir) {
  std::vector<std::pair<std::string, std::string>> calls;
  for (const auto& source : std::filesystem::directory_iterator(dir)) {
    if (source.path().extension() != ".cpp") continue;
    const std::string text = wup_test::ReadFile(source.path().string());
    std::istringstream lines(text);
    std::string function;
    std::size_t offset = 0;
    for (std::string line; std::getline(lines, line); offset += line.size() + 1) {
      std::size_t open = line.find('('), name = open;
      if (open != std::string::npos && open > 0 && std::strchr(" }#/", line[0]) == nullptr) {
        while (name > 0 &&
               (std::isalnum(static_cast<unsigned char>(line[name - 1])) || line[name - 1] == '_'))
          --name;
        function = line.substr(name, open - name);
      }
      if ((open = line.find("PLUGIN_LOG(")) == std::string::npos) continue;
      std::string format;
      for (std::size_t at = offset + open + 11;
           (at = text.find_first_not_of(" \t\n", at)) != std::string::npos && text[at] == '"'; ++at) {
        for (++at; text[at] != '"'; ++at) {
          const bool escaped = text[at] == '\\';  // \n, \" or \\ in the formats
          format += escaped && text[++at] == 'n' ? '\n' : text[at];
        }
      }
      while (!format.empty() && format.back() == '\n') format.pop_back();
      calls.emplace_back(function, format);
    }
  }
  return calls;
}

TEST(LogTextsTest, EveryTextPkgsimReadsIsLoggedByItsFunction) {
  const char* dir = std::getenv("PKGSIM_PRODUCT_SOURCES");  // a scratch copy, to watch this test fail
  const auto calls = LogCalls(dir != nullptr ? dir : PKGSIM_PRODUCT_SOURCES);
  ASSERT_GT(calls.size(), 100u);
  for (const LogPattern& pattern : LogPatterns()) {
    EXPECT_EQ(std::strchr(pattern.text, '%'), nullptr) << pattern.text << ": only literal parts are read";
    EXPECT_TRUE(std::any_of(calls.begin(), calls.end(),
                            [&](const auto& call) {
                              return (*pattern.function == '\0' || call.first == pattern.function) &&
                                     pattern.Fits(call.second);
                            }))
        << "no PLUGIN_LOG in " << pattern.function << " logs \"" << pattern.text << "\"";
  }
}

// clang-format off
const std::string kPackage = "com.korvane.tv.pepper.mp";
const std::string kItem = "[" + kPackage + "]key:[" + kTypeKey + "]value:[";
enum Flags { kNoDatabase = 1, kResultMissing = 2, kRewritten = 4, kUninstall = 8, kElsewhere = 16,
  kCased = 32, kForUser = 64, kHardened = 128 };
// clang-format on

// The records of a snapshot: "name" or "name:isUpdate", all of the call's package.
PluginRows Rows(const Lines& records) {
  PluginRows rows;
  for (const std::string& record : records) {
    const std::string name = record.substr(0, record.find(':'));
    rows[name][kName] = name;
    rows[name][kPkgid] = kPackage;
    rows[name][kLocation] = record.size() > name.size() ? record.substr(name.size() + 1) : "1";
  }
  return rows;
}
std::string Restored(const std::string& why) {
  return "warning: the database was damaged (" + why + "): the plug-in restored it from its backup";
}

// The notes of one call each: "warning: " and "refusal: " mark their kinds. Flags: the database or the
// result file missing before the call, the result file rewritten by it, an uninstall, the items on an
// application that the package id does not name, their key differing from the plug-in's in case, the
// package installed for user 5001 only, the hardened build called.
TEST(ExplainTest, EachNoteComesFromTheLogLinesThatGiveIt) {
  // clang-format off
  const std::string name = "GetPluginNameByID > pluginName[mp]", no = "refusal: not stored: ",
      type = "GetPluginType > [" + kPackage + "] type is [", nothing = no + "the plug-in stored nothing";
  const std::string backup = "m_versionCpBakUp > Backup versionDB.",
      checked = "m_validCheck > valid check failed, integrity_verify[",
      tables = "], version table check[0], plugin table check[0]",
      broken = " > .AppBinaryManager.db is broken! Recover .AppBinaryManager.db from "
          ".AppBinaryManager_Backup.db",
      integrity = "fails SQLite's integrity check", busy = "busy: another process held it",
      recovered = "warning: a database statement failed: the plug-in restored the database from its backup "
          "and tried again";
  const std::string publish = "MakeUpgradeWebapiJson > pluginname:[", guard = "m_TerminateBGApp > ",
      unused = "]app whitelist empty OR Only RO TPK,ignore its applist value!",
      unread = "warning: the package's version cannot be read: the plug-in goes on with 0.0.0",
      cleared = "m_RewriteJson > update fail!clear DB for next boot";
  const std::string same = "m_checkTpk > tpkVersion[1.2.0], localVersion[1.2.0]",
      one = "InsertPluginDataList > insert into pluginTable ",
      removedBy = "DeletePackageData > remove the records of [", rebuild = "m_RebuildLostRecords > rebuild pkgid = [",
      lost = "m_RebuildLostRecords > both database files were damaged: rebuild the records from the installed "
          "packages";
  struct Case {
    int flags;
    Lines before, after;  // records
    Lines log;            // "FUNCTION > MESSAGE"
    Lines notes;
  };
  std::vector<Case> cases = {
      {0, {}, {}, {"m_validCheck > Database /opt/dbspace/.AppBinaryManager.db is not exist", backup,
          "m_validCheck > database /opt/dbspace/.AppBinaryManager.db's size is 0", backup,
          "m_validCheck > Failed to open database [/opt/dbspace/.AppBinaryManager.db], errcode [26].", backup,
          "m_validCheck > valid check, dbPath : [/db], PRAGMA integrity_check error: [26]", backup,
          "m_validCheck > database integrity_check failed with error 11!", backup,
          "m_validCheck > table not exist with r:11!", checked + "1" + tables, backup,
          checked + "1], version table check[1], plugin table check[0]", backup, checked + "0" + tables,
          backup, "callback_db > database is lock now,can not write/read.count is [2]",
          checked + "0" + tables,
          backup,
          "m_validCheck > sqlite3 busy, wait 1 sec and try again. count is 0", checked + "0" + tables, backup,
          backup, "m_openDBCheck > db valid check pass"},
       {Restored("missing"), Restored("an empty file"), Restored("cannot be opened"), Restored(integrity),
          Restored(integrity), Restored("its tables cannot be listed"), Restored("lacks its tables"),
          Restored(integrity), Restored(busy), Restored(busy), nothing}},
      {kNoDatabase, {}, {}, {"m_validCheck > Database /db is not exist",
          "m_validCheck > Database /bak is not exist",
          "m_openDBCheck > db and backup db are not valid, now create db", backup},
       {"no database yet: the plug-in created an empty one", nothing}},
      {0, {}, {}, {"m_validCheck > database /db's size is 0", "m_validCheck > database /bak's size is 0",
          "m_openDBCheck > db and backup db are not valid, now create db", "m_getPluginDataFromPluginTable" +
          broken, backup, "m_versionCpBakUp > The copy Size is [0], invalid!", "m_recoverDBExecute" + broken},
       {"warning: the database (an empty file) and its backup were not valid: the plug-in deleted it and "
          "created an empty one; every record it held is gone", recovered, "warning: a database copy found "
          "its source empty and left its destination truncated", recovered, nothing}},
      {kElsewhere, {}, {}, {"GetPluginType > get plugin type fail!", "HandleSingleTpk > check[x]fail"},
       {no + "the plug-in reads the kind from the application whose id is the package id, and the package "
          "has no application " + kPackage + " (the metadata is on x.settings)"}},
      {0, {}, {}, {"m_CheckTPKByMetadata > [" + kPackage + "] NO <" + kTypeKey + "> metadata",
          "GetPluginType > get plugin type fail!"},
       {no + "application " + kPackage + " has no " + kTypeKey + " metadata"}},
      {0, {}, {}, {"GetPluginType > get plugin type fail!"},
       {no + "the kind of " + kPackage + " cannot be read"}},
      {kForUser, {}, {}, {"GetPluginType > get plugin type fail!"}, {no + "installed for user 5001 only: the "
          "installer runs the plug-in as root, for which the package-information service does not list "
          "per-user packages, so the plug-in found no such application"}},
      {kForUser, {}, {}, {"m_CheckTPKByMetadata > [" + kPackage + "] NO <" + kTypeKey + "> metadata",
          "GetPluginType > get plugin type fail!"},
       {no + "application " + kPackage + " has no " + kTypeKey + " metadata"}},
      {0, {}, {}, {"m_CheckTPKByMetadata > " + kItem + "pepper]", type + "99]"},
       {no + "kind \"pepper\" is none of pepperplugin, b2bpepperplugin, xwalkplugin"}},
      {0, {}, {}, {"GetPluginNameByID > invalid pkgid:[x]"},
       {no + "the package id has neither \"pepper.\" nor \"xwalk.\" in it, so it names no plug-in"}},
      {0, {}, {}, {"GetPluginNameByID > get plugin name fail"},
       {no + "nothing follows \"pepper.\" or \"xwalk.\" in the package id: the plug-in name would be empty"}},
      {0, {}, {}, {"m_checkTpk > empty params"}, {no + "the package has no version"}},
      {0, {}, {}, {"HandleSingleTpk > check[x]fail"}, {no + "the plug-in's check of the package failed"}},
      {0, {}, {}, {"m_checkTpk > Get the inserted list fail"},
       {no + "the records cannot be built: the package's root path is unknown"}},
      {0, {}, {}, {"GetTPKVersionByID > get [x] version fail!!"}, {unread, nothing}},
      {kResultMissing | kRewritten, {}, {}, {"GetTPKVersionByID > get [x] info fail!!",
          "m_CheckTPKByMetadata > " + kItem + "pepperplugin]", type + "1]", name,
          "m_checkTpk > tpkVersion[0.0.0], localVersion[0.0.0]", "m_checkTpk > tpkVersion == localVersion"},
       {unread, "kind pepper (\"pepperplugin\"), plug-in name mp", no + "version 0.0.0 is what the plug-in "
          "assumes for a plug-in it has no record of",
          "result file rewritten from 0 records (it was missing)"}},
      {kRewritten, {"mp"}, {"mp"}, {"m_checkTpk > tpkVersion[1.2.0], localVersion[1.2.0]",
          "m_checkTpk > tpkVersion == localVersion"}, {no + "version 1.2.0 equals the recorded one",
          "result file rewritten from 1 record (a rewrite was still pending in this process)"}},
      {kRewritten, {"mp"}, {"mp"}, {type + "1]", name, "m_checkTpk > tpkVersion[1.3.0], localVersion[1.2.0]",
          "m_GetRootPath > [x]'s root path:[/apps/mp]", "MakeInsertedMap > INSTALLED_ONLY_RW!",
          "m_checkTpk > insert new data:name[mp]version[1.3.0]path[]", publish + "mp]tizenid:[A.app]",
          guard + "vex_terminate_app [A.app] success", publish + "mp]tizenid:[B.app]",
          guard + "B.app is at foreground", publish + "mp]tizenid:[]",
          guard + "vex_get_current_showing_app failed",
          publish + "mp]tizenid:[C.app]", guard + "vex_get_app_info failed", publish + "mp]tizenid:[D.app]",
          guard + "vex_terminate_app [D.app] fail", publish + "tv]tizenid:[A.app]",
          guard + "vex_terminate_app [A.app] success", publish + "tv]tizenid:[E.app]",
          guard + "vex_terminate_app [E.app] success"},
       {"kind pepper (\"\"), plug-in name mp", "installed in the writable area only (isUpdate 1): /apps/mp",
          "stored mp: version 1.3.0 replaces the recorded 1.2.0", "result file rewritten from 1 record; each "
          "rewrite terminates the allow-listed applications of every record:",
          "  A.app terminated 2 times: allow-listed by mp, tv",
          "  B.app kept running: it is in the foreground (allow-listed by mp)",
          "  \"\" (an empty id, from a stray comma in an allow-list) not terminated: the foreground "
          "application could not be determined",
          "  C.app not terminated: the foreground application could not be determined",
          "  D.app not terminated: vex_terminate_app failed", "  E.app terminated: allow-listed by tv"}},
      {kRewritten, {}, {"mp:0"}, {type + "1]", name, "m_checkTpk > tpkVersion[1.0.0], localVersion[0.0.0]",
          "m_GetRootPath > [x]'s root path:[/ro/mp]", "MakeInsertedMap > INSTALLED_ONLY_RO!",
          "m_checkTpk > insert new data:name[mp]version[1.0.0]", "MakeUpgradeWebapiJson > [mp" + unused},
       {"kind pepper (\"\"), plug-in name mp", "installed in the read-only image only (isUpdate 0): /ro/mp",
          "allow-list of mp not used: it is in the read-only image only",
          "stored mp: version 1.0.0, no record of mp before", "result file rewritten from 1 record"}},
      {0, {}, {}, {type + "1]", name, "m_checkTpk > insert new data:name[mp]version[1.0.0]",
          "InsertPluginData > insert into pluginTable fail!!"},
       {"kind pepper (\"\"), plug-in name mp", "warning: storing mp failed: the database refused it",
          nothing}},
      // An xwalk package's records are named after the extensions that its description files describe.
      {kRewritten, {}, {"tv.audio:2"}, {type + "0]", name,
          "m_checkTpk > tpkVersion[2.0.1], localVersion[0.0.0]", "m_GetRootPath > [x]'s root path:[/apps/mp]",
          "MakeInsertedMap > INSTALLED_BOTH_RO_RW!", "GetXwalkInfo > GetXwalkInfo,path = /res/",
          "GetXwalkInfo > strFile = /res/a.json",
          "m_ParseXwalkJsonFile > m_ParseXwalkJsonFile, path = /res/a.json",
          "GetXwalkInfo > strFile = /res/b.json", "m_ParseXwalkJsonFile > open /res/b.json fail",
          "GetXwalkInfo > strFile = /res/c.json", "m_ParseXwalkJsonFile > file:[/res/c.json],err:[* Line 6, "
          "Column 1\n  Missing ',' or ']' in array declaration\n]", "GetXwalkInfo > strFile = /res/d.json",
          "m_ParseXwalkJsonFile > file:[/res/d.json] holds no array of extensions, skipped",
          "GetXwalkInfo > strFile = /res/e.json",
          "m_ParseXwalkJsonFile > file:[/res/e.json] element 2 is not an extension description, skipped",
          "m_checkTpk > insert new data:name[tv.audio]version[2.0.1]",
          "MakeUpgradeWebapiJson > [tv.audio" + unused},
       {"kind xwalk (\"\"), plug-in name mp",
          "installed in the writable area, over a preloaded copy (isUpdate 2): /apps/mp",
          "warning: e.json: element 2 is not an extension description, skipped", "read a.json, e.json",
          "warning: skipped b.json: it cannot be opened",
          "warning: skipped c.json: Line 6, Column 1: Missing ',' or ']' in array declaration",
          "warning: skipped d.json: it holds no array of extensions",
          "allow-list of tv.audio not used: it is empty", "stored tv.audio: version 2.0.1, compared with "
          "0.0.0 as no record is named mp: an xwalk "
          "package is stored again at every install", "result file rewritten from 1 record"}},
      {0, {}, {}, {type + "0]", name, "GetXwalkInfo > GetXwalkInfo,path = /res/"},
       {"kind xwalk (\"\"), plug-in name mp",
          no + "no description file of the package describes an extension"}},
      {0, {}, {}, {type + "0]", name, "MakeInsertedMap > get xwalk extension info fail, path = /res/",
          "m_checkTpk > Get the inserted list fail"},
       {"kind xwalk (\"\"), plug-in name mp", no + "the package's shared/res/ directory cannot be read"}},
      {kCased, {}, {}, {"PKGMGR_MDPARSER_PLUGIN_INSTALL > METADATA INSTALL",
          "PKGMGR_MDPARSER_PLUGIN_INSTALL > finish"},
       {"refusal: not handled: no item has the key " + kTypeKey + " exactly (" + kNamespace +
          "Upgradable_webapi_type differs in case)"}},
      {0, {}, {}, {"PKGMGR_MDPARSER_PLUGIN_INSTALL > finish"},
       {"refusal: not handled: no item has the key " + kTypeKey + " exactly"}},
      {kUninstall | kRewritten, {"mp"}, {}, {name}, {"removed mp", "result file rewritten from 0 records"}},
      {kUninstall, {}, {}, {name}, {"refusal: removed nothing: no record is named mp"}},
      {kUninstall, {"mp", "mp.a"}, {"mp.a"}, {name},
       {"warning: removed mp; the record mp.a of this package stays"}},
      {kUninstall, {"mp", "mp.a", "mp.b"}, {"mp.a", "mp.b"}, {name},
       {"warning: removed mp; the records mp.a, mp.b of this package stay"}},
      {kUninstall, {"mp"}, {"mp"}, {name, "RemoveTpk > remove DB record fail"},
       {"refusal: removed nothing: the database refused the deletion"}},
      // The hardened build's own decisions.
      {kHardened | kRewritten, {}, {"tv.audio", "tv.video"}, {type + "0]", name,
          "m_checkTpk > tpkVersion[2.0.1], localVersion[0.0.0]", "m_checkTpk > insert new data:name[tv.audio]version[2.0.1]",
          "m_checkTpk > insert new data:name[tv.video]version[2.0.1]", one + "successfully, 2 records in one write"},
       {"kind xwalk (\"\"), plug-in name mp", "stored tv.audio, tv.video in one write: version 2.0.1, compared "
          "with 0.0.0 as no record is named mp: an xwalk package is stored again at every install",
          "result file rewritten from 2 records"}},
      {kHardened, {}, {}, {type + "1]", name, "m_checkTpk > insert new data:name[mp]version[1.0.0]",
          one + "fail!! none of the 1 records stored"}, {"kind pepper (\"\"), plug-in name mp", "warning: storing "
          "mp failed: the database refused the one write of 1 records, none is stored",
          no + "the database refused the write"}},
      {kHardened | kUninstall | kRewritten, {"mp", "mp.a"}, {}, {name, removedBy + "x] successfully"},
       {"removed mp, mp.a: every record of package " + kPackage, "result file rewritten from 0 records"}},
      {kHardened | kUninstall, {}, {}, {name, removedBy + "x] successfully"},
       {"refusal: removed nothing: no record carries the package id " + kPackage}},
      // The comparison with the result file builds the document without writing it or terminating.
      {kHardened, {"mp"}, {"mp"}, {same, "m_checkTpk > tpkVersion == localVersion", publish + "mp]tizenid:[A.app]",
          "MakeUpgradeWebapiJson > [mp" + unused}, {no + "version 1.2.0 equals the recorded one"}},
      {kHardened | kRewritten, {"mp"}, {"mp"}, {same, "m_checkTpk > tpkVersion == localVersion",
          publish + "mp]tizenid:[B.app]", "m_ResultMatchesRecords > result file differs from the records, "
          "rewrite it", publish + "mp]tizenid:[A.app]", guard + "vex_terminate_app [A.app] success"},
       {no + "version 1.2.0 equals the recorded one", "result file rewritten from 1 record (it differed from "
          "the records); each rewrite terminates the allow-listed applications of every record:",
          "  A.app terminated: allow-listed by mp"}},
      {kHardened, {}, {}, {"m_WriteUpgradeWebapiToLocal > write json to local path[/r] fail!", "m_RewriteJson > "
          "update fail!records kept, the result file is written again at the next call"}, {nothing, "warning: "
          "the result file could not be written (write json to local path[/r] fail!): the plug-in kept its "
          "records, and its next call writes the file again"}},
      {kHardened, {}, {}, {"m_RewriteJson > records unreadable, result file left as it is"},
       {nothing, "warning: the records could not be read: the plug-in left the result file as it is"}},
      // Both files lost: the rebuilt packages' own steps are no part of the call's package.
      {kHardened | kRewritten, {}, {"mp", "tv"}, {"m_validCheck > database /db's size is 0",
          "m_validCheck > database /bak's size is 0", "m_openDBCheck > db and backup db are not valid, now "
          "create db", lost, rebuild + "a.pepper.tv], version = [1.0.0]", "GetPluginNameByID > pluginName[tv]",
          "m_checkTpk > insert new data:name[tv]version[1.0.0]", one + "successfully, 1 records in one write",
          rebuild + "b.pepper.x], version = [2.0.0]", "GetPluginType > get plugin type fail!",
          "HandleSingleTpk > pkgid = [" + kPackage + "], version = [1.0.0]", type + "1]", name,
          "m_checkTpk > tpkVersion[1.0.0], localVersion[0.0.0]", "m_checkTpk > insert new data:name[mp]version[1.0.0]"},
       {"warning: the database (an empty file) and its backup were not valid: the plug-in deleted it and "
          "created an empty one; its records are rebuilt from the installed packages",
          "kind pepper (\"\"), plug-in name mp", "warning: records rebuilt from the installed packages that "
          "carry the type key: a.pepper.tv 1.0.0 (tv), b.pepper.x 2.0.0 (nothing stored)",
          "stored mp: version 1.0.0, no record of mp before", "result file rewritten from 2 records"}},
      {kHardened | kNoDatabase, {}, {}, {lost}, {"no other installed package carries the type key: no record "
          "to rebuild", nothing}},
      {kHardened, {}, {}, {lost, "GetPackagesWithMetadata > create metadata filter fail!!"},
       {"warning: the installed packages could not be listed: no record was rebuilt", nothing}},
      {kHardened, {}, {}, {"callback_db > database is lock now,can not write/read.count is [2]",
          "m_openDBCheck > database [/db] stays busy: neither file restored nor created, the call gives up",
          "m_modifyTable > database [/db] stays busy: nothing written, nothing restored"},
       {"warning: the database stayed busy (another process held it): the plug-in gave up the call without "
          "restoring or creating either database file", "warning: the database stayed busy (another process "
          "held it): the plug-in gave up the write, nothing written and nothing restored", nothing}},
      {kHardened, {}, {}, {"m_validCheck > /db DB : pluginTable has other columns than the plug-in's own, "
          "counted as damaged", checked + "1], version table check[1], plugin table check[0]", backup,
          "m_versionCpBakUp > copy of [/bak] to [/db] not completed, [/db] left as it was", backup,
          "m_versionCpBakUp > copy of [/db] to [/bak] not completed, [/bak] left as it was", backup,
          "m_versionCpBakUp > The copy Size is [0], invalid!"},
       {"warning: the database was damaged (its plug-in table has other columns than the plug-in's own) and "
          "restoring it from its backup failed: the copy of /bak to /db was not completed; the plug-in left "
          "/db as it was", "warning: the copy of /db to /bak was not completed; the plug-in left /bak as it "
          "was", "warning: a database copy found its source empty and left its destination as it was",
          nothing}},
  };
  // A failure to write the result file, named when logged, then the clearing of the records.
  for (const std::string& failure : Lines{"", "m_IsFileSymbolLink > path [/r] is a symbol link! there's "
           "security risk!", "m_IsFileSymbolLink > lstat [/r] fail", "m_WriteUpgradeWebapiToLocal > write "
           "json to local path[/r] fail!", "m_RenameFile > rename[/t] to[/r] fail!errno [28,No space,]",
           "m_CreateDirectory > Dest Path [/d] failed to create!"}) {
    const std::string named = failure.empty() ? "" : " (" + failure.substr(failure.find(" > ") + 3) + ")";
    cases.push_back({0, {}, {}, {failure.empty() ? cleared : failure, cleared}, {nothing, "warning: the "
        "result file could not be written" + named + ": the plug-in deleted all its records, so that every "
        "package is stored again later"}});
  }
  // clang-format on
  const std::string dir = wup_test::MakeTempDir("pkgsim-explain"), path = dir + "/log";
  for (const Case& c : cases) {
    // The log is shared: another process's line is no part of the call.
    std::string log = "I/KelvoManager(4243): X.cpp: GetPluginType(9) > get plugin type fail!\n";
    for (const std::string& line : c.log)
      log += "I/KelvoManager(4242): X.cpp: " + line.substr(0, line.find(" > ")) + "(7)" +
             line.substr(line.find(" > ")) + "\n";
    wup_test::WriteFile(path, log);
    Call call;
    call.operation = c.flags & kUninstall ? Operation::kUninstall : Operation::kInstall;
    call.appid = c.flags & kElsewhere ? "x.settings" : kPackage;
    call.manifest = {kPackage, "1.0.0", {{call.appid, {}}}};
    call.items = {{c.flags & kCased ? kNamespace + "Upgradable_webapi_type" : kTypeKey, "pepperplugin"}};
    call.log = ReadLog(path, 0, 4242);
    call.policy = c.flags & kHardened ? "hardened" : "default";
    call.before.dbExists = !(c.flags & kNoDatabase);
    call.before.rows = Rows(c.before);
    call.after.rows = Rows(c.after);
    call.before.resultExists = !(c.flags & kResultMissing);
    call.after.resultExists = true;
    call.after.resultInode = c.flags & kRewritten ? 2 : 0;
    Lines notes;
    const Device device = Device(dir).ForUser(c.flags & kForUser ? 5001 : 0);
    for (const Note& note : ExplainCall(device, call))
      notes.push_back(std::string(note.kind == Note::kWarning ? "warning: " : "") +
                      (note.kind == Note::kRefusal ? "refusal: " : "") + note.text);
    EXPECT_EQ(notes, c.notes) << log;
  }
  wup_test::RemoveTree(dir);
}

}  // namespace
}  // namespace pkgsim
