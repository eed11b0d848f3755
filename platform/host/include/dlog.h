/* Platform log, as the device's dlog library offers it. Off the device the host stand-in prints one line
 * per call in the manner of dlogutil ("I/TAG(pid): message") to standard error, or appends it to the
 * file named by HOST_DLOG_FILE. */
#ifndef HOST_STANDIN_DLOG_H_
#define HOST_STANDIN_DLOG_H_

#ifdef __cplusplus
extern "C" {
#endif

typedef enum {
  LOG_ID_MAIN = 0,
  LOG_ID_RADIO = 1,
  LOG_ID_SYSTEM = 2,
  LOG_ID_APPS = 3,
} log_id_t;

typedef enum {
  DLOG_UNKNOWN = 0,
  DLOG_DEFAULT = 1,
  DLOG_VERBOSE = 2,
  DLOG_DEBUG = 3,
  DLOG_INFO = 4,
  DLOG_WARN = 5,
  DLOG_ERROR = 6,
  DLOG_FATAL = 7,
  DLOG_SILENT = 8,
} log_priority;

int __dlog_print(log_id_t log_id, int prio, const char* tag, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));

#ifdef __cplusplus
}
#endif

#endif /* HOST_STANDIN_DLOG_H_ */
