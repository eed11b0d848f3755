// The install benchmark: one install (and one uninstall) of a pepper plug-in package, each in a fresh
// process through the entry point as the device's installer makes it, on a sandbox device that already
// has N plug-in packages installed and recorded; beside it the floor (bench_floor) doing the same
// mandatory work on the same device, with and without the platform calls. Reports CPU time (user +
// system of the process, median of the runs) and, under valgrind's callgrind, instructions, with the
// share that the host stand-ins of the platform take, and the fsync and fdatasync calls of each. With
// --hardened, a second build of the plug-in (the hardened one) is measured beside the default build.
// The figures are reported only when every program left the same device as the plug-in: a disagreement
// ends the benchmark with status 1 before any ratio is printed. See bench/README.md.
//
//   bench_install [--counts 0,100,1000,3000] [--runs 7] [--no-instructions] [--hardened PLUGIN.so]
//                 [--dir DIR] [--keep]
//
// The devices are made under DIR (default: /dev/shm when there is one, else /tmp): thousands of small
// files are copied and removed for every run, which a disk mounted with online discard takes seconds for.
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "hostkit/layout.h"
#include "hostkit/plugin_call.h"

namespace fs = std::filesystem;

namespace {

const std::string kNamespace = METADATA_NAMESPACE;
const std::string kTypeKey = kNamespace + "upgradable_webapi_type";
const std::string kAppListKey = kNamespace + "upgradable_webapi_applist";
const std::string kNewPackage = "com.korvane.tv.pepper.newplayer";
const std::string kNewAppList = "NwPlayer01.Main";

std::string ReadFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void WriteFile(const fs::path& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
  if (!out.flush()) throw std::runtime_error("cannot write " + path.string());
}

std::string Numbered(int i) {
  char text[16];
  std::snprintf(text, sizeof text, "%04d", i);
  return text;
}

std::string PackageOf(int i) { return "com.korvane.tv.pepper.bench" + Numbered(i); }
std::string AppListOf(int i) { return "Bn" + Numbered(i) + "App.Main"; }

// A manifest as an SDK writes one: profile, an application with label, icon and the plug-in's
// metadata, privileges and a feature.
std::string Manifest(const std::string& pkgid, const std::string& appList) {
  return "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
         "<manifest xmlns=\"http://tizen.org/ns/packages\" api-version=\"6.0\" package=\"" +
         pkgid +
         "\" version=\"1.0.0\">\n"
         "    <profile name=\"tv\"/>\n"
         "    <service-application appid=\"" +
         pkgid +
         "\" exec=\"plugin\" type=\"capp\" multiple=\"false\""
         " taskmanage=\"false\" nodisplay=\"true\">\n"
         "        <label>Web API plug-in " +
         pkgid.substr(pkgid.rfind('.') + 1) +
         "</label>\n"
         "        <icon>plugin.png</icon>\n"
         "        <metadata key=\"" +
         kTypeKey +
         "\" value=\"pepperplugin\"/>\n"
         "        <metadata key=\"" +
         kAppListKey + "\" value=\"" + appList +
         "\"/>\n"
         "    </service-application>\n"
         "    <privileges>\n"
         "        <privilege>http://tizen.org/privilege/internet</privilege>\n"
         "        <privilege>http://tizen.org/privilege/network.get</privilege>\n"
         "        <privilege>http://tizen.org/privilege/appmanager.launch</privilege>\n"
         "    </privileges>\n"
         "    <feature name=\"http://tizen.org/feature/screen.size.all\">true</feature>\n"
         "</manifest>\n";
}

// ---- processes --------------------------------------------------------------------------------------------

// A sandbox device under `root`, laid out as every host program lays one out (hostkit/layout.h).
struct Device {
  fs::path root;
  hostkit::Layout Paths() const { return hostkit::Layout::At(root.string()); }
  fs::path Db() const { return Paths().Database(); }
  fs::path Backup() const { return Paths().Backup(); }
  fs::path RwApp() const { return Paths().rwApp; }
  fs::path Result() const { return Paths().ResultFile(); }
  fs::path Log() const { return Paths().log; }
  fs::path Terminated() const { return Paths().TerminatedFile(); }
  std::vector<std::string> Environment() const { return Paths().Environment(); }
};

struct Usage {
  double cpu = 0;   // user + system seconds of the process
  double wall = 0;  // seconds from its start to its end, waiting on the disk included
};

// Runs a program to its end with the device's environment (and `extra` variables).
Usage Run(const Device& device, const std::vector<std::string>& args,
          const std::vector<std::string>& extra = {}) {
  const auto start = std::chrono::steady_clock::now();
  const pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    // The device's installer runs with a small environment of its own, and so do the measured processes:
    // their figures do not depend on the shell that started the benchmark (the log stand-in looks its
    // file up in the environment on every line).
    const char* path = std::getenv("PATH");
    const std::string searched = path != nullptr ? path : "/usr/bin:/bin";
    clearenv();
    setenv("PATH", searched.c_str(), 1);
    for (const std::string& entry : device.Environment()) putenv(strdup(entry.c_str()));
    for (const std::string& entry : extra) putenv(strdup(entry.c_str()));
    std::vector<char*> argv;
    for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    execvp(argv[0], argv.data());
    std::perror(argv[0]);
    _exit(127);
  }
  int status = 0;
  rusage usage{};
  if (wait4(pid, &status, 0, &usage) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    throw std::runtime_error("failed: " + args.front() + " " + args.at(1) + " " + args.at(2));
  }
  const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - start;
  auto seconds = [](const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; };
  return {seconds(usage.ru_utime) + seconds(usage.ru_stime), wall.count()};
}

struct SyncCount {
  long calls = -1;
  double seconds = 0;  // spent inside the calls, waiting for the disk
};

// The fsync and fdatasync calls of one run, counted and timed by the preloaded counter (count_syncs.c).
SyncCount Syncs(const Device& device, const std::vector<std::string>& args, const fs::path& countFile) {
  fs::remove(countFile);
  // A program built with AddressSanitizer refuses a preloaded library ahead of its runtime; the counter
  // defines nothing that the runtime intercepts.
  Run(device, args,
      {"LD_PRELOAD=" BENCH_SYNC_COUNTER, "BENCH_SYNC_COUNT_FILE=" + countFile.string(),
       "ASAN_OPTIONS=verify_asan_link_order=0"});
  std::ifstream in(countFile);
  SyncCount count;
  unsigned long long nanoseconds = 0;
  if (!(in >> count.calls >> nanoseconds)) {
    throw std::runtime_error("the sync counter left no count for " + args.front());
  }
  count.seconds = nanoseconds / 1e9;
  return count;
}

std::vector<std::string> PluginCall(const std::string& operation, const std::string& pkgid,
                                    const std::string& appList, const std::string& plugin = BENCH_PLUGIN) {
  return {
      BENCH_CALL, plugin, operation, pkgid, pkgid, kTypeKey + "=pepperplugin", kAppListKey + "=" + appList};
}

// Which build a plug-in library is: the policy name it exports.
std::string PolicyOf(const std::string& plugin) {
  const std::string policy = hostkit::PluginLibrary(plugin).PolicyName();
  return policy.empty() ? "no policy name" : policy;
}

// ---- the device with N recorded plug-ins ------------------------------------------------------------------

void Exec(sqlite3* db, const std::string& sql) {
  char* error = nullptr;
  if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &error) != SQLITE_OK) {
    const std::string message = error != nullptr ? error : "?";
    sqlite3_free(error);
    throw std::runtime_error("seeding: " + message);
  }
}

// The plug-in creates its database (an uninstall of an unknown package does, on a fresh device) before any
// package is placed: a build that rebuilds lost records from the installed packages finds none, and
// every build starts from the same empty tables. The N records are then added as the plug-in would have
// stored them, and the backup made equal.
Device Seed(const fs::path& root, int count) {
  Device device{root};
  fs::remove_all(root);
  device.Paths().Create();
  WriteFile(device.Paths().ForegroundFile(), "TvHome0001.Main\n");
  Run(device, PluginCall("uninstall", "com.korvane.tv.pepper.none", ""));
  auto place = [&](const std::string& pkgid, const std::string& appList) {
    WriteFile(device.Paths().Manifest(pkgid, false), Manifest(pkgid, appList));
    fs::create_directories(device.RwApp() / pkgid / "shared" / "res");
  };
  for (int i = 1; i <= count; ++i) place(PackageOf(i), AppListOf(i));
  place(kNewPackage, kNewAppList);

  sqlite3* raw = nullptr;
  sqlite3_open_v2(device.Db().c_str(), &raw, SQLITE_OPEN_READWRITE, nullptr);
  std::unique_ptr<sqlite3, decltype(&sqlite3_close)> db(raw, sqlite3_close);
  Exec(db.get(), "BEGIN");
  for (int i = 1; i <= count; ++i) {
    const std::string pkgid = PackageOf(i);
    std::unique_ptr<char, decltype(&sqlite3_free)> sql(
        sqlite3_mprintf("insert into pluginTable values(%Q,'1.0.0',%Q,%Q,'',1,0,1,%Q,'')",
                        ("bench" + Numbered(i)).c_str(), (device.RwApp() / pkgid / "shared/res/").c_str(),
                        pkgid.c_str(), AppListOf(i).c_str()),
        sqlite3_free);
    Exec(db.get(), sql.get());
  }
  Exec(db.get(), "COMMIT");
  db.reset();
  fs::copy_file(device.Db(), device.Backup(), fs::copy_options::overwrite_existing);
  fs::remove(device.Log());
  fs::remove(device.Terminated());
  return device;
}

Device Fresh(const Device& seeded, const fs::path& root) {
  fs::remove_all(root);
  fs::copy(seeded.root, root, fs::copy_options::recursive);
  return Device{root};
}

// ---- what a run left behind -------------------------------------------------------------------------------

std::string Rows(const Device& device) {
  sqlite3* raw = nullptr;
  sqlite3_open_v2(device.Db().c_str(), &raw, SQLITE_OPEN_READONLY, nullptr);
  std::unique_ptr<sqlite3, decltype(&sqlite3_close)> db(raw, sqlite3_close);
  std::string rows;
  auto append = [](void* out, int columns, char** values, char**) {
    for (int i = 0; i < columns; ++i)
      *static_cast<std::string*>(out) += (values[i] ? values[i] : "NULL") + std::string("|");
    *static_cast<std::string*>(out) += "\n";
    return 0;
  };
  sqlite3_exec(db.get(), "select * from pluginTable order by name", append, &rows, nullptr);
  return rows;
}

struct Outcome {
  std::string result, rows, terminated;
  long logLines = 0;
  bool backupEqual = false;
};

Outcome Observe(const Device& device) {
  const std::string log = ReadFile(device.Log());
  return {ReadFile(device.Result()), Rows(device), ReadFile(device.Terminated()),
          static_cast<long>(std::count(log.begin(), log.end(), '\n')),
          ReadFile(device.Db()) == ReadFile(device.Backup())};
}

// How much of the plug-in's traces another program must leave: all of them; the files only (the bare floor
// makes no platform call); or the files and the terminations (another build of the plug-in may log
// differently where it works differently).
enum class Agreement { kFull, kFiles, kFilesAndTerminations };

// Empty when the two runs left the same; otherwise what differs.
std::string Compare(const Outcome& plugin, const Outcome& other, Agreement agreement) {
  std::string differences;
  if (plugin.result != other.result) differences += " result-file";
  if (plugin.rows != other.rows) differences += " rows";
  if (!other.backupEqual) differences += " backup";
  if (agreement != Agreement::kFiles && plugin.terminated != other.terminated) differences += " terminations";
  if (agreement == Agreement::kFull && plugin.logLines != other.logLines) {
    differences +=
        " log-lines(" + std::to_string(plugin.logLines) + "/" + std::to_string(other.logLines) + ")";
  }
  return differences;
}

// ---- callgrind --------------------------------------------------------------------------------------------

bool IsStandIn(const std::string& object) { return object.find("/platform/host/") != std::string::npos; }

bool IsPlatformFunction(const std::string& name) {
  return name == "__dlog_print" || name == "tzplatform_getenv" || name.rfind("pkgmgrinfo_", 0) == 0 ||
         name.rfind("vex_", 0) == 0;
}

struct Profile {
  unsigned long long total = 0;
  std::map<std::string, unsigned long long> selfByObject;
  std::map<std::string, unsigned long long> platformByObject;  // platform calls, inclusive, per stand-in
  unsigned long long Platform() const {
    unsigned long long sum = 0;
    for (const auto& entry : platformByObject) sum += entry.second;
    return sum;
  }
};

// Reads callgrind's output: self cost per object, and the inclusive cost of each platform function that
// a stand-in defines (its own cost plus that of the calls it makes).
Profile ReadProfile(const fs::path& path) {
  std::ifstream in(path);
  std::map<std::string, std::string> objects, functions;
  auto resolve = [](std::map<std::string, std::string>& names, const std::string& spec) {
    if (spec.empty() || spec[0] != '(') return spec;
    const size_t close = spec.find(')');
    const std::string id = spec.substr(0, close + 1);
    if (close + 2 <= spec.size()) names[id] = spec.substr(close + 2);
    return names[id];
  };
  Profile profile;
  std::map<std::pair<std::string, std::string>, unsigned long long> inclusive;
  std::string object, function;
  bool callCost = false;
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("ob=", 0) == 0) {
      object = resolve(objects, line.substr(3));
    } else if (line.rfind("cob=", 0) == 0) {
      resolve(objects, line.substr(4));
    } else if (line.rfind("fn=", 0) == 0) {
      function = resolve(functions, line.substr(3));
    } else if (line.rfind("cfn=", 0) == 0) {
      resolve(functions, line.substr(4));
    } else if (line.rfind("calls=", 0) == 0) {
      callCost = true;
    } else if (line.rfind("totals:", 0) == 0 || line.rfind("summary:", 0) == 0) {
      profile.total = std::stoull(line.substr(line.find(':') + 1));
    } else if (!line.empty() && (std::isdigit(static_cast<unsigned char>(line[0])) || line[0] == '+' ||
                                 line[0] == '-' || line[0] == '*')) {
      std::istringstream fields(line);
      std::string position;
      unsigned long long cost = 0;
      fields >> position >> cost;
      inclusive[{object, function}] += cost;
      if (!callCost) profile.selfByObject[object] += cost;
      callCost = false;
    }
  }
  for (const auto& [where, cost] : inclusive) {
    if (IsStandIn(where.first) && IsPlatformFunction(where.second))
      profile.platformByObject[where.first] += cost;
  }
  return profile;
}

Profile Instructions(const Device& device, std::vector<std::string> args, const fs::path& out) {
  args.insert(args.begin(),
              {"valgrind", "--tool=callgrind", "--quiet", "--callgrind-out-file=" + out.string()});
  Run(device, args);
  return ReadProfile(out);
}

// ---- the benchmark ----------------------------------------------------------------------------------------

// A program and its arguments for the device it runs on.
struct Variant {
  const char* name;
  std::function<std::vector<std::string>(const Device&)> args;
  Agreement agreement;
};

struct Figures {
  double cpu = 0;       // seconds, median
  double wall = 0;      // seconds, median
  long syncs = 0;       // fsync and fdatasync calls
  double syncTime = 0;  // seconds inside them, median
  Profile profile;
};

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

struct Options {
  std::vector<int> counts = {0, 100, 1000, 3000};
  int runs = 7;
  bool instructions = true;
  std::string hardened;  // a second build of the plug-in, measured beside the default one
  fs::path dir = fs::is_directory("/dev/shm") ? "/dev/shm" : "/tmp";
  bool keep = false;
};

std::string Ratio(double a, double b) {
  char text[32];
  std::snprintf(text, sizeof text, "%.2f", b > 0 ? a / b : 0.0);
  return text;
}

std::string Millis(double seconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%.2f", seconds * 1000);
  return text;
}

std::string Millions(unsigned long long count) {
  char text[32];
  std::snprintf(text, sizeof text, "%.2f", count / 1e6);
  return text;
}

std::string Percent(unsigned long long part, unsigned long long whole) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f%%", whole > 0 ? 100.0 * part / whole : 0.0);
  return text;
}

// Ends the benchmark when a program did not leave what the plug-in left: it would be measured doing other
// work, and the ratios would mean nothing.
void RequireAgreement(const std::vector<Variant>& variants, const std::vector<Outcome>& outcomes,
                      const std::string& what) {
  std::string differences;
  for (size_t v = 1; v < variants.size(); ++v) {
    const std::string differ = Compare(outcomes[0], outcomes[v], variants[v].agreement);
    if (!differ.empty())
      differences += std::string(differences.empty() ? " " : "; ") + variants[v].name + ":" + differ;
  }
  if (!differences.empty()) {
    throw std::runtime_error(what + ": left other than the plug-in did:" + differences +
                             "; no figures are reported");
  }
}

// One operation at one N: every variant `runs` times, interleaved, each on a fresh copy of the device.
// What the first runs left is compared before anything else is measured.
std::vector<Figures> Measure(const Device& seeded, const fs::path& work, const std::vector<Variant>& variants,
                             bool uninstall, const Options& options, const std::string& what) {
  std::vector<std::vector<double>> cpu(variants.size()), wall(variants.size());
  std::vector<Figures> figures(variants.size());
  std::vector<Outcome> outcomes(variants.size());
  auto prepare = [&]() {
    Device device = Fresh(seeded, work);
    if (uninstall) {
      Run(device, PluginCall("install", kNewPackage, kNewAppList));
      fs::remove(device.Log());
      fs::remove(device.Terminated());
    }
    return device;
  };
  for (int run = 0; run < options.runs; ++run) {
    for (size_t v = 0; v < variants.size(); ++v) {
      const Device device = prepare();
      const Usage usage = Run(device, variants[v].args(device));
      cpu[v].push_back(usage.cpu);
      wall[v].push_back(usage.wall);
      if (run == 0) outcomes[v] = Observe(device);
    }
    if (run == 0) RequireAgreement(variants, outcomes, what);
  }
  for (size_t v = 0; v < variants.size(); ++v) {
    figures[v].cpu = Median(cpu[v]);
    figures[v].wall = Median(wall[v]);
    // As many counted runs as timed ones: the count must not change, the time inside the calls is the
    // median.
    std::vector<double> syncTimes;
    for (int run = 0; run < options.runs; ++run) {
      const Device device = prepare();
      const SyncCount count = Syncs(device, variants[v].args(device), work.string() + ".syncs");
      if (run > 0 && count.calls != figures[v].syncs) {
        throw std::runtime_error(what + ": " + variants[v].name + " made " +
                                 std::to_string(figures[v].syncs) + " syncs in one run and " +
                                 std::to_string(count.calls) + " in another");
      }
      figures[v].syncs = count.calls;
      syncTimes.push_back(count.seconds);
    }
    figures[v].syncTime = Median(syncTimes);
    if (options.instructions) {
      const Device device = prepare();
      figures[v].profile = Instructions(device, variants[v].args(device), work.string() + ".callgrind");
    }
  }
  return figures;
}

void PrintTable(const char* operation, const std::vector<int>& counts,
                const std::vector<std::vector<Figures>>& rows, bool instructions) {
  std::printf(
      "\n%s: CPU ms (median), instructions (millions), ratios plug-in / floor, fsync + fdatasync calls\n\n",
      operation);
  std::printf(
      "| N | CPU plug-in | CPU floor | CPU bare floor | plug-in / floor | plug-in / bare floor | syncs "
      "plug-in, floor, bare floor |");
  if (instructions)
    std::printf(
        " Ir plug-in | Ir floor | Ir bare floor | plug-in / floor | plug-in / bare floor | stand-ins' share "
        "|");
  std::printf("\n|---|---|---|---|---|---|---|%s\n", instructions ? "---|---|---|---|---|---|" : "");
  for (size_t i = 0; i < counts.size(); ++i) {
    const Figures& plugin = rows[i][0];
    const Figures& floor = rows[i][1];
    const Figures& bare = rows[i][2];
    std::printf("| %d | %s | %s | %s | %s | %s | %ld, %ld, %ld |", counts[i], Millis(plugin.cpu).c_str(),
                Millis(floor.cpu).c_str(), Millis(bare.cpu).c_str(), Ratio(plugin.cpu, floor.cpu).c_str(),
                Ratio(plugin.cpu, bare.cpu).c_str(), plugin.syncs, floor.syncs, bare.syncs);
    if (instructions) {
      const unsigned long long p = plugin.profile.total, f = floor.profile.total, b = bare.profile.total;
      std::printf(" %s | %s | %s | %s | %s | %s |", Millions(p).c_str(), Millions(f).c_str(),
                  Millions(b).c_str(), Ratio(p, f).c_str(), Ratio(p, b).c_str(),
                  Percent(plugin.profile.Platform(), p).c_str());
    }
    std::printf("\n");
  }
  if (!instructions || counts.size() < 2) return;
  std::printf("\nInstructions per recorded plug-in between successive N (plug-in, floor):");
  for (size_t i = 1; i < counts.size(); ++i) {
    const double span = counts[i] - counts[i - 1];
    std::printf(" %d..%d: %.0f, %.0f;", counts[i - 1], counts[i],
                (static_cast<double>(rows[i][0].profile.total) - rows[i - 1][0].profile.total) / span,
                (static_cast<double>(rows[i][1].profile.total) - rows[i - 1][1].profile.total) / span);
  }
  std::printf("\n");
}

// The second build against the default one, install by install.
void PrintHardened(const std::vector<int>& counts, const std::vector<std::vector<Figures>>& rows,
                   size_t hardened, bool instructions) {
  std::printf(
      "\nInstall, hardened / default build: instructions (millions), CPU and wall ms (median), "
      "fsync + fdatasync calls and ms inside them (median)\n\n| N |");
  if (instructions) std::printf(" Ir default | Ir hardened | hardened / default |");
  std::printf(
      " CPU default | CPU hardened | hardened / default | wall default | wall hardened | hardened / default |"
      " syncs default | syncs hardened | sync ms default | sync ms hardened |\n"
      "|---|%s---|---|---|---|---|---|---|---|---|---|\n",
      instructions ? "---|---|---|" : "");
  for (size_t i = 0; i < counts.size(); ++i) {
    const Figures& base = rows[i][0];
    const Figures& other = rows[i][hardened];
    std::printf("| %d |", counts[i]);
    if (instructions) {
      const unsigned long long b = base.profile.total, h = other.profile.total;
      std::printf(" %s | %s | %s |", Millions(b).c_str(), Millions(h).c_str(), Ratio(h, b).c_str());
    }
    std::printf(" %s | %s | %s | %s | %s | %s | %ld | %ld | %s | %s |\n", Millis(base.cpu).c_str(),
                Millis(other.cpu).c_str(), Ratio(other.cpu, base.cpu).c_str(), Millis(base.wall).c_str(),
                Millis(other.wall).c_str(), Ratio(other.wall, base.wall).c_str(), base.syncs, other.syncs,
                Millis(base.syncTime).c_str(), Millis(other.syncTime).c_str());
  }
}

void PrintBreakdown(int count, const Profile& profile) {
  std::printf("\nWhere the plug-in's install goes at N = %d (%s million instructions):\n", count,
              Millions(profile.total).c_str());
  std::printf("  platform calls, inclusive, per stand-in:");
  for (const auto& [object, cost] : profile.platformByObject) {
    std::printf(" %s %s;", fs::path(object).filename().c_str(), Percent(cost, profile.total).c_str());
  }
  std::printf("\n  own instructions per object:");
  std::vector<std::pair<unsigned long long, std::string>> objects;
  for (const auto& [object, cost] : profile.selfByObject) objects.emplace_back(cost, object);
  std::sort(objects.rbegin(), objects.rend());
  for (const auto& [cost, object] : objects) {
    if (cost * 100 >= profile.total)
      std::printf(" %s %s;", fs::path(object).filename().c_str(), Percent(cost, profile.total).c_str());
  }
  std::printf("\n");
}

std::vector<int> ParseCounts(const std::string& list) {
  std::vector<int> counts;
  std::istringstream items(list);
  for (std::string item; std::getline(items, item, ',');) counts.push_back(std::stoi(item));
  return counts;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--counts" && i + 1 < argc) {
      options.counts = ParseCounts(argv[++i]);
    } else if (arg == "--runs" && i + 1 < argc) {
      options.runs = std::max(1, std::atoi(argv[++i]));
    } else if (arg == "--no-instructions") {
      options.instructions = false;
    } else if (arg == "--hardened" && i + 1 < argc) {
      options.hardened = argv[++i];
    } else if (arg == "--dir" && i + 1 < argc) {
      options.dir = argv[++i];
    } else if (arg == "--keep") {
      options.keep = true;
    } else {
      std::fprintf(
          stderr,
          "usage: %s [--counts 0,100,1000,3000] [--runs 7] [--no-instructions] [--hardened PLUGIN.so]\n"
          "       [--dir DIR] [--keep]\n",
          argv[0]);
      return 2;
    }
  }
  std::string pattern = (options.dir / "bench_install.XXXXXX").string();
  if (mkdtemp(&pattern[0]) == nullptr) {
    std::perror(pattern.c_str());
    return 1;
  }
  const fs::path top = pattern;

  using Args = std::vector<std::string>;
  // The bare floor is told the facts that the platform answers on the device.
  std::vector<Variant> install = {
      {"plug-in", [](const Device&) { return PluginCall("install", kNewPackage, kNewAppList); },
       Agreement::kFull},
      {"floor",
       [](const Device&) {
         return Args{BENCH_FLOOR, "install", kNewPackage};
       },
       Agreement::kFull},
      {"bare floor",
       [](const Device& device) {
         return Args{BENCH_FLOOR,
                     "install",
                     kNewPackage,
                     "--bare",
                     "1.0.0",
                     "pepperplugin",
                     (device.RwApp() / kNewPackage).string(),
                     kNewAppList};
       },
       Agreement::kFiles}};
  const std::vector<Variant> uninstall = {
      {"plug-in", [](const Device&) { return PluginCall("uninstall", kNewPackage, kNewAppList); },
       Agreement::kFull},
      {"floor",
       [](const Device&) {
         return Args{BENCH_FLOOR, "uninstall", kNewPackage};
       },
       Agreement::kFull},
      {"bare floor",
       [](const Device&) {
         return Args{BENCH_FLOOR, "uninstall", kNewPackage, "--bare"};
       },
       Agreement::kFiles}};
  const size_t hardened = install.size();

  std::vector<std::vector<Figures>> installs, uninstalls;
  try {
    if (!options.hardened.empty()) {
      install.push_back(
          {"hardened",
           [&](const Device&) { return PluginCall("install", kNewPackage, kNewAppList, options.hardened); },
           Agreement::kFilesAndTerminations});
      std::printf("default build: %s (%s)\nhardened build: %s (%s)\n", BENCH_PLUGIN,
                  PolicyOf(BENCH_PLUGIN).c_str(), options.hardened.c_str(),
                  PolicyOf(options.hardened).c_str());
    }
    for (int count : options.counts) {
      const std::string at = "N = " + std::to_string(count);
      std::fprintf(stderr, "%s: seeding...\n", at.c_str());
      const Device seeded = Seed(top / ("device-" + std::to_string(count)), count);
      std::fprintf(stderr, "%s: install...\n", at.c_str());
      installs.push_back(Measure(seeded, top / "work", install, false, options, at + ", install"));
      std::fprintf(stderr, "%s: uninstall...\n", at.c_str());
      uninstalls.push_back(Measure(seeded, top / "work", uninstall, true, options, at + ", uninstall"));
      std::printf(
          "%s: floor and plug-in left the same result file, rows, backup, terminations and log line "
          "count%s\n",
          at.c_str(), options.hardened.empty() ? "" : "; the hardened build the same but for the log");
      if (!options.keep) fs::remove_all(seeded.root);
    }
  } catch (const std::exception& error) {
    std::fprintf(stderr, "bench_install: %s (devices under %s)\n", error.what(), top.c_str());
    return 1;
  }
  PrintTable("Install", options.counts, installs, options.instructions);
  PrintTable("Uninstall", options.counts, uninstalls, options.instructions);
  if (!options.hardened.empty()) PrintHardened(options.counts, installs, hardened, options.instructions);
  if (options.instructions) {
    for (size_t i = 0; i < options.counts.size(); ++i)
      PrintBreakdown(options.counts[i], installs[i][0].profile);
  }
  if (options.keep) {
    std::fprintf(stderr, "devices kept under %s\n", top.c_str());
  } else {
    fs::remove_all(top);
  }
  return 0;
}
