// Endurance run: thousands of package-manager calls in one process, as a long installer request makes
// them (the plug-in loaded and unloaded around every step), through installs, upgrades, same-version
// reinstalls, uninstalls and failure paths: forced platform failures, a result file that cannot be
// written, a damaged database restored from its backup, both files lost. Descriptors, database
// connections, package-information handles and memory are taken at the same point of the cycle after a
// warm-up and at the end; they must not grow.
//
//   endurance_campaign [OPERATIONS]    rounded up to whole cycles (default 2000); exits 1 when anything grew
#include <dlfcn.h>
#include <malloc.h>
#include <valgrind/valgrind.h>

#include <filesystem>
#include <fstream>

#include "campaign.h"

using wup_e2e::Package;
using wup_e2e::Plugin;

namespace {

struct Usage {
  long long fds = -1;         // not counting the listing's own
  long long databaseFds = 0;  // descriptors on the database files: open SQLite connections
  long long pkgInfoHandles = 0, sqliteBytes = 0, heapBytes = 0, residentKiB = 0;
};

Usage Measure(void* library) {
  Usage usage;
  for (const auto& fd : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code closed;
    ++usage.fds;
    if (read_symlink(fd.path(), closed).string().find(".AppBinaryManager") != std::string::npos)
      ++usage.databaseFds;
  }
  if (auto openHandles = reinterpret_cast<int (*)()>(dlsym(library, "host_pkgmgrinfo_open_handles")))
    usage.pkgInfoHandles = openHandles();
  usage.sqliteBytes = sqlite3_memory_used();
  const struct mallinfo2 heap = mallinfo2();
  usage.heapBytes = static_cast<long long>(heap.uordblks + heap.hblkhd);
  long long pages = 0;
  std::ifstream("/proc/self/statm") >> pages >> usage.residentKiB;
  usage.residentKiB *= sysconf(_SC_PAGESIZE) / 1024;
  std::printf(
      "fds %lld, on the database %lld, SQLite memory %lld B, package-information handles %lld, heap in use "
      "%lld B, resident %lld KiB\n",
      usage.fds, usage.databaseFds, usage.sqliteBytes, usage.pkgInfoHandles, usage.heapBytes,
      usage.residentKiB);
  return usage;
}

struct Run {
  using EntryPoint = int (Plugin::*)(const char*, const char*, const wup_e2e::MetadataList&);

  Run() {
    device.layout().Export();
    device.SetForeground("Ab3Cd5Ef7G.SportsLive");    // the player's: terminated when it is upgraded
    library = dlopen(WUP_PLUGIN_LIBRARY, RTLD_LAZY);  // it builds its paths when first loaded: after Export
  }
  ~Run() { dlclose(library); }

  void Expect(bool holds, const char* what) {
    if (!holds) std::printf("not so: %s\n", what);
    failures += holds ? 0 : 1;
  }

  // The package manager registers the package at `version` before the plug-in is called (an uninstall
  // leaves it registered); a platform failure "NAME=VALUE" is forced for this call only.
  void Call(EntryPoint entry, Package& package, const char* version, const std::string& forced = "") {
    if (*version != '\0') {
      package.version = version;
      device.Place(package);
    }
    const std::string name = forced.substr(0, forced.find('='));
    if (!forced.empty()) setenv(name.c_str(), forced.substr(name.size() + 1).c_str(), 1);
    void* loaded = dlopen(WUP_PLUGIN_LIBRARY, RTLD_LAZY | RTLD_LOCAL);  // a failure throws in Plugin
    const int result =
        (Plugin(loaded).*entry)(package.pkgid.c_str(), package.pkgid.c_str(), MetadataOf(package));
    dlclose(loaded);
    if (!forced.empty()) unsetenv(name.c_str());
    Expect(result == 0, "every call returns 0");
    ++calls;
  }

  // One cycle of the script; each step is one call into a freshly loaded plug-in. From the second cycle on,
  // each starts from the same state: nothing recorded, the handler's map and flag as the last one left them.
  void Cycle() {
    const std::string staging = device.ResultPath() + "_bak";
    Call(&Plugin::Install, player, "1");
    Call(&Plugin::Install, signage, "1");
    Call(&Plugin::Install, media, "1");
    Call(&Plugin::Install, player, "1");  // same version: nothing stored
    Call(&Plugin::Upgrade, player, "2");
    Call(&Plugin::Upgrade, media, "2");
    Call(&Plugin::Upgrade, player, "3", "HOST_VEX_FAIL=vex_terminate_app");
    Call(&Plugin::Upgrade, signage, "2", "HOST_VEX_FAIL=vex_get_current_showing_app");
    Call(&Plugin::Upgrade, player, "4", "HOST_PKGMGRINFO_FAIL=pkgmgrinfo_appinfo_get_appinfo");
    Call(&Plugin::Upgrade, signage, "3", "HOST_PKGMGRINFO_FAIL=pkgmgrinfo_pkginfo_get_version");
    wup_test::WriteFile(device.DatabasePath(), "not a database any more");  // restored from the backup
    Call(&Plugin::Install, player, "4");
    wup_test::WriteFile(device.DatabasePath(), "");  // both lost: created afresh
    wup_test::WriteFile(device.BackupPath(), "");
    Call(&Plugin::Upgrade, media, "3");
    Expect(device.Rows().size() == 2, "the recreated database holds only the two records stored since");
    for (Package* package : {&player, &signage, &media, &unknown}) {  // xwalk: its extension records stay
      Call(&Plugin::Uninstall, *package, "");
      wup_test::RemoveTree(device.layout().rwPackages + "/" + package->pkgid + ".xml");
    }
    wup_test::MakeDirs(staging);  // the result file cannot be written: the database is emptied
    Call(&Plugin::Install, player, "1");
    wup_test::RemoveTree(staging);
    Expect(device.Rows().empty(), "a failed rewrite empties the database");
    wup_test::RemoveTree(device.layout().vex + "/terminated");
  }

  wup_e2e::Device device;
  void* library = nullptr;
  int failures = 0, calls = 0;
  Package player = campaign::Player("1"), signage = campaign::Signage("1"), media = campaign::Ambient("1");
  Package unknown = campaign::MakePackage("com.korvane.tv.pepper.unknown", "1", "pepperplugin");
};

}  // namespace

int main(int argc, char** argv) {
  // glibc's per-thread cache keeps freed blocks counted as in use: without it the heap figure is exact.
  // (valgrind has its own allocator and does not follow the new image.)
  if (!RUNNING_ON_VALGRIND && std::getenv("GLIBC_TUNABLES") == nullptr) {
    setenv("GLIBC_TUNABLES", "glibc.malloc.tcache_count=0", 1);
    execv("/proc/self/exe", argv);
  }
  sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 1);  // before the first use of SQLite in the process
  const int ops = argc > 1 ? std::atoi(argv[1]) : 2000;
  if (argc > 2 || ops < 1) {
    std::fprintf(stderr, "usage: %s [OPERATIONS]\n", argv[0]);
    return 2;
  }
  Run run;
  constexpr int kWarmUp = 2;
  for (int i = 0; i < kWarmUp; ++i) run.Cycle();
  std::printf("after %d cycles (%d operations): ", kWarmUp, run.calls);
  const Usage start = Measure(run.library);
  int cycles = kWarmUp;
  for (; cycles == kWarmUp || run.calls < ops; ++cycles) run.Cycle();
  std::printf("after %d cycles (%d operations): ", cycles, run.calls);
  const Usage end = Measure(run.library);

  // Growth a run may show without holding on to anything is malloc's and the kernel's bookkeeping. Under
  // valgrind memory belongs to the tool's allocator, which reports leaks itself.
  const bool memoryFlat = RUNNING_ON_VALGRIND || (end.heapBytes <= start.heapBytes + 16 * 1024 &&
                                                  end.residentKiB <= start.residentKiB + 512);
  const bool flat = end.fds == start.fds && end.databaseFds == 0 && end.pkgInfoHandles == 0 &&
                    end.sqliteBytes <= start.sqliteBytes && memoryFlat;
  if (!flat) std::printf("not so: descriptors, connections, handles and memory stay where they were\n");
  return flat && run.failures == 0 ? 0 : 1;
}
