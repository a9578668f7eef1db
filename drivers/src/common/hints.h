// Where code goes: hot paths in a straight line where speed is asked for, small where size is.

#ifndef KIV_COMMON_HINTS_H
#define KIV_COMMON_HINTS_H

// Before a function that each call on a data path passes through.
#ifdef __OPTIMIZE_SIZE__
#    define KIV_HOT inline
#else
#    define KIV_HOT [[gnu::always_inline]] inline
// Before a function that stays in a frame of its own, with its arguments in the registers that they come in:
// a caller of the same shape then hands over with a jump.
#if defined(__GNUC__) && !defined(__clang__)
#    define KIV_APART [[gnu::noipa]]
#else
#    define KIV_APART [[gnu::noinline]]
#endif

#endif

// Before a function that only failures and rare turns reach.
#define KIV_COLD [[gnu::cold, gnu::noinline]]

// Before a function that stays in a frame of its own, with its arguments in the registers that they come in:
// a caller of the same shape then hands over with a jump.
#if defined(__GNUC__) && !defined(__clang__)
#    define KIV_APART [[gnu::noipa]]
#else
#    define KIV_APART [[gnu::noinline]]
#endif

#endif
