#include "help.h"

namespace pkgsim {

const char kGeneralHelp[] =
    "usage: pkgsim [--device DIR] [--plugin LIB] [--quiet] COMMAND [ARGS]\n"
    "\n"
    "The TV's package manager on a PC: places packages on a sandbox device, calls the web-API\n"
    "upgrade plug-in as the device does, shows what changed and says in plain words why.\n"
    "\n"
    "commands:\n"
    "  init [--sample] [DIR]        create a device (with --sample: a copy of the sample device)\n"
    "  check [--preload] PKGDIR     what the plug-in will do with a package, without changing the device\n"
    "  install [--preload] [--fail-after-plugin] PKGDIR...\n"
    "                               install or upgrade packages, in one process\n"
    "  uninstall PKGID              uninstall a package (or the update of a preloaded one)\n"
    "  show                         packages, database health, plug-in records, result file, terminations\n"
    "  foreground APPID|--none      set the application in the foreground\n"
    "  demo [--keep]                a guided tour on a fresh copy of the sample device\n"
    "\n"
    "options:\n"
    "  --device DIR    the device (default: $PKGSIM_DEVICE, else ./pkgsim-device)\n"
    "  --plugin LIB    the plug-in to load (default: the one this pkgsim was built with)\n"
    "  --examples DIR  the sample device and packages (default: the source tree's examples/)\n"
    "  --quiet         leave out the plug-in's log lines (the explanations stay)\n"
    "  --help          help on pkgsim or on one command (pkgsim COMMAND --help)\n"
    "\n"
    "After every call of the plug-in pkgsim says what it decided, drawn from its log: what it stored\n"
    "or why not, each description file read or skipped, what an uninstall removed and what it left,\n"
    "and which applications each rewrite of the result file terminated, allow-listed by which record.\n"
    "\n"
    "Exit status: 0 done, 1 bad input (the device is left as it was), a failed installation, or a\n"
    "package that check finds will not be stored; 2 bad command line.\n";

const char kInitHelp[] =
    "usage: pkgsim init [--sample] [DIR]\n"
    "\n"
    "Creates a device at DIR (default: the --device directory), laid out as the TV's file system:\n"
    "  opt/dbspace          the plug-in's database (TZ_SYS_DB)\n"
    "  opt/usr/apps         installed applications (TZ_SYS_RW_APP)\n"
    "  opt/usr/apps/appbinarymanager  home of the result file (webapi_result/)\n"
    "  usr/apps             the read-only image's applications (TZ_SYS_RO_APP)\n"
    "  opt/share/packages   manifests of installed packages (TZ_SYS_RW_PACKAGES)\n"
    "  usr/share/packages   manifests of preloaded packages (TZ_SYS_RO_PACKAGES)\n"
    "  run/vex              the application service: foreground, terminated\n"
    "  var/log/dlog.log     the platform log\n"
    "With --sample the device starts as a copy of the sample device (applications that the sample\n"
    "packages' allow-lists name). DIR must not exist or be an empty directory.\n";

const char kCheckHelp[] =
    "usage: pkgsim check [--preload] PKGDIR [--device DIR]\n"
    "\n"
    "Says what the plug-in will do with the package in PKGDIR on the device, without changing the\n"
    "device: the package is really installed, with the plug-in, on a scratch copy of the device (an\n"
    "empty device when there is none), and what the plug-in did there is read back: whether it sees\n"
    "the package at all, its kind and plug-in name, where it is installed, each description file read\n"
    "or skipped, the version compared with the recorded one, the records it would store and the\n"
    "applications it would terminate. Then the package's traps, as warnings: extension records that\n"
    "uninstall will not remove (found by uninstalling it on the scratch copy too), a missing or 0.0.0\n"
    "version, unknown metadata keys of the plug-in's namespace, metadata on an application whose id\n"
    "is not the package id, allow-listed ids that no application on the device has, empty ids from\n"
    "stray commas, a package id without \"pepper.\" or \"xwalk.\", and records whose files the package\n"
    "lacks (a library that a description names but shared/res/ does not hold).\n"
    "\n"
    "Exit status 0 when the plug-in will store the package, 1 when it will not (the last line says\n"
    "why).\n";

const char kInstallHelp[] =
    "usage: pkgsim install [--preload] [--fail-after-plugin] PKGDIR...\n"
    "\n"
    "Each PKGDIR holds a package's tizen-manifest.xml and its files. The files go to\n"
    "opt/usr/apps/PKGID/, the manifest to opt/share/packages/PKGID.xml (the device's package\n"
    "database now knows the package, and its new version), replacing an earlier installed version;\n"
    "then the plug-in is called, once per application that has metadata items of the plug-in's\n"
    "namespace (key and value both set), with those items in manifest order:\n"
    "PKGMGR_MDPARSER_PLUGIN_INSTALL for a new package, PKGMGR_MDPARSER_PLUGIN_UPGRADE for one\n"
    "already on the device (also the first update of a preloaded package).\n"
    "\n"
    "As the device's installer does, pkgsim loads the plug-in with dlopen(RTLD_LAZY | RTLD_LOCAL) at\n"
    "the start of each installation step and unloads it with dlclose at its end, and several PKGDIRs\n"
    "are one request: one process, one package after the other. glibc never really unloads this\n"
    "plug-in (its template statics are STB_GNU_UNIQUE symbols), so its process-wide state outlives\n"
    "dlclose: the paths it fixed at its first load, the records its handler read, the update flag.\n"
    "The packages of one request share that state, on the device as here.\n"
    "\n"
    "--preload places the packages in the read-only image instead (usr/apps, usr/share/packages),\n"
    "as the system image does; they must not be on the device yet.\n"
    "--fail-after-plugin makes the installation step after the plug-in's fail, so the installer\n"
    "undoes the plug-in step: a new package is handed to PKGMGR_MDPARSER_PLUGIN_UNINSTALL and\n"
    "removed again; an upgrade has its previous files and manifest restored and is handed to\n"
    "PKGMGR_MDPARSER_PLUGIN_UPGRADE with the previous manifest. The exit status is then 1.\n";

const char kUninstallHelp[] =
    "usage: pkgsim uninstall PKGID\n"
    "\n"
    "Calls PKGMGR_MDPARSER_PLUGIN_UNINSTALL for the installed package, then removes its files and\n"
    "manifest. The plug-in removes the record named after the plug-in name cut from the package id,\n"
    "so the extension records of an xwalk package stay; pkgsim says which. For the update of a\n"
    "preloaded package only the update goes: the preloaded version in the read-only image stays and\n"
    "becomes the package again, so the plug-in is then called with PKGMGR_MDPARSER_PLUGIN_UPGRADE for\n"
    "it. A package that exists only in the read-only image cannot be uninstalled.\n";

const char kShowHelp[] =
    "usage: pkgsim show\n"
    "\n"
    "Prints the packages on the device, the application in the foreground, the health of the\n"
    "plug-in's database, its records (read from the database), the result file and the applications\n"
    "terminated so far. The plug-in's own check decides the database's health: on a scratch copy of\n"
    "the device the plug-in opens its database, so pkgsim can say when it is damaged and whether the\n"
    "next operation restores it from the backup or starts an empty one, and compares the result file\n"
    "with the document the plug-in builds from the records: a differing file is stale.\n";

const char kForegroundHelp[] =
    "usage: pkgsim foreground APPID|--none\n"
    "\n"
    "Puts APPID in the foreground (or nothing, with --none). The plug-in leaves the application in\n"
    "the foreground running when it terminates the applications of an allow-list.\n";

const char kDemoHelp[] =
    "usage: pkgsim demo [--device DIR] [--quiet] [--keep]\n"
    "\n"
    "A guided tour: copies the sample device to DIR (default: a new temporary directory) and runs,\n"
    "each in a fresh pkgsim process as the package manager would, a preload, checks of a good and of a\n"
    "trap-laden package, installs of a pepper, a b2b pepper and an xwalk plug-in (the last two in one\n"
    "request), an update of the preloaded plug-in, a reinstall of the same version, an upgrade whose\n"
    "installation fails and is undone, a broken package, uninstalls (the xwalk one leaves its\n"
    "extension records behind) and a bad request, printing what each step changed and why.\n"
    "The temporary device is removed at the end unless --keep is given (a --device DIR stays).\n";

}  // namespace pkgsim
