/* Tracing for extensions loaded into the plug-in's process.
 *
 * An extension's messages join the plug-in's own: they are kept in the plug-in's in-memory trace
 * list (which feeds its error reports) and written to its binary trace file, "/tmp/tlvgpc.tvt".
 * Both calls go through the plug-in's in-process notification hub, with the names and keys below;
 * they are synchronous and may be called from any thread. Messages posted while the plug-in is not
 * initialised (before NP_Initialize or after NP_Shutdown) reach nobody and are lost.
 *
 * The functions live in the plug-in module. An extension that is not linked against it finds them
 * through the handle of the module that holds its service functions (dladdr on one, then dlopen
 * with RTLD_NOLOAD), and only then with dlsym(RTLD_DEFAULT, "GpcTracePost"), which may find
 * another install's module when a browser loaded two globally.
 */
#ifndef GPC_GPC_TRACE_H
#define GPC_GPC_TRACE_H

#include <stddef.h>

#define GPC_TRACE_EXPORT __attribute__((visibility("default")))

/* Notification names and keys, kept exactly as spelt. */
#define GPC_TRACE_NOTIFICATION "TRACENOTIFICATIONNotification"
#define GPC_QUERY_WARNINGS_NOTIFICATION "QUERYWARINGMESSAGENOTIFICTION"
#define GPC_TRACE_CONTENT_KEY "ContentKey"
#define GPC_TRACE_MODULE_KEY "ModuleKey"
#define GPC_TRACE_LEVEL_KEY "Levelkey"
#define GPC_RESET_TRACES_KEY "RESETTRACES"
#define GPC_QUERY_TRACES_KEY "QUERYTRACESKEY"

/* Trace levels. Debug messages reach the trace file only while a "tlvtracer" process was running
 * when the plug-in was loaded. */
enum {
  GPC_TRACE_DEBUG = 0,
  GPC_TRACE_INFO = 1,
  GPC_TRACE_WARNING = 2,
  GPC_TRACE_ERROR = 3
};

/* The answer to a warnings query is shorter than this (terminator included). */
#define GPC_TRACE_ANSWER_MAX 3001

#ifdef __cplusplus
extern "C" {
#endif

/* Posts one trace entry. `text` is stored as given (it is not a format) and must be valid UTF-8.
 * Returns 1 when posted, 0 when refused: a null module or text, or text that is not UTF-8. */
GPC_TRACE_EXPORT int GpcTracePost(const char* module, int level, const char* text);

/* Asks for the recent warnings and errors, newest that fit, oldest first, one per line, each
 * percent-encoded; "no%20error" when there are none. A non-zero `reset` empties the list after the
 * answer is built. The answer is copied into `buffer` (cut to size - 1 characters, always
 * terminated when size > 0). Returns the answer's full length, or -1 when nobody answered (the
 * plug-in is not initialised); `buffer` then holds an empty text. */
GPC_TRACE_EXPORT int GpcTraceQueryWarnings(int reset, char* buffer, size_t size);

#ifdef __cplusplus
}
#endif

#endif /* GPC_GPC_TRACE_H */
