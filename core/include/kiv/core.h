/*
 * kiv-core, as kiv-drivers sees it: logging, assertions, mutexes and threads.
 *
 * This is the stand-in's header. It declares what kiv-drivers calls and no more, so that the device's own
 * kiv-core can take its place at link time or at load time.
 *
 * Threads: every function may be called from any thread. The reporting functions (kiv_assert, kiv_warn,
 * sup_log_msg_nocolor_raw, sup_system_diag) leave the calling thread's errno as they found it.
 */
#ifndef KIV_CORE_H
#define KIV_CORE_H

#include <stdint.h>

#if defined(__GNUC__)
#    define KIV_CORE_API __attribute__((visibility("default")))
#    define KIV_CORE_PRINTF(text, first) __attribute__((format(printf, text, first)))
#else
#    define KIV_CORE_API
#    define KIV_CORE_PRINTF(text, first)
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Logging ------------------------------------------------------------------------------------------- */

/* A log category. Its owner fills the first two words before kiv_log_dyn_add; the last word starts at zero
 * and is kiv-core's. A core that keeps the record needs it for as long as the process lives; the stand-in
 * keeps none. */
typedef struct kiv_log_category {
    int *level;       /* messages of a level up to *level are wanted; 0 silences the category */
    const char *name; /* also the first argument of every message in the category */
    void *core;
} kiv_log_category;

/* Makes a category known. Returns 0, or 22 (EINVAL) when the record or one of its pointers is null. Adding
 * a record twice changes nothing. */
KIV_CORE_API int kiv_log_dyn_add(kiv_log_category *category);

/* Writes one message to stderr exactly as the format gives it, with one write: no prefix, no colour, no line
 * end of its own. Messages of several threads do not mix, but those longer than 4096 bytes, which a pipe
 * takes in pieces. A reader of stderr that has stopped reading holds up who writes, nobody else. The caller
 * has tested the level already. Returns the number of bytes of the message, or -1 when it could not be
 * formatted.
 *
 * With the environment variable KIV_CORE_LOG_LIMIT=N a line is written N times a second at most. More are
 * counted; the number of those is told in front of a later line ("kiv-core: 99 repeated lines left out"). */
KIV_CORE_API int sup_log_msg_nocolor_raw(const char *category, int level, const char *format, ...)
    KIV_CORE_PRINTF(3, 4);

/* Writes one diagnostic line for the operator to stderr, in the same way; it has no category and no level. */
KIV_CORE_API int sup_system_diag(const char *format, ...) KIV_CORE_PRINTF(1, 2);

/* Report a condition that did not hold, with its text and its place, and return. */
KIV_CORE_API void kiv_assert(const char *expression, const char *file, int line, const char *function);
KIV_CORE_API void kiv_warn(const char *expression, const char *file, int line, const char *function);

/* Mutexes ------------------------------------------------------------------------------------------- */

/* A mutex in 28 bytes of its owner's storage. It must not be moved or copied while it is initialised. */
typedef struct sup_mutex {
    uint32_t word[7];
} sup_mutex_t;

/* Initialises a mutex; attributes is 0. Returns 0, or an errno value (12, ENOMEM). */
KIV_CORE_API int sup_mutex_init(sup_mutex_t *mutex, int attributes);

/* Lock, blocking for as long as it takes; unlock, by the thread that locked. The mutex is not recursive.
 * Both return 0, or 22 (EINVAL) for a mutex that is not initialised. */
KIV_CORE_API int sup_mutex_lock(sup_mutex_t *mutex);
KIV_CORE_API int sup_mutex_unlock(sup_mutex_t *mutex);

/* Ends a mutex that nobody holds. Returns 0, or 22 (EINVAL) for one that is not initialised. */
KIV_CORE_API int sup_mutex_destroy(sup_mutex_t *mutex);

/* Threads ------------------------------------------------------------------------------------------- */

typedef void *sup_thread_t; /* the handle */

/* The control block: storage that the creator keeps until sup_thread_delete has returned. */
typedef struct sup_thread_control {
    uintptr_t word[16];
} sup_thread_control_t;

/* Creates a thread, suspended. handle receives its handle; priority is accepted and not used by the
 * stand-in, which runs every thread at the default priority; options is 0; the first 15 characters of name
 * are what tools show. Returns 0 or an errno value; *handle is null then. */
KIV_CORE_API int sup_thread_create(sup_thread_t *handle, sup_thread_control_t *control, int priority,
                                   void *(*entry)(void *), void *argument, int options, const char *name);

/* Lets a created thread run. Returns 0, or 22 (EINVAL) for a null handle or one that runs already. */
KIV_CORE_API int sup_thread_resume(sup_thread_t thread);

/* Waits until the thread's entry function has returned (at once for a thread that never ran) and releases
 * the thread. Returns 0, or 22 (EINVAL) for a null handle or when a thread would wait for itself. */
KIV_CORE_API int sup_thread_delete(sup_thread_t thread);

/* Sleeps for the given number of milliseconds, also when signals arrive; options is 0. Returns 0. */
KIV_CORE_API int sup_thread_delay(unsigned int milliseconds, int options);

#ifdef __cplusplus
}
#endif

#endif
