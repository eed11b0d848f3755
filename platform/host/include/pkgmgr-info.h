/* Package-information service: the seven calls the plug-in uses. Off the device the host stand-in
 * answers them from Tizen manifests on the sandbox device ($TZ_SYS_RW_PACKAGES/<pkgid>.xml shadowing
 * $TZ_SYS_RO_PACKAGES/<pkgid>.xml). Strings handed out belong to the handle and stay valid until it is
 * destroyed. */
#ifndef HOST_STANDIN_PKGMGR_INFO_H_
#define HOST_STANDIN_PKGMGR_INFO_H_

#ifdef __cplusplus
extern "C" {
#endif

typedef void* pkgmgrinfo_appinfo_h;
typedef void* pkgmgrinfo_pkginfo_h;

typedef enum {
  PMINFO_R_ENOENT = -3,
  PMINFO_R_EINVAL = -2,
  PMINFO_R_ERROR = -1,
  PMINFO_R_OK = 0,
} pkgmgrinfo_error_e;

int pkgmgrinfo_appinfo_get_appinfo(const char* appid, pkgmgrinfo_appinfo_h* handle);
int pkgmgrinfo_appinfo_get_root_path(pkgmgrinfo_appinfo_h handle, char** path);
int pkgmgrinfo_appinfo_get_metadata_value(pkgmgrinfo_appinfo_h handle, const char* metadata_key,
                                          char** metadata_value);
int pkgmgrinfo_appinfo_destroy_appinfo(pkgmgrinfo_appinfo_h handle);
int pkgmgrinfo_pkginfo_get_pkginfo(const char* pkgid, pkgmgrinfo_pkginfo_h* handle);
int pkgmgrinfo_pkginfo_get_version(pkgmgrinfo_pkginfo_h handle, char** version);
int pkgmgrinfo_pkginfo_destroy_pkginfo(pkgmgrinfo_pkginfo_h handle);

/* Listing the applications that carry a metadata key (the hardened build rebuilds its records with it).
 * Filters added with a NULL value match any value; the walk calls `app_cb` once per application that
 * matches one of them, with a handle that lives until the callback returns; a negative return stops it. */
typedef void* pkgmgrinfo_appinfo_metadata_filter_h;
typedef int (*pkgmgrinfo_app_list_cb)(const pkgmgrinfo_appinfo_h handle, void* user_data);

int pkgmgrinfo_appinfo_metadata_filter_create(pkgmgrinfo_appinfo_metadata_filter_h* handle);
int pkgmgrinfo_appinfo_metadata_filter_add(pkgmgrinfo_appinfo_metadata_filter_h handle, const char* key,
                                           const char* value);
int pkgmgrinfo_appinfo_metadata_filter_foreach(pkgmgrinfo_appinfo_metadata_filter_h handle,
                                               pkgmgrinfo_app_list_cb app_cb, void* user_data);
int pkgmgrinfo_appinfo_metadata_filter_destroy(pkgmgrinfo_appinfo_metadata_filter_h handle);
int pkgmgrinfo_appinfo_get_pkgid(pkgmgrinfo_appinfo_h handle, char** pkgid);

#ifdef __cplusplus
}
#endif

#endif /* HOST_STANDIN_PKGMGR_INFO_H_ */
