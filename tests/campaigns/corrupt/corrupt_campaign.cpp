// Corruption campaign: seeded, reproducible damaged (main, backup) pairs of the version database, one
// install each in a fresh process under a watchdog, its outcome compared with what the open check's
// decision table gives, worked out here from the files alone. Notes each seed's expected class and every
// finding (hang, crash, mismatch) for run.sh's tally.
//
//   corrupt_campaign [FIRST:END [TIMEOUT]]    seeds (default 0:500), the watchdog in seconds (default 10)
#include <sys/stat.h>

#include <random>

#include "campaign.h"

namespace fs = std::filesystem;

namespace {

const char kTarget[] = "target", kTargetVersion[] = "3.0";  // the plug-in every case installs
constexpr size_t kPageSize = 4096;

// A regular file as the version database sees it; what the plug-in writes is known by its records only, and
// `generation` tells copies of one content apart from other contents.
struct Content : campaign::Database {
  bool bytesKnown = true;
  int generation = 0;
  std::map<std::string, std::string> Versions() const {
    std::map<std::string, std::string> versions;
    for (const auto& row : rows) versions[row[0]] = row[1];
    return versions;
  }
};

struct Entry {  // what a path holds; `content` is the regular file there, or behind the link
  enum Kind { kMissing, kFile, kDir, kFifo, kLink } kind = kMissing;
  bool emptyDir = false;
  std::string target;  // of a link
  std::optional<Content> content;
};

Entry Observe(const std::string& path, const std::string& scratch) {
  Entry entry;
  std::error_code ignored;
  const fs::file_status status = fs::symlink_status(path, ignored);
  entry.kind = fs::is_symlink(status)     ? Entry::kLink
               : fs::is_directory(status) ? Entry::kDir
               : fs::is_fifo(status)      ? Entry::kFifo
               : fs::exists(status)       ? Entry::kFile
                                          : Entry::kMissing;
  if (entry.kind == Entry::kLink) entry.target = fs::read_symlink(path, ignored);
  entry.emptyDir = entry.kind == Entry::kDir && fs::is_empty(path, ignored);
  if (fs::is_regular_file(path, ignored))
    entry.content = Content{campaign::Inspect(path, scratch + "/inspect.db")};
  return entry;
}

// The open check's decision table, the guarded write and the backup copy, stepped through one install on a
// fresh device: the constructor's read, the write of the package's record, and the read that rebuilds the
// missing result file. Paths that are not regular files end where the described paths take them: a link
// or directory is never written as a copy's destination, a FIFO there is replaced by the copy; a link at
// the main path is followed by SQLite (so a database behind it is used, and one is created behind a
// dangling link); the removal before a re-creation takes away a link, a FIFO or an empty directory, not
// a directory with something in it. The label it gives is the class run.sh explains.
struct Model {
  std::string Install() {
    std::string label = OpenCheck();
    if (OpenCheck(), !Valid(main)) {
      label += "+not-stored";
    } else if (Insert(main)) {
      Copy(main, backup);
    } else if (Copy(backup, main) && Insert(main)) {
      Copy(main, backup);
      label += "+retried";
    } else {
      label += "+lost";
    }
    OpenCheck();
    published = Valid(main) && main.content->Versions().count(kTarget) != 0;
    return label;
  }

  static bool Exists(const Entry& entry) {
    return entry.kind == Entry::kDir || entry.kind == Entry::kFifo || entry.content;
  }
  static bool Valid(const Entry& entry) { return entry.content && entry.content->valid; }

  // The destination is opened (created, truncated) before the source's size is known.
  bool Copy(const Entry& source, Entry& dest) {
    if (!Exists(source) || dest.kind == Entry::kLink || dest.kind == Entry::kDir) return false;
    dest.kind = Entry::kFile;
    dest.content = Content();
    dest.content->generation = ++generations;
    if (!source.content || (source.content->bytesKnown && source.content->bytes.empty())) return false;
    dest.content = source.content;
    return true;
  }

  bool Insert(Entry& entry) {
    Content& content = *entry.content;
    if (!content.accepts) return false;
    content.rows.push_back({kTarget, kTargetVersion});  // only the versions are compared
    content.bytesKnown = false;
    content.generation = ++generations;
    return true;
  }

  std::string OpenCheck() {
    if (Valid(main)) return "kept";
    if (Valid(backup)) return Copy(backup, main) ? "restored" : "refused";
    const bool danglingLink = main.kind == Entry::kLink && !main.content;
    if (Exists(main) && (main.kind != Entry::kDir || main.emptyDir)) main = Entry();
    if (main.kind != Entry::kMissing && !danglingLink) return "uncreatable";
    if (!danglingLink) main.kind = Entry::kFile;
    main.content = Content();
    main.content->valid = main.content->accepts = true;
    main.content->bytesKnown = false;
    main.content->generation = ++generations;
    Copy(main, backup);
    return "recreated";
  }

  Entry main, backup;
  bool published = false;
  int generations = 0;
};

// A version database as the plug-in leaves it (schema "ours"), or with a table missing or foreign, with
// enough rows for the plug-in table to span pages.
std::string BuildDatabase(const std::string& scratch, const std::string& schema, const std::string& version) {
  const std::string path = scratch + "/build.db";
  wup_test::RemoveTree(path);
  std::string sql = "PRAGMA synchronous=OFF; BEGIN;";
  if (schema != "no-versionTable")
    sql += "create table versionTable(name TEXT PRIMARY KEY, version TEXT, size TEXT);";
  if (schema == "other-pluginTable") sql += "create table pluginTable(name TEXT PRIMARY KEY, version TEXT);";
  if (schema == "ours" || schema == "no-versionTable") {
    sql +=
        "create table pluginTable(name TEXT PRIMARY KEY, version TEXT, path TEXT, pkgid\tTEXT, "
        "entryPoints TEXT, pluginType INTEGER, hasForceMetaData INTEGER, isUpdate INTEGER, "
        "appWhiteList TEXT, systemPath TEXT);";
  }
  if (schema != "no-pluginTable") {
    sql += "insert into pluginTable(name, version) values('target', '" + version + "'), ('alpha', '" +
           version + "');";
    for (int i = 0; i < 30; ++i)
      sql += "insert into pluginTable(name, version) values('pad" + std::to_string(i) +
             std::string(250, 'x') + "', '1');";
  }
  campaign::Exec(path, sql + "COMMIT;");
  return wup_test::ReadFile(path);
}

const char* const kKinds[] = {
    "intact",    "truncated", "flipped-bytes",   "zeroed-page",     "garbage",
    "empty",     "missing",   "no-versionTable", "no-pluginTable",  "other-pluginTable",
    "directory", "fifo",      "link-to-valid",   "link-to-damaged", "link-dangling"};
constexpr uint64_t kKindCount = std::size(kKinds);

struct Damage {
  size_t Below(size_t bound) { return bound == 0 ? 0 : rng() % bound; }

  // Cut at a page boundary or anywhere, a few bytes flipped, or one page zeroed.
  std::string Damaged(const std::string& kind, std::string bytes) {
    const size_t pages = bytes.size() / kPageSize;
    if (kind == "truncated") {
      bytes.resize(Below(2) ? kPageSize * (1 + Below(pages - 1)) : 1 + Below(bytes.size() - 1));
    } else if (kind == "flipped-bytes") {
      for (size_t n = 1 + Below(8); n > 0; --n)
        bytes[Below(bytes.size())] ^= static_cast<char>(1 + Below(255));
    } else {
      bytes.replace(kPageSize * Below(pages), kPageSize, kPageSize, '\0');
    }
    return bytes;
  }

  std::string Bytes(const std::string& kind, const std::string& base) {
    if (kind == "intact") return base;
    if (kind == "empty") return "";
    if (kind.find("Table") != std::string::npos) return BuildDatabase(scratch, kind, "4.0");
    if (kind != "garbage") return Damaged(kind, base);
    std::string bytes(1 + Below(3 * kPageSize), '\0');
    for (char& c : bytes) c = static_cast<char>(rng());
    return bytes;
  }

  // Puts damage of `kind` at `path`, starting from the database `base`; links point into `elsewhere`.
  void Place(const std::string& kind, const std::string& path, const std::string& base,
             const std::string& elsewhere) {
    const std::string aside = elsewhere + "/" + fs::path(path).filename().string();
    if (kind == "directory") {
      wup_test::MakeDirs(path);
      if (Below(2)) wup_test::WriteFile(path + "/left-over", "x");
    } else if (kind == "fifo") {
      mkfifo(path.c_str(), 0644);
    } else if (kind == "link-dangling") {
      fs::create_symlink(aside + ".none", path);
    } else if (kind == "link-to-valid" || kind == "link-to-damaged") {
      wup_test::WriteFile(aside, kind == "link-to-valid" ? base : Damaged(kKinds[1 + Below(3)], base));
      fs::create_symlink(aside, path);
    } else if (kind != "missing") {
      wup_test::WriteFile(path, Bytes(kind, base));
    }
  }

  std::mt19937_64 rng;
  std::string scratch;
};

// What the model expects at a path against what is there: known contents byte for byte, the plug-in's own
// by validity and records.
std::string Compare(const char* what, const Entry& expected, const Entry& actual) {
  auto describe = [](const Entry& entry) {
    static const char* const kNames[] = {"missing", "file", "directory", "fifo", "link"};
    std::string text = kNames[entry.kind];
    if (entry.content) text += entry.content->valid ? " valid" : " invalid";
    for (const auto& [name, version] :
         entry.content ? entry.content->Versions() : std::map<std::string, std::string>())
      text += name.compare(0, 3, "pad") != 0 ? " " + name + "@" + version : "";
    return text;
  };
  const auto &e = expected.content, &a = actual.content;
  const bool same =
      expected.kind == actual.kind && expected.target == actual.target && e.has_value() == a.has_value() &&
      (!e || (e->bytesKnown ? e->bytes == a->bytes : e->valid == a->valid && e->Versions() == a->Versions()));
  return same ? ""
              : std::string(" ") + what + ": expected " + describe(expected) + ", found " + describe(actual) +
                    ";";
}

// Seeds 0 to 224 give every pair of kinds once; later seeds go round again with other damage.
void RunCase(uint64_t seed, unsigned timeout, const std::string& scratch) {
  const std::string mainKind = kKinds[seed % kKindCount],
                    backupKind = kKinds[(seed / kKindCount + seed) % kKindCount];
  wup_e2e::Device device;
  device.layout().Export();
  const std::string elsewhere = device.layout().root + "/elsewhere";
  wup_test::MakeDirs(elsewhere);
  const auto package =
      campaign::MakePackage(std::string("com.korvane.tv.pepper.") + kTarget, kTargetVersion, "pepperplugin");
  device.Place(package);

  Damage damage{std::mt19937_64(seed), scratch};
  const bool swapped = damage.Below(4) == 0;
  static const std::string older = BuildDatabase(scratch, "ours", "1.0"),
                           newer = BuildDatabase(scratch, "ours", "2.0");
  damage.Place(mainKind, device.DatabasePath(), swapped ? older : newer, elsewhere);
  damage.Place(backupKind, device.BackupPath(), swapped ? newer : older, elsewhere);

  Model model{Observe(device.DatabasePath(), scratch), Observe(device.BackupPath(), scratch)};
  std::map<std::string, std::string> aside;  // files behind links, byte for byte
  for (const auto& file : fs::directory_iterator(elsewhere))
    aside[file.path()] = wup_test::ReadFile(file.path());
  const std::string label = model.Install();
  const std::string where = "seed " + std::to_string(seed) + ": main " + mainKind + ", backup " + backupKind +
                            (swapped ? " (swapped)" : "");
  campaign::Note("expected", label, where);

  const int status = campaign::Call("install", package, {}, timeout);
  if (status != 0) {
    const std::string finding = status == 128 + SIGALRM ? "hang" : "crash";
    return campaign::Note("finding", finding, where + ", status " + std::to_string(status), true);
  }
  const Entry &main = model.main, &backup = model.backup;
  std::string diff = Compare("main", main, Observe(device.DatabasePath(), scratch)) +
                     Compare("backup", backup, Observe(device.BackupPath(), scratch));
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
  if (device.ResultFile().empty() || published != model.published)
    diff += " result file: expected " + std::string(model.published ? "" : "no ") + "record of target;";
  if (!diff.empty()) campaign::Note("finding", "mismatch", where + ", expected " + label + ":" + diff, true);
}

}  // namespace

int main(int argc, char** argv) {
  unsigned long first = 0, end = 500, timeout = 10;
  if (argc > 3 || (argc > 1 && std::sscanf(argv[1], "%lu:%lu", &first, &end) != 2) ||
      (argc > 2 && std::sscanf(argv[2], "%lu", &timeout) != 1)) {
    std::fprintf(stderr, "usage: %s [FIRST:END [TIMEOUT]]\n", argv[0]);
    return 2;
  }
  const std::string scratch = wup_test::MakeTempDir("wup-corrupt");
  std::printf("%lu cases (seeds %lu:%lu)\n", end - first, first, end);
  for (uint64_t seed = first; seed < end; ++seed) RunCase(seed, static_cast<unsigned>(timeout), scratch);
  wup_test::RemoveTree(scratch);
}
