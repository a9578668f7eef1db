// sim: runs a program over the simulated board, which is a library that is loaded before all others.

#include <cctype>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "areas.h"
#include "numbers.h"
#include "output.h"

namespace kivctl {

namespace {

// Where the library is, seen from the folder of this program: installed, and in the build tree.
constexpr const char *places[] = {KIVCTL_LIBRARY_FROM_HERE, "../lib", "../sim"};

exit_code find_library(char (&path)[PATH_MAX]) {
    char self[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
    self[length > 0 ? length : 0] = '\0';
    char *slash = strrchr(self, '/');
    if (slash != nullptr)
        *slash = '\0';
    for (const char *place : places)
        if (snprintf(path, sizeof path, "%s/%s/libkiv-sim.so", self, place) < PATH_MAX &&
            access(path, R_OK) == 0)
            return done;
    return fail(unavailable, nullptr,
                "the simulated board, libkiv-sim.so, is not installed beside this program");
}

// Adds a value to a variable of the environment, behind the separator.
void append(const char *variable, const char *value, char separator) {
    const char *before = getenv(variable);
    char joined[4096];
    if (before == nullptr || *before == '\0')
        setenv(variable, value, 1);
    else if (snprintf(joined, sizeof joined, "%s%c%s", before, separator, value) <
             static_cast<int>(sizeof joined))
        setenv(variable, joined, 1);
}

// N=WHAT: nothing, an echo, or a socket.
exit_code set_tty(const char *text, const option_row &row) {
    constexpr uint32_t last_line = 3;
    uint32_t line = 0;
    const char *at = text;
    const bool numbered = parse_number(at, "=", last_line, line) && *at++ == '=';
    if (!numbered || (strcmp(at, "echo") != 0 && strcmp(at, "silent") != 0 && *at != '/' && *at != '@'))
        return misuse("--%s takes %s, with N from 0 to %u, and not '%s'", row.name, row.argument, last_line,
                      text);
    char variable[32];
    snprintf(variable, sizeof variable, "KIV_SIM_TTY%u", line);
    setenv(variable, at, 1);
    return done;
}

// CALL=ERRNO, then maybe @N, the number of the call, and +, all from that one on. The board knows the names.
bool is_fault(const char *text) {
    const char *at = text;
    while (islower(*at) != 0 || isdigit(*at) != 0)
        ++at;
    if (at == text || *at++ != '=')
        return false;
    const char *error = at;
    while (isupper(*at) != 0 || isdigit(*at) != 0)
        ++at;
    uint32_t number = 1;
    if (at == error || (*at != '@' && *at != '\0') ||
        (*at == '@' && !parse_number(++at, "+", INT_MAX, number)))
        return false;
    return number > 0 && strcmp(at + (*at == '+' ? 1 : 0), "") == 0;
}

exit_code pass_option(const option_value &given) {
    const option_row &row = *find_option(given.key);
    switch (given.key) {
    case 'X':
        if (!is_fault(given.text))
            return misuse("--%s takes %s, as in read=EIO@2, and not '%s'", row.name, row.argument,
                          given.text);
        append("KIV_SIM_FAIL", given.text, ',');
        return done;
    case 'Y':
        return set_tty(given.text, row);
    case 'G':
        append("KIV_SIM_WIRES", given.text, ' ');
        return done;
    case 'E':
        append("KIV_SIM_SYSFS", given.text, ' ');
        return done;
    case 'K':
        setenv("KIV_SIM_CPUINFO", given.text, 1);
        return done;
    case 'N':
        setenv("KIV_SIM_TUN", given.text, 1);
        return done;
    default:
        return done; // those of every verb
    }
}

} // namespace

exit_code sim(const request &from) {
    char library[PATH_MAX];
    exit_code code = find_library(library);
    for (int i = 0; i < from.option_count && code == done; ++i)
        code = pass_option(from.options[i]);
    if (code != done)
        return code;
    append("LD_PRELOAD", library, ':');
    signal(SIGPIPE, SIG_DFL);
    execvp(from.arguments[0], from.arguments);
    const int error = errno;
    name_device(from.arguments[0]);
    return fail("running it", error);
}

} // namespace kivctl
