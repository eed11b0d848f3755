#!/usr/bin/env bash
# The library the package manager loads exports its entry points, its classes and the database paths,
# and defines none of the platform's functions: those must come from the device's libraries at load time.
set -euo pipefail
library=$1
defined=$(nm -D --defined-only "$library")
undefined=$(nm -D --undefined-only "$library")
status=0

for symbol in VERSION_DB VERSION_DB_BAKUP; do
  grep -qE " [BDGRS] ${symbol}\$" <<<"$defined" || { echo "not exported: $symbol"; status=1; }
done
# Which build the library is, for whoever loads it: "default" or "hardened".
grep -qE " R WUP_POLICY_NAME\$" <<<"$defined" || { echo "not exported: WUP_POLICY_NAME"; status=1; }
for symbol in strTZ_SYS_DB strVERSION_DB strVERSION_DB_BAKUP; do
  grep -qE " [BDGRS] _Z[0-9]+${symbol}B5cxx11\$" <<<"$defined" || { echo "not exported: $symbol"; status=1; }
done
for class in PluginHandler PluginDataUtil VersionSqliteDB DBUtil JsonUtil WebapisUtil; do
  grep -qE " T _ZN[0-9]+${class}" <<<"$defined" || { echo "no member of $class exported"; status=1; }
done
for entry in PKGMGR_MDPARSER_PLUGIN_INSTALL PKGMGR_MDPARSER_PLUGIN_UPGRADE PKGMGR_MDPARSER_PLUGIN_UNINSTALL; do
  grep -qE " T ${entry}\$" <<<"$defined" || { echo "entry point not exported: $entry"; status=1; }
done
for platform in __dlog_print tzplatform_getenv 'pkgmgrinfo_[a-z_]*' 'vex_[a-z_]*'; do
  if grep -qE " ${platform}\$" <<<"$defined"; then
    echo "platform function defined in the library: $(grep -E " ${platform}\$" <<<"$defined")"
    status=1
  fi
done
grep -qE " __dlog_print\$" <<<"$undefined" || { echo "__dlog_print is not resolved at load time"; status=1; }
grep -qE " tzplatform_getenv\$" <<<"$undefined" || { echo "tzplatform_getenv is not resolved at load time"; status=1; }
exit $status
