// Corruption campaign: seeded, reproducible damaged (main, backup) pairs of the version database, one
// install each through the real plug-in library in a fresh process under a watchdog. The outcome is
// compared with what the open check's decision table gives for the damage, worked out here from the files
// alone: what each path holds, and whether a regular file there is a valid version database.
//
//   corrupt_campaign [--seeds FIRST:END] [--timeout SECONDS]
// Prints one line per finding (hang, crash, exception, mismatch) and the expected outcomes by class;
// exits 1 on any finding. A seed gives the same pair every time; WUP_E2E_KEEP=1 keeps each sandbox.
//
// Classes: the open check's first decision, `kept` (main valid, used), `restored` (main invalid, backup
// valid and copied over it), `recreated` (both invalid: a fresh database), `refused` (the backup is valid
// but the main path cannot be replaced: a link or directory stands there), `uncreatable` (both
// invalid, a directory with something in it at the main path); then what became of the write: stored,
// `+retried` (the statement failed on a foreign plug-in table and succeeded once the backup was copied
// over the main file), `+lost` (it failed again), `+not-stored` (no usable main file).
#include <dirent.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "device.h"

namespace {

using Rows = std::map<std::string, std::string>;  // plug-in name -> version

const char kTarget[] = "target";  // plug-in name of the package that every case installs
const char kTargetVersion[] = "3.0";
constexpr size_t kPageSize = 4096;

// --- What a path holds --------------------------------------------------------------------------------

// A regular file as the version database sees it. Contents the plug-in writes itself are known by rows
// only; `generation` tells copies of one content apart from other contents.
struct Content {
  std::string bytes;
  bool bytesKnown = true;
  bool valid = false;    // non-empty, integrity_check "ok", both tables
  bool accepts = false;  // the plug-in's insert of a record succeeds on it
  Rows rows;
  int generation = 0;
};

struct Entry {
  enum Kind { kMissing, kFile, kDir, kFifo, kLink } kind = kMissing;
  bool emptyDir = false;
  std::string target;              // of a link
  std::optional<Content> content;  // the regular file at the path, or behind the link
};

struct Connection {
  sqlite3* db = nullptr;
  explicit Connection(const std::string& path) {
    sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr);
  }
  ~Connection() { sqlite3_close(db); }
  // First column of every row; nullopt when the statement fails.
  std::optional<std::vector<std::string>> Column(const char* sql) const {
    sqlite3_stmt* stmt = nullptr;
    std::vector<std::string> values;
    int ret = sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr);
    if (ret == SQLITE_OK) {
      while ((ret = sqlite3_step(stmt)) == SQLITE_ROW) {
        const unsigned char* text = sqlite3_column_text(stmt, 0);
        values.push_back(text ? reinterpret_cast<const char*>(text) : "");
      }
    }
    sqlite3_finalize(stmt);
    if (ret != SQLITE_DONE) return std::nullopt;
    return values;
  }
  bool Exec(const std::string& sql) const {
    return sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
  }
};

// Judged on a scratch copy, opened read-write as the plug-in opens it, so the file itself stays as it is.
Content Inspect(const std::string& path, const std::string& scratch) {
  Content content;
  content.bytes = wup_test::ReadFile(path);
  if (content.bytes.empty()) return content;
  const std::string copy = scratch + "/inspect.db";
  wup_test::WriteFile(copy, content.bytes);
  {
    const Connection db(copy);
    const auto integrity = db.Column("PRAGMA integrity_check;");
    const auto tables = db.Column("select name from sqlite_master where type = 'table';");
    auto has = [&tables](const char* name) {
      return tables && std::find(tables->begin(), tables->end(), name) != tables->end();
    };
    content.valid = integrity == std::vector<std::string>{"ok"} && has("versionTable") && has("pluginTable");
    const auto names = db.Column("select name from pluginTable order by rowid");
    const auto versions = db.Column("select version from pluginTable order by rowid");
    for (size_t i = 0; names && versions && i < names->size() && i < versions->size(); ++i) {
      content.rows[(*names)[i]] = (*versions)[i];
    }
    content.accepts =
        db.Exec("insert or replace into pluginTable values('target','3.0','','','',1,0,1,'','')");
  }
  wup_test::RemoveTree(copy);
  wup_test::RemoveTree(copy + "-journal");
  return content;
}

Entry Observe(const std::string& path, const std::string& scratch) {
  Entry entry;
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) return entry;
  if (S_ISLNK(st.st_mode)) {
    entry.kind = Entry::kLink;
    char target[4096];
    const ssize_t length = readlink(path.c_str(), target, sizeof target);
    entry.target.assign(target, length > 0 ? length : 0);
    if (stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode)) entry.content = Inspect(path, scratch);
  } else if (S_ISDIR(st.st_mode)) {
    entry.kind = Entry::kDir;
    DIR* dir = opendir(path.c_str());
    int names = 0;
    while (dir != nullptr && readdir(dir) != nullptr) ++names;
    if (dir != nullptr) closedir(dir);
    entry.emptyDir = names == 2;  // "." and ".."
  } else if (S_ISFIFO(st.st_mode)) {
    entry.kind = Entry::kFifo;
  } else {
    entry.kind = Entry::kFile;
    entry.content = Inspect(path, scratch);
  }
  return entry;
}

// --- What the plug-in is expected to do with it -----------------------------------------------------------

// The open check's decision table, the guarded write and the backup copy, stepped through one install on a
// fresh device: the constructor's read, the write of the package's record, and the read that rebuilds the
// missing result file. Paths that are not regular files end where the described paths take them: a link
// or directory is never written as a copy's destination, a FIFO there is replaced by the copy; a link at
// the main path is followed by SQLite (so a database behind it is used, and one is created behind a
// dangling link); the removal before a re-creation takes away a link, a FIFO or an empty directory, not
// a directory with something in it.
class Model {
 public:
  Model(Entry main, Entry backup) : main_(std::move(main)), backup_(std::move(backup)) {}

  std::string Install() {
    std::string label = OpenCheck();
    const bool checked = label == "kept" || label == "restored" || label == "recreated";
    const Rows map = checked ? main_.content->rows : Rows();
    const auto recorded = map.find(kTarget);
    if (recorded != map.end() && recorded->second == kTargetVersion) {
      label += "+unchanged";
    } else if (OpenCheck(), !Valid(main_)) {
      label += "+not-stored";
    } else if (Insert(main_)) {
      Copy(main_, backup_);
    } else if (Copy(backup_, main_) && Insert(main_)) {
      Copy(main_, backup_);
      label += "+retried";
    } else {
      label += "+lost";
    }
    OpenCheck();
    published_ = Valid(main_) && main_.content->rows.count(kTarget) != 0;
    return label;
  }
  const Entry& main() const { return main_; }
  const Entry& backup() const { return backup_; }
  bool published() const { return published_; }

 private:
  static bool Exists(const Entry& entry) {
    return entry.kind == Entry::kDir || entry.kind == Entry::kFifo || entry.content;
  }
  static bool Valid(const Entry& entry) { return entry.content && entry.content->valid; }

  // The destination is opened (created, truncated) before the source's size is known.
  bool Copy(const Entry& source, Entry& dest) {
    if (!Exists(source) || dest.kind == Entry::kLink || dest.kind == Entry::kDir) return false;
    dest.kind = Entry::kFile;
    dest.content = Content();
    dest.content->generation = ++generations_;
    if (!source.content || (source.content->bytesKnown && source.content->bytes.empty())) return false;
    dest.content = source.content;
    return true;
  }

  bool Insert(Entry& entry) {
    if (!entry.content->accepts) return false;
    entry.content->rows[kTarget] = kTargetVersion;
    entry.content->bytesKnown = false;
    entry.content->generation = ++generations_;
    return true;
  }

  std::string OpenCheck() {
    if (Valid(main_)) return "kept";
    if (Valid(backup_)) return Copy(backup_, main_) ? "restored" : "refused";
    const bool danglingLink = main_.kind == Entry::kLink && !main_.content;
    if (Exists(main_) && (main_.kind != Entry::kDir || main_.emptyDir)) main_ = Entry();
    if (main_.kind != Entry::kMissing && !danglingLink) return "uncreatable";
    if (!danglingLink) main_.kind = Entry::kFile;
    main_.content = Content{"", false, true, true, {}, ++generations_};
    Copy(main_, backup_);
    return "recreated";
  }

  Entry main_, backup_;
  bool published_ = false;
  int generations_ = 0;
};

// --- The damaged pairs ------------------------------------------------------------------------------

enum class Schema { kOurs, kNoVersionTable, kNoPluginTable, kOtherPluginTable };

// A version database as the plug-in leaves it, with enough rows for the plug-in table to span pages.
std::string BuildDatabase(const std::string& scratch, Schema schema, const std::string& version) {
  const std::string path = scratch + "/build.db";
  wup_test::RemoveTree(path);
  sqlite3* db = nullptr;
  sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  std::string sql = "PRAGMA synchronous=OFF; BEGIN;";
  if (schema != Schema::kNoVersionTable)
    sql += "create table versionTable(name TEXT PRIMARY KEY, version TEXT, size TEXT);";
  if (schema == Schema::kOtherPluginTable)
    sql += "create table pluginTable(name TEXT PRIMARY KEY, version TEXT);";
  if (schema == Schema::kOurs || schema == Schema::kNoVersionTable) {
    sql +=
        "create table pluginTable(name TEXT PRIMARY KEY, version TEXT, path TEXT, pkgid\tTEXT, "
        "entryPoints TEXT, pluginType INTEGER, hasForceMetaData INTEGER, isUpdate INTEGER, "
        "appWhiteList TEXT, systemPath TEXT);";
  }
  if (schema != Schema::kNoPluginTable) {
    sql += "insert into pluginTable(name, version) values('target', '" + version + "'), ('alpha', '" +
           version + "');";
    for (int i = 0; i < 30; ++i) {
      sql += "insert into pluginTable(name, version) values('pad" + std::to_string(i) +
             std::string(250, 'x') + "', '1');";
    }
  }
  sqlite3_exec(db, (sql + "COMMIT;").c_str(), nullptr, nullptr, nullptr);
  sqlite3_close(db);
  return wup_test::ReadFile(path);
}

enum Kind {
  kIntact,
  kTruncated,
  kFlippedBytes,
  kZeroedPage,
  kGarbage,
  kEmpty,
  kAbsent,
  kNoVersionTable,
  kNoPluginTable,
  kOtherPluginTable,
  kDirectory,
  kFifo,
  kLinkToValid,
  kLinkToDamaged,
  kLinkDangling,
  kKindCount
};
const char* const kKindNames[kKindCount] = {
    "intact",    "truncated", "flipped-bytes",   "zeroed-page",     "garbage",
    "empty",     "missing",   "no-versionTable", "no-pluginTable",  "other-pluginTable",
    "directory", "fifo",      "link-to-valid",   "link-to-damaged", "link-dangling"};

class Damage {
 public:
  Damage(uint64_t seed, const std::string& scratch) : rng_(seed), scratch_(scratch) {}
  size_t Below(size_t bound) { return bound == 0 ? 0 : rng_() % bound; }

  // Cut at a page boundary or anywhere, a few bytes flipped, or one page zeroed.
  std::string Damaged(Kind kind, std::string bytes) {
    const size_t pages = bytes.size() / kPageSize;
    if (kind == kTruncated) {
      bytes.resize(Below(2) ? kPageSize * (1 + Below(pages - 1)) : 1 + Below(bytes.size() - 1));
    } else if (kind == kFlippedBytes) {
      for (size_t n = 1 + Below(8); n > 0; --n)
        bytes[Below(bytes.size())] ^= static_cast<char>(1 + Below(255));
    } else {
      bytes.replace(kPageSize * Below(pages), kPageSize, kPageSize, '\0');
    }
    return bytes;
  }

  // Puts damage of `kind` at `path`, starting from the database `base`; links point into `elsewhere`.
  void Place(Kind kind, const std::string& path, const std::string& base, const std::string& elsewhere) {
    const std::string aside = elsewhere + "/" + path.substr(path.rfind('/') + 1);
    std::string bytes = base;
    if (kind == kTruncated || kind == kFlippedBytes || kind == kZeroedPage) {
      bytes = Damaged(kind, base);
    } else if (kind == kGarbage) {
      bytes.resize(1 + Below(3 * kPageSize));
      for (char& c : bytes) c = static_cast<char>(rng_());
    } else if (kind == kEmpty) {
      bytes.clear();
    } else if (kind == kNoVersionTable || kind == kNoPluginTable || kind == kOtherPluginTable) {
      bytes = BuildDatabase(scratch_, static_cast<Schema>(kind - kNoVersionTable + 1), "4.0");
    } else if (kind == kDirectory) {
      wup_test::MakeDirs(path);
      if (Below(2)) wup_test::WriteFile(path + "/left-over", "x");
    } else if (kind == kFifo) {
      mkfifo(path.c_str(), 0644);
    } else if (kind == kLinkToValid || kind == kLinkToDamaged) {
      wup_test::WriteFile(aside, kind == kLinkToValid ? base : Damaged(Kind(kTruncated + Below(3)), base));
      symlink(aside.c_str(), path.c_str());
    } else if (kind == kLinkDangling) {
      symlink((aside + ".none").c_str(), path.c_str());
    }
    if (kind <= kOtherPluginTable && kind != kAbsent) wup_test::WriteFile(path, bytes);
  }

 private:
  std::mt19937_64 rng_;
  std::string scratch_;
};

// --- One case -------------------------------------------------------------------------------------------

std::string Describe(const Entry& entry) {
  static const char* const kNames[] = {"missing", "file", "directory", "fifo", "link"};
  std::string text = kNames[entry.kind];
  if (entry.content) {
    text += entry.content->valid ? " valid" : " invalid";
    for (const auto& [name, version] : entry.content->rows) {
      if (name.compare(0, 3, "pad") != 0) text += " " + name + "@" + version;
    }
  }
  return text;
}

// Differences between what the model expects at a path and what is there.
std::string Compare(const char* what, const Entry& expected, const Entry& actual) {
  bool same = expected.kind == actual.kind && expected.target == actual.target &&
              expected.content.has_value() == actual.content.has_value();
  if (same && expected.content) {
    const Content& e = *expected.content;
    const Content& a = *actual.content;
    same = e.bytesKnown ? e.bytes == a.bytes : (e.valid == a.valid && e.rows == a.rows);
  }
  return same ? ""
              : std::string(" ") + what + ": expected " + Describe(expected) + ", found " + Describe(actual) +
                    ";";
}

using Tally = std::map<std::string, int>;

// Seeds 0 to 224 give every pair of kinds once; later seeds go round again with other damage.
void RunCase(uint64_t seed, unsigned timeout, const std::string& scratch, Tally& classes, Tally& findings) {
  const Kind mainKind = Kind(seed % kKindCount);
  const Kind backupKind = Kind((seed / kKindCount + seed) % kKindCount);
  wup_e2e::Device device;
  const std::string elsewhere = device.layout().root + "/elsewhere";
  wup_test::MakeDirs(elsewhere);
  wup_e2e::Package package;
  package.pkgid = std::string("com.korvane.tv.pepper.") + kTarget;
  package.version = kTargetVersion;
  package.kind = "pepperplugin";
  device.Place(package);

  Damage damage(seed, scratch);
  const bool swapped = damage.Below(4) == 0;
  static const std::string older = BuildDatabase(scratch, Schema::kOurs, "1.0");
  static const std::string newer = BuildDatabase(scratch, Schema::kOurs, "2.0");
  damage.Place(mainKind, device.DatabasePath(), swapped ? older : newer, elsewhere);
  damage.Place(backupKind, device.BackupPath(), swapped ? newer : older, elsewhere);

  Model model(Observe(device.DatabasePath(), scratch), Observe(device.BackupPath(), scratch));
  std::map<std::string, std::string> aside;  // files behind links, byte for byte
  for (const char* name : {".AppBinaryManager.db", ".AppBinaryManager_Backup.db"}) {
    if (wup_test::PathExists(elsewhere + "/" + name))
      aside[elsewhere + "/" + name] = wup_test::ReadFile(elsewhere + "/" + name);
  }
  const std::string label = model.Install();

  const int status = device.Run([&package, timeout](wup_e2e::Plugin& plugin) {
    alarm(timeout);
    plugin.Install(package.pkgid.c_str(), package.pkgid.c_str(), wup_e2e::MetadataOf(package));
  });

  std::string finding;
  if (status == 128 + SIGALRM) {
    finding = "hang";
  } else if (status == wup_e2e::Device::kExceptionLeft) {
    finding = "exception";
  } else if (status != 0) {
    finding = "crash";
  } else {
    std::string diff = Compare("main", model.main(), Observe(device.DatabasePath(), scratch)) +
                       Compare("backup", model.backup(), Observe(device.BackupPath(), scratch));
    const Entry& main = model.main();
    const Entry& backup = model.backup();
    if (main.content && backup.content && !main.content->bytesKnown &&
        main.content->generation == backup.content->generation &&
        wup_test::ReadFile(device.DatabasePath()) != wup_test::ReadFile(device.BackupPath())) {
      diff += " backup: not a copy of main;";
    }
    for (const auto& [path, bytes] : aside) {
      const bool behindMain = main.kind == Entry::kLink && main.target == path;
      if (!behindMain && wup_test::ReadFile(path) != bytes) diff += " " + path + " written through a link;";
    }
    const bool published = device.ResultFile().find("\"name\" : \"target\"") != std::string::npos;
    if (!device.ResultFileExists() || device.ResultFile().empty() || published != model.published()) {
      diff += " result file: expected " + std::string(model.published() ? "" : "no ") + "record of target;";
    }
    if (!diff.empty()) finding = "mismatch:" + diff;
  }
  ++classes[label];
  if (!finding.empty()) {
    ++findings[finding.substr(0, finding.find(':'))];
    std::printf("seed %llu: main %s, backup %s%s, expected %s: %s\n", static_cast<unsigned long long>(seed),
                kKindNames[mainKind], kKindNames[backupKind], swapped ? " (swapped)" : "", label.c_str(),
                finding.c_str());
    std::fflush(stdout);
  }
}

}  // namespace

int main(int argc, char** argv) {
  uint64_t first = 0, end = 500;
  unsigned timeout = 10;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--seeds" && i + 1 < argc) {
      std::sscanf(argv[++i], "%lu:%lu", &first, &end);
    } else if (arg == "--timeout" && i + 1 < argc) {
      timeout = static_cast<unsigned>(std::atoi(argv[++i]));
    } else {
      std::fprintf(stderr, "usage: %s [--seeds FIRST:END] [--timeout SECONDS]\n", argv[0]);
      return 2;
    }
  }
  const std::string scratch = wup_test::MakeTempDir("wup-corrupt");
  Tally classes, findings;
  for (uint64_t seed = first; seed < end; ++seed) RunCase(seed, timeout, scratch, classes, findings);
  wup_test::RemoveTree(scratch);

  std::printf("%llu cases (seeds %llu:%llu)\n", static_cast<unsigned long long>(end - first),
              static_cast<unsigned long long>(first), static_cast<unsigned long long>(end));
  for (const auto& [label, count] : classes) std::printf("  expected %-28s %d\n", label.c_str(), count);
  int total = 0;
  for (const auto& [kind, count] : findings) {
    std::printf("  finding %-29s %d\n", kind.c_str(), count);
    total += count;
  }
  std::printf("  findings %d\n", total);
  return total == 0 ? 0 : 1;
}
