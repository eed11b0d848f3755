/* What the host stand-in of the package-information service shows about itself, for tests: whether every
 * handle it handed out was destroyed exactly once, and which calls were made. Not part of the platform's
 * interface; the product never includes it. */
#ifndef HOST_STANDIN_PKGMGR_INFO_HOST_H_
#define HOST_STANDIN_PKGMGR_INFO_HOST_H_

#ifdef __cplusplus
extern "C" {
#endif

/* Handles obtained and not yet destroyed: every kind, application records, package records, metadata
 * filters. */
int host_pkgmgrinfo_open_handles(void);
int host_pkgmgrinfo_open_appinfo_handles(void);
int host_pkgmgrinfo_open_pkginfo_handles(void);
int host_pkgmgrinfo_open_filter_handles(void);

/* Destroy calls given a handle that was not open at that moment (destroyed before, of the other kind,
 * or never handed out), since the last reset. */
int host_pkgmgrinfo_bad_destroys(void);

/* Calls of the pkgmgrinfo function of that name since the last reset, forced failures included. */
int host_pkgmgrinfo_calls(const char* function_name);

/* Clears the call counts and the bad destroys; open handles stay open. */
void host_pkgmgrinfo_reset_counters(void);

#ifdef __cplusplus
}
#endif

#endif /* HOST_STANDIN_PKGMGR_INFO_HOST_H_ */
