/* Platform path service. Off the device the host stand-in answers each variable from the environment
 * variable of the same name, else from the device's default; HOST_TZPLATFORM_UNSET (a comma-separated
 * list of variable names) makes it answer NULL for those, as a broken platform would. */
#ifndef HOST_STANDIN_TZPLATFORM_CONFIG_H_
#define HOST_STANDIN_TZPLATFORM_CONFIG_H_

#ifdef __cplusplus
extern "C" {
#endif

enum tzplatform_variable {
  TZ_SYS_DB = 24,
  TZ_SYS_RW_APP = 27,
  TZ_SYS_RO_APP = 28,
  TZ_SYS_RW_PACKAGES = 40,
  TZ_SYS_RO_PACKAGES = 41,
};

const char* tzplatform_getenv(enum tzplatform_variable id);

#ifdef __cplusplus
}
#endif

#endif /* HOST_STANDIN_TZPLATFORM_CONFIG_H_ */
