// Endurance run: thousands of package-manager calls in one process, the plug-in loaded and unloaded around
// each as a long installer request does, through installs, upgrades, reinstalls, uninstalls and failure
// paths. Descriptors, database connections, package-information handles and memory, taken at the same
// point of the cycle after a warm-up and at the end, must not grow.
//
//   endurance_campaign [OPERATIONS]    rounded up to whole cycles (default 2000); exits 1 when anything grew
#include <dlfcn.h>
#include <malloc.h>
#include <valgrind/valgrind.h>

#include <array>
#include <filesystem>
#include <fstream>

#include "campaign.h"

using wup_e2e::Plugin;

namespace {

// What the process holds (an array: measuring allocates nothing), printed on one line.
enum Figure { kFds, kDatabaseFds, kPkgInfoHandles, kSqliteBytes, kHeapBytes, kResidentKiB, kFigures };
const char* const kFigureNames[] = {"fds",
                                    "on the database (SQLite connections)",
                                    "package-information handles",
                                    "SQLite memory B",
                                    "heap in use B",
                                    "resident KiB"};
using Usage = std::array<long long, kFigures>;

Usage Measure(void* library) {
  Usage usage = {-1};  // not counting the listing's own descriptor
  for (const auto& fd : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code closed;
    ++usage[kFds];
    usage[kDatabaseFds] +=
        read_symlink(fd.path(), closed).string().find(".AppBinaryManager") != std::string::npos;
  }
  if (auto openHandles = reinterpret_cast<int (*)()>(dlsym(library, "host_pkgmgrinfo_open_handles")))
    usage[kPkgInfoHandles] = openHandles();
  usage[kSqliteBytes] = sqlite3_memory_used();
  const struct mallinfo2 heap = mallinfo2();
  usage[kHeapBytes] = static_cast<long long>(heap.uordblks + heap.hblkhd);
  std::ifstream("/proc/self/statm") >> usage[kResidentKiB] >>
      usage[kResidentKiB];  // size, then resident pages
  usage[kResidentKiB] *= sysconf(_SC_PAGESIZE) / 1024;
  for (int i = 0; i < kFigures; ++i)
    std::printf("%s %lld%s", kFigureNames[i], usage[i], i + 1 < kFigures ? ", " : "\n");
  return usage;
}

struct Run {
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

  // One package-manager call into a freshly loaded plug-in, the package registered before it (and taken
  // away after an uninstall), `forced` ("NAME=VALUE") failing a platform call for this call alone.
  void Call(const campaign::Step& step, const std::string& forced = "") {
    if (step.damage) step.damage(device);
    device.Place(step.package);
    const std::string name = forced.substr(0, forced.find('=')), &pkgid = step.package.pkgid;
    if (!forced.empty()) setenv(name.c_str(), forced.substr(name.size() + 1).c_str(), 1);
    void* loaded = dlopen(WUP_PLUGIN_LIBRARY, RTLD_LAZY | RTLD_LOCAL);  // a failure throws in Plugin
    Plugin plugin(loaded);
    const auto entry = step.operation == "install"   ? &Plugin::Install
                       : step.operation == "upgrade" ? &Plugin::Upgrade
                                                     : &Plugin::Uninstall;
    Expect((plugin.*entry)(pkgid.c_str(), pkgid.c_str(), MetadataOf(step.package)) == 0,
           "every call returns 0");
    dlclose(loaded);
    if (!forced.empty()) unsetenv(name.c_str());
    if (step.operation == "uninstall")
      wup_test::RemoveTree(device.layout().rwPackages + "/" + pkgid + ".xml");
    ++calls;
  }

  // One cycle: the crash campaign's operations, then the failure paths they lack (platform calls that fail,
  // both files lost, the uninstall of a package never stored, a result file that cannot be written), which
  // leave nothing recorded: from the second cycle on, each starts from the same state.
  void Cycle() {
    using campaign::Ambient, campaign::Player, campaign::Signage;
    for (const campaign::Step& step : campaign::Sequence()) Call(step);
    Call({"", "upgrade", Player("2")}, "HOST_VEX_FAIL=vex_terminate_app");
    Call({"", "upgrade", Signage("2")}, "HOST_VEX_FAIL=vex_get_current_showing_app");
    Call({"", "upgrade", Player("3")}, "HOST_PKGMGRINFO_FAIL=pkgmgrinfo_appinfo_get_appinfo");
    Call({"", "upgrade", Signage("3")}, "HOST_PKGMGRINFO_FAIL=pkgmgrinfo_pkginfo_get_version");
    Call({"", "upgrade", Ambient("2"), [](const wup_e2e::Device& device) {
            wup_test::WriteFile(device.DatabasePath(), "");
            wup_test::WriteFile(device.BackupPath(), "");
          }});
    Expect(device.Rows().size() == 2, "the recreated database holds only the two records stored since");
    for (const auto& package : {Player("3"), Signage("3"), Ambient("2"),
                                campaign::MakePackage("com.korvane.tv.pepper.unknown", "1", "pepperplugin")})
      Call({"", "uninstall", package});  // the xwalk package's second extension keeps its record
    const std::string staging = device.ResultPath() + "_bak";
    wup_test::MakeDirs(staging);  // the result file cannot be written: the database is emptied
    Call({"", "install", Player("1.0.0")});
    wup_test::RemoveTree(staging);
    Expect(device.Rows().empty(), "a failed rewrite empties the database");
    wup_test::RemoveTree(device.layout().vex + "/terminated");
  }

  wup_e2e::Device device;
  void* library = nullptr;
  int failures = 0, calls = 0;
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
  const bool memoryFlat = RUNNING_ON_VALGRIND || (end[kHeapBytes] <= start[kHeapBytes] + 16 * 1024 &&
                                                  end[kResidentKiB] <= start[kResidentKiB] + 512);
  const bool flat = end[kFds] == start[kFds] && end[kDatabaseFds] == 0 && end[kPkgInfoHandles] == 0 &&
                    end[kSqliteBytes] <= start[kSqliteBytes] && memoryFlat;
  if (!flat) std::printf("not so: descriptors, connections, handles and memory stay where they were\n");
  return flat && run.failures == 0 ? 0 : 1;
}
