// PluginPolicy: the few places where the two builds of the plug-in part ways.
//
// The default build keeps every behaviour of the plug-in as field engineers know it, including a few
// hazards that come with it. The hardened build (compile definition WUP_HARDENED, from the CMake option
// of the same name) is the same plug-in without them: same entry points, schema, result document, file
// names and log lines wherever it behaves the same, and a line of its own wherever it does not.
//
// Code reads the switches with `if constexpr`, so that both behaviours stand side by side in src/ and are
// both compiled, while a build carries only its own: the default build references no platform call that
// only the hardened one needs.
#ifndef WEBAPI_UPGRADE_PLUGIN_POLICY_H_
#define WEBAPI_UPGRADE_PLUGIN_POLICY_H_

struct PluginPolicy {
  // Database copies (backup refresh, restore) go to a staging file beside the destination, synced and
  // renamed over it; a copy that cannot be completed leaves the destination as it was and fails. The
  // default build truncates the destination first and reports success whatever it managed to write.
  bool stagedCopies;
  // All records of one package are stored in one guarded write (all or none); the default build stores
  // them one write at a time, so a cut between them leaves the package half-stored.
  bool packageInOneTransaction;
  // A result file that differs from the document the records give is rewritten at the next call; the
  // default build rewrites it only after a change in the same process, or when it is missing.
  bool rewriteStaleResult;
  // A failed result write keeps the records (the next call writes the file again); the default build
  // empties the database so that every package is stored again.
  bool keepRecordsOnFailedWrite;
  // A database that another process holds busy is waited for (bounded) and never restored; the default
  // build takes it for damaged after a few seconds and restores it from the backup.
  bool waitForBusyDatabase;
  // Uninstalling removes every record that the package brought (by package id); the default build
  // removes the one record named like the package.
  bool uninstallByPackageId;
  // When both database files are damaged, the records are rebuilt from the installed packages that carry
  // the plug-in's type key; the default build starts an empty database.
  bool rebuildLostRecords;
  // A plug-in table whose columns are not the plug-in's own counts as damaged; the default build checks
  // only that a table of that name exists.
  bool checkPluginColumns;
};

inline constexpr PluginPolicy kDefaultPolicy = {false, false, false, false, false, false, false, false};
inline constexpr PluginPolicy kHardenedPolicy = {true, true, true, true, true, true, true, true};

#ifdef WUP_HARDENED
inline constexpr PluginPolicy kPluginPolicy = kHardenedPolicy;
#define WUP_POLICY_NAME_TEXT "hardened"
#else
inline constexpr PluginPolicy kPluginPolicy = kDefaultPolicy;
#define WUP_POLICY_NAME_TEXT "default"
#endif

// Which build a loaded library is: "default" or "hardened" (look it up with dlsym).
extern "C" const char WUP_POLICY_NAME[];

#endif  // WEBAPI_UPGRADE_PLUGIN_POLICY_H_
