/* The export attribute of kiv-drivers and the brackets for C++, nothing else. */
#ifndef KIV_EXPORT_H
#define KIV_EXPORT_H

#if defined(__GNUC__)
#    define KIV_API __attribute__((visibility("default")))
#else
#    define KIV_API
#endif

#ifdef __cplusplus
#    define KIV_BEGIN_C extern "C" {
#    define KIV_END_C }
#else
#    define KIV_BEGIN_C
#    define KIV_END_C
#endif

#endif
