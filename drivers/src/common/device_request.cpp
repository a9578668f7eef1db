#define KIV_MODULE "drivers/src/common/device_request"

#include "common/device_request.h"

#include <cerrno>
#include <cstdio>

#include "common/fd.h"
#include "common/report.h"

namespace kiv::report {
namespace {

constexpr char request_format[] =
    "ret = ioctl(%s, (((%s) << (((0+8)+8)+14)) | ((('%c')) << (0+8)) | (((%u)) << 0) | "
    "((((sizeof(%s)))) << ((0+8)+8))), %s)";
constexpr size_t statement_size = 168;
static_assert(sizeof request_format + sizeof "UART_infos->fd2U|1Ustruct gpio_direction&data" <=
              statement_size);
static_assert(statement_size + sizeof "drivers/src/linux/linux_uart_bt:%d in %s,  : %s\n" <= format_size);

} // namespace

int trace_request(const request_statement &request, const char *function, int line,
                  const char *path) noexcept {
    if (!pos_wants(1))
        return errno;
    char statement[statement_size];
    {
        const errno_guard keep;
        ::snprintf(statement, sizeof statement, request_format, request.fd, request.direction, request.type,
                   request.number, request.size, request.argument);
    }
    return trace_errno(statement, function, line, path);
}

} // namespace kiv::report
