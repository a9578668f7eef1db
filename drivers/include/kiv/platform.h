/*
 * The platform: log levels.
 */
#ifndef KIV_PLATFORM_H
#define KIV_PLATFORM_H

#include "kiv/export.h"

KIV_BEGIN_C

/* The library's log categories, "POS" and "uart_bt", write messages of a level up to these: 1 for failures,
 * 2 and 3 for information, 0 for silence. They start at 3 and may be set at any time from any thread; the
 * next message obeys. */
extern KIV_API int kiv_log_dyn_level_POS;
extern KIV_API int kiv_log_dyn_level_uart_bt;

KIV_END_C

#endif
