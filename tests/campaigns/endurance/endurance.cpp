// Endurance run: thousands of package-manager calls in one process, as a long installer request makes
// them (the plug-in loaded and unloaded around every step), through installs, upgrades, same-version
// reinstalls, uninstalls and failure paths: forced platform failures, a result file that cannot be
// written, a damaged database restored from its backup, both files lost. Descriptors, database
// connections, package-information handles and memory are taken at the same point of the cycle after a
// warm-up and at the end; they must not grow.
//
//   endurance [--ops N]    N rounded up to whole cycles (default 2000); exits 1 when anything grew
#include <dirent.h>
#include <dlfcn.h>
#include <malloc.h>
#include <sqlite3.h>
#include <unistd.h>
#include <valgrind/valgrind.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "device.h"

namespace {

using wup_e2e::Device;
using wup_e2e::Package;
using wup_e2e::Plugin;

struct Usage {
  int fds = 0;
  int databaseFds = 0;        // descriptors on the database files: open SQLite connections
  long long sqliteBytes = 0;  // memory SQLite holds (connections, statements, caches)
  int pkgInfoHandles = 0;     // package-information handles not destroyed
  long long heapBytes = 0;    // allocated from malloc and not freed
  long long rssKiB = 0;
};

Usage Measure(void* library) {
  Usage usage;
  usage.fds = wup_test::CountOpenFds();
  if (DIR* dir = opendir("/proc/self/fd")) {
    while (const dirent* entry = readdir(dir)) {
      char target[4096];
      const ssize_t length = readlinkat(dirfd(dir), entry->d_name, target, sizeof target - 1);
      if (length > 0 && std::string(target, length).find(".AppBinaryManager") != std::string::npos) {
        ++usage.databaseFds;
      }
    }
    closedir(dir);
  }
  usage.sqliteBytes = sqlite3_memory_used();
  using Counter = int (*)();
  if (auto openHandles = reinterpret_cast<Counter>(dlsym(library, "host_pkgmgrinfo_open_handles"))) {
    usage.pkgInfoHandles = openHandles();
  }
  const struct mallinfo2 heap = mallinfo2();
  usage.heapBytes = static_cast<long long>(heap.uordblks + heap.hblkhd);
  long long pages = 0, resident = 0;
  if (FILE* statm = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(statm, "%lld %lld", &pages, &resident) != 2) resident = 0;
    std::fclose(statm);
  }
  usage.rssKiB = resident * sysconf(_SC_PAGESIZE) / 1024;
  return usage;
}

void Print(const char* when, const Usage& usage) {
  std::printf(
      "%-6s fds %d, on the database %d, SQLite memory %lld B, package-information handles %d, "
      "heap in use %lld B, resident %lld KiB\n",
      when, usage.fds, usage.databaseFds, usage.sqliteBytes, usage.pkgInfoHandles, usage.heapBytes,
      usage.rssKiB);
}

Package Make(const std::string& pkgid, const std::string& kind, const std::string& appList) {
  Package package;
  package.pkgid = pkgid;
  package.kind = kind;
  package.appList = appList;
  if (kind == "xwalkplugin") {
    package.descriptions["media.json"] =
        R"([{"name": "tv.media", "lib": "libmedia.so", "entry_points": ["tizen.tvmedia"]},
            {"name": "tv.audio", "lib": "/usr/lib/ext/libaudio.so"}])";
  }
  return package;
}

class Run {
 public:
  Run() {
    device_.layout().Export();
    device_.SetForeground("App.Two");
    library_ = Load();
  }
  ~Run() { dlclose(library_); }

  void* library() const { return library_; }
  int failures() const { return failures_; }

  // One cycle of the script; each step is one call into a freshly loaded plug-in. From the second cycle on,
  // each starts from the same state: nothing recorded, the handler's map and flag as the last one left them.
  void Cycle() {
    const std::string staging = device_.ResultPath() + "_bak";
    Place(&Plugin::Install, player_, "1");
    Place(&Plugin::Install, signage_, "1");
    Place(&Plugin::Install, media_, "1");
    Place(&Plugin::Install, player_, "1");  // same version: nothing stored
    Place(&Plugin::Upgrade, player_, "2");
    Place(&Plugin::Upgrade, media_, "2");
    Place(&Plugin::Upgrade, player_, "3", "HOST_VEX_FAIL=vex_terminate_app");
    Place(&Plugin::Upgrade, signage_, "2", "HOST_VEX_FAIL=vex_get_current_showing_app");
    Place(&Plugin::Upgrade, player_, "4", "HOST_PKGMGRINFO_FAIL=pkgmgrinfo_appinfo_get_appinfo");
    Place(&Plugin::Upgrade, signage_, "3", "HOST_PKGMGRINFO_FAIL=pkgmgrinfo_pkginfo_get_version");
    wup_test::WriteFile(device_.DatabasePath(), "not a database any more");  // restored from the backup
    Place(&Plugin::Install, player_, "4");
    wup_test::WriteFile(device_.DatabasePath(), "");  // both lost: created afresh
    wup_test::WriteFile(device_.BackupPath(), "");
    Place(&Plugin::Upgrade, media_, "3");
    Expect(device_.Rows().size() == 2, "the recreated database holds only the two records stored since");
    Uninstall(player_);
    Uninstall(signage_);
    Uninstall(media_);  // by the name cut from the id: the extension records stay
    Uninstall(Make("com.korvane.tv.pepper.unknown", "pepperplugin", ""));
    wup_test::MakeDirs(staging);  // the result file cannot be written: the database is emptied
    Place(&Plugin::Install, player_, "1");
    wup_test::RemoveTree(staging);
    Expect(device_.Rows().empty(), "a failed rewrite empties the database");
    wup_test::RemoveTree(device_.layout().vex + "/terminated");
  }
  int calls() const { return calls_; }

 private:
  using EntryPoint = int (Plugin::*)(const char*, const char*, const wup_e2e::MetadataList&);

  void* Load() const {
    void* library = dlopen(WUP_PLUGIN_LIBRARY, RTLD_LAZY | RTLD_LOCAL);
    if (library == nullptr) {
      std::fprintf(stderr, "dlopen: %s\n", dlerror());
      std::exit(2);
    }
    return library;
  }

  void Expect(bool holds, const char* what) {
    if (holds) return;
    std::printf("not so: %s\n", what);
    ++failures_;
  }

  // Platform failures ("NAME=VALUE") are forced for this call only.
  void Call(EntryPoint entry, const Package& package, const std::string& forced) {
    const std::string name = forced.substr(0, forced.find('='));
    if (!forced.empty()) setenv(name.c_str(), forced.substr(name.size() + 1).c_str(), 1);
    void* library = Load();
    Plugin plugin(library);
    const int result =
        (plugin.*entry)(package.pkgid.c_str(), package.pkgid.c_str(), wup_e2e::MetadataOf(package));
    dlclose(library);
    if (!forced.empty()) unsetenv(name.c_str());
    Expect(result == 0, "every call returns 0");
    ++calls_;
  }

  // The package manager registers the package (at `version`) before the plug-in is called.
  void Place(EntryPoint entry, Package& package, const std::string& version, const std::string& forced = "") {
    package.version = version;
    device_.Place(package);
    Call(entry, package, forced);
  }
  // ... and unregisters it after.
  void Uninstall(const Package& package) {
    Call(&Plugin::Uninstall, package, "");
    wup_test::RemoveTree(device_.layout().rwPackages + "/" + package.pkgid + ".xml");
  }

  Device device_;
  void* library_ = nullptr;
  int failures_ = 0;
  int calls_ = 0;
  Package player_ = Make("com.korvane.tv.pepper.player", "pepperplugin", "App.One, App.Two");
  Package signage_ = Make("com.korvane.tv.pepper.signage", "b2bpepperplugin", "");
  Package media_ = Make("com.korvane.tv.xwalk.media", "xwalkplugin", "App.One");
};

// Growth a run may show without holding on to anything: malloc's and the kernel's bookkeeping.
constexpr long long kHeapSlackBytes = 16 * 1024;
constexpr long long kResidentSlackKiB = 512;

// Under valgrind or AddressSanitizer memory belongs to the tool's allocator, which reports leaks itself:
// there only descriptors, connections and handles are judged.
bool ToolOwnsMemory() {
#ifdef __SANITIZE_ADDRESS__
  return true;
#else
  return RUNNING_ON_VALGRIND;
#endif
}

}  // namespace

int main(int argc, char** argv) {
  // glibc's per-thread cache keeps freed blocks counted as in use: without it the heap figure is exact.
  // (valgrind has its own allocator and does not follow the new image.)
  if (!RUNNING_ON_VALGRIND && std::getenv("GLIBC_TUNABLES") == nullptr) {
    setenv("GLIBC_TUNABLES", "glibc.malloc.tcache_count=0", 1);
    execv("/proc/self/exe", argv);
  }
  sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 1);  // before the first use of SQLite in the process
  int ops = 2000;
  if (argc == 3 && std::string(argv[1]) == "--ops") {
    ops = std::atoi(argv[2]);
  } else if (argc != 1) {
    std::fprintf(stderr, "usage: %s [--ops N]\n", argv[0]);
    return 2;
  }
  Run run;
  const int warmUp = 2;
  for (int i = 0; i < warmUp; ++i) run.Cycle();
  const Usage start = Measure(run.library());
  const int startCalls = run.calls();
  int cycles = warmUp;
  for (; cycles == warmUp || run.calls() < ops; ++cycles) run.Cycle();
  const Usage end = Measure(run.library());

  std::printf("%d operations in %d cycles, measured after the first %d (%d operations)\n", run.calls(),
              cycles, warmUp, startCalls);
  Print("start", start);
  Print("end", end);
  const bool flat = end.fds == start.fds && end.databaseFds == 0 && end.pkgInfoHandles == 0 &&
                    end.sqliteBytes <= start.sqliteBytes &&
                    (ToolOwnsMemory() || (end.heapBytes <= start.heapBytes + kHeapSlackBytes &&
                                          end.rssKiB <= start.rssKiB + kResidentSlackKiB));
  if (!flat) std::printf("not so: descriptors, connections, handles and memory stay where they were\n");
  return flat && run.failures() == 0 ? 0 : 1;
}
