/* What the installer process brings for every library in it: debug switches, the lock of the
 * statistics, and two file-system helpers. A process that defines these variables itself uses its
 * own; symbol_names.h says how it does so with functions.
 */
#ifndef PLATFORM_INST_COMMON_H
#define PLATFORM_INST_COMMON_H

#include <pthread.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Copies of log statements go to standard error when the level is at or above the statement's
 * threshold: 1 for errors and warnings of note, 2 for routine information. Initially 0: silent. */
extern int32_t g_inst_common_debug_verbosity_level;

/* What stands before each copy: 0 time; 1 also process and thread; anything else also function and
 * line. Initially 0. */
extern int32_t g_inst_common_debug_prefix;

/* Serialises the read-add-write of statistics words. */
extern pthread_mutex_t atomic_mutex;

/* Creates the missing directories of `path` (everything before its last slash) with mode 0777 under
 * the process umask. Returns 0, or -1 with errno set; directories that exist are no error, also
 * when another thread makes them at the same time. ENOTDIR when a component is no directory. */
int instcomm_create_filepath_dirs(const char* path);

/* Makes `link_path` a symbolic link to `target`. Returns 0, or -1 with errno set
 * (EEXIST: something stands there already; it is left alone). */
int inst_symlink(const char* target, const char* link_path);

#ifdef __cplusplus
}
#endif

#endif
