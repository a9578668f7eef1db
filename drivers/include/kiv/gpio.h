/*
 * GPIO pins: configure, read and drive single pins, and wait for the interrupts of a pin.
 *
 * Numbered pins are reached through the device /dev/gpio. Named pins need the sysfs pins, which nothing in
 * this library selects: on a device as it is shipped, every kiv_gpio_n_ function returns -1.
 *
 *     if (kiv_gpio_open() == 0 && kiv_gpio_config(4, KIV_GPIO_OUTPUT_LOW) == 0)
 *         kiv_gpio_output_set(4);
 *
 * Errors. Mind that results differ from function to function:
 *
 *   - configuring, driving and the interrupt functions return 0 or a status: a POSITIVE errno value
 *   - reading returns the level, 0 or 1, and -1 for EVERY failure, with the reason in the log only
 *   - the functions of numbered pins return -1, and not an errno value, before kiv_gpio_open has succeeded;
 *     those of named pins while the sysfs pins are not selected. Neither is logged
 *
 * Other failures are reported in the log category "POS" (see platform.h).
 *
 * Which pins there are is the device's matter: any number is passed on to it, and a pin that it does not have
 * is a failure that it reports.
 *
 * Signals. Only a wait for an interrupt and another request of the device can be interrupted, and that is a
 * failure with status 4 (EINTR): the request is not made again. Opening the device, and every access to the
 * files of the sysfs pins, goes on after a signal.
 *
 * Threads. Call kiv_gpio_open once before pins are used from several threads; after that every function may
 * be called from any thread at any time. Two calls for one pin at the same time happen in either order.
 *
 * Ownership. There is nothing to release for pins: the device stays open until the process ends, also after
 * kiv_gpio_close. An interrupt handle is the caller's, and the descriptor in it is released by
 * kiv_gpio_irq_close.
 */
#ifndef KIV_GPIO_H
#define KIV_GPIO_H

#include <stdint.h>

#include "kiv/export.h"

KIV_BEGIN_C

/* value of a configuration. Any other number makes a pin of the device an input. The sysfs pins refuse it
 * with 22 (EINVAL), but accept it without effect on a pin whose direction cannot be set. */
enum { KIV_GPIO_INPUT = 0, KIV_GPIO_OUTPUT_LOW = 1, KIV_GPIO_OUTPUT_HIGH = 2 };

/* Opening and closing ------------------------------------------------------------------------------- */

/* Opens /dev/gpio for the whole process. Later calls find it open and do nothing.
 *
 * Returns 0, or the errno of the opening (2 without the device; 13 without the right to use it). A later call
 * tries again. */
KIV_API int kiv_gpio_open(void);

/* Does nothing: pins stay usable. It marks the place where a program is done with them. */
KIV_API void kiv_gpio_close(void);

/* Pins by number ------------------------------------------------------------------------------------ */

/* Makes a pin an input, or an output that drives a level from the first moment on.
 *
 * pin    its number, as the device counts
 * value  one of the KIV_GPIO_ values above
 *
 * Returns 0, the errno of the failed request, or -1 before kiv_gpio_open. */
KIV_API int kiv_gpio_config(int pin, int value);

/* Returns the level of a pin: 0 low, 1 high, -1 for every failure. */
KIV_API int kiv_gpio_read(int pin);

/* Drive an output high (set) or low (clear). They do not make the pin an output: whether an input takes a
 * level is the device's decision.
 *
 * Return 0, the errno of the failed request, or -1 before kiv_gpio_open. */
KIV_API int kiv_gpio_output_set(int pin);
KIV_API int kiv_gpio_output_clear(int pin);

/* Pins by name -------------------------------------------------------------------------------------- */

/* The same for a pin that has a directory of its name under /sys/class/gpio, with the files "value" and,
 * where its direction can be set, "direction". No function makes or removes such a directory, or the one of
 * a numbered pin.
 *
 * name  not null; must outlast the call only. A path holds at most 49 characters, the file's name included:
 *       a longer one is cut, and what has the cut path is used
 *
 * Without "direction", configuring an output drives the level and configuring an input does nothing.
 *
 * Return as the functions above; -1 while the sysfs pins are not selected. */
KIV_API int kiv_gpio_n_config(const char *name, int value);
KIV_API int kiv_gpio_n_read(const char *name);
KIV_API int kiv_gpio_n_output_set(const char *name);
KIV_API int kiv_gpio_n_output_clear(const char *name);

/* Interrupts ---------------------------------------------------------------------------------------- */

/* An interrupt handle: one pin on a descriptor of the device of its own. It needs no kiv_gpio_open, and
 * handles share nothing with each other. No function checks a handle for null. */
typedef struct kiv_gpio_irq_device {
    int32_t fd; /* may be waited for together with others where the device supports that */
    int32_t pin;
} kiv_gpio_irq_device;

/* Opens the interrupt of a pin.
 *
 * device  filled in
 * pin     its number
 * mode    which edges or levels, in the device's own numbers: passed on as it is
 *
 * Returns 0, or a status. Two kinds of failure look alike. When /dev/gpio cannot be opened, the handle is
 * not touched. When the device refuses the interrupt, the descriptor stays open IN THE HANDLE:
 * kiv_gpio_irq_close releases it. Setting device->fd to -1 first tells them apart. */
KIV_API int kiv_gpio_irq_open(kiv_gpio_irq_device *device, int pin, unsigned int mode);

/* Blocks until the interrupt has occurred, without limit. What the level was, and how often it occurred, is
 * not told. Any signal ends the wait.
 *
 * Returns 0; 4 when a signal came, after which the caller may wait again; or the errno of the request. */
KIV_API int kiv_gpio_irq_wait(const kiv_gpio_irq_device *device);

/* Closes the interrupt and the descriptor; no wait may be under way on the handle. The handle keeps its
 * values, so a second call would close whatever has got the same number by then. Returns 0 whatever
 * happens. */
KIV_API int kiv_gpio_irq_close(const kiv_gpio_irq_device *device);

KIV_END_C

#endif
