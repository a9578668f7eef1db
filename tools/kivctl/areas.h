// What the verbs do, one file an area.
#ifndef KIVCTL_AREAS_H
#define KIVCTL_AREAS_H

#include "cli.h"

namespace kivctl {

exit_code serial_term(const request &);
exit_code serial_bridge(const request &);
exit_code serial_send(const request &);
exit_code serial_recv(const request &);
exit_code serial_ask(const request &);
exit_code serial_list(const request &);
exit_code serial_info(const request &);
exit_code i2c_transfer(const request &);
exit_code i2c_read(const request &);
exit_code i2c_write(const request &);
exit_code i2c_get(const request &);
exit_code i2c_set(const request &);
exit_code i2c_dump(const request &);
exit_code i2c_detect(const request &);
exit_code gpio_get(const request &);
exit_code gpio_set(const request &);
exit_code gpio_config(const request &);
exit_code gpio_wait(const request &);
exit_code tap_open(const request &);
exit_code tap_send(const request &);
exit_code bnep_run(const request &);
exit_code product(const request &);
exit_code fat_attr(const request &);
exit_code doctor(const request &);
exit_code sim(const request &);
exit_code completion_bash(const request &);

} // namespace kivctl

#endif
