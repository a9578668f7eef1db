// Where code goes.

#ifndef KIV_COMMON_HINTS_H
#define KIV_COMMON_HINTS_H

// Before a step that several operations share on their way to a system call: in place in each.
#define KIV_HOT [[gnu::always_inline]] inline

// Before a function that only failures and rare turns reach.
#define KIV_COLD [[gnu::cold, gnu::noinline]]

#endif
