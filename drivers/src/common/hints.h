// Where code goes: hot paths in a straight line where speed is asked for, small where size is.

#ifndef KIV_COMMON_HINTS_H
#define KIV_COMMON_HINTS_H

namespace kiv {

// Whether size is asked for. Shortcuts past the general way of an operation are left out then.
#ifdef __OPTIMIZE_SIZE__
constexpr bool small_code = true;
#else
constexpr bool small_code = false;
#endif

} // namespace kiv

// Before a function that each call on a data path passes through, and before one that several modules share:
// in place where speed is asked for; where size is, the compiler's choice and a single copy.
#ifdef __OPTIMIZE_SIZE__
#    define KIV_HOT inline
#    define KIV_SHARED [[gnu::noinline]] inline
#else
#    define KIV_HOT [[gnu::always_inline]] inline
#    define KIV_SHARED inline
#endif

// Before a function that only failures and rare turns reach.
#define KIV_COLD [[gnu::cold, gnu::noinline]]

// Before a function that stays in a frame of its own and takes its arguments as they are written: a caller of
// the same shape then hands over with a jump, and what is passed in memory needs no registers before.
#if defined(__GNUC__) && !defined(__clang__) && !defined(__OPTIMIZE_SIZE__)
#    define KIV_APART [[gnu::noipa]]
#else
#    define KIV_APART [[gnu::noinline]]
#endif

#endif
