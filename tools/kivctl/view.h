// How received bytes are shown: as they are, as hexadecimal digits, with times, as JSON; and written to a
// file.
#ifndef KIVCTL_VIEW_H
#define KIVCTL_VIEW_H

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "cli.h"

namespace kivctl {

class view {
  public:
    // Of the options -x, -t, -l and --json.
    exit_code open(const request &from);
    exit_code show(const uint8_t *data, size_t size);

    bool hex = false;
    bool time = false;

  private:
    void put(const void *data, size_t size);
    void put_time();
    void put_rows(const uint8_t *data, size_t size);
    void put_lines(const uint8_t *data, size_t size);

    bool json_ = false;
    bool in_line_ = false; // what comes next goes on with a line
    const char *log_name_ = nullptr;
    FILE *log_ = nullptr;
    uint32_t offset_ = 0;
};

} // namespace kivctl

#endif
