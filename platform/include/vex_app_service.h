/* Application service of the TV (closed libraries libvex_launcher_api and libvex_db_api): which
 * application is shown, facts about an application, and termination. Only the record's size and the
 * application id at byte offset 1024 are relied on. */
#ifndef VEX_APP_SERVICE_H_
#define VEX_APP_SERVICE_H_

#ifdef __cplusplus
extern "C" {
#endif

#define VEX_APP_INFO_SIZE 3212
#define VEX_APP_INFO_APPID_OFFSET 1024

typedef struct {
  char bytes[VEX_APP_INFO_SIZE];
} vex_app_info_t;

/* On success *appid holds a heap copy of the shown application's id ("" when none); free() it. */
int vex_get_current_showing_app(char** appid);
int vex_get_app_info(const char* appid, vex_app_info_t* info);
int vex_terminate_app(const char* appid);

#ifdef __cplusplus
}
#endif

#endif /* VEX_APP_SERVICE_H_ */
