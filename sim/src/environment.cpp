#include "environment.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kiv/sim.h"
#include "real.h"
#include "waiting.h"

namespace kiv::sim {

void complain(const char *variable, const char *value, const char *expected) {
    const errno_keeper keeper;
    char line[512];
    const int length = ::snprintf(line, sizeof line, "kiv-sim: %s: \"%.300s\" is ignored; it takes %s\n",
                                  variable, value, expected);
    real().write(STDERR_FILENO, line, static_cast<std::size_t>(length));
}

namespace {

// KIV_SIM_FAIL: faults for a program that nobody has written a test around, "read=EIO@3,ioctl=ENODEV".

// A number from 1 on. Moves `text` behind it; 0, where it was, when there is none.
unsigned take_number(const char *&text) {
    if (*text < '1' || *text > '9')
        return 0;
    char *end = nullptr;
    const unsigned long number = ::strtoul(text, &end, 10);
    if (number > INT32_MAX)
        return 0;
    text = end;
    return static_cast<unsigned>(number);
}

bool is_word(const char *text, std::size_t length, const char *word) {
    return word != nullptr && ::strlen(word) == length && ::memcmp(text, word, length) == 0;
}

// KIV_SIM_CALL_KINDS when there is none of that name.
kiv_sim_call take_call(const char *&text) {
    const std::size_t length = ::strcspn(text, "=");
    int call = 0;
    while (call < KIV_SIM_CALL_KINDS &&
           !is_word(text, length, kiv_sim_call_name(static_cast<kiv_sim_call>(call))))
        ++call;
    text += length;
    return static_cast<kiv_sim_call>(call);
}

// By its name or its number; 0 when it is neither.
int take_error(const char *&text) {
    if (const unsigned number = take_number(text); number != 0)
        return static_cast<int>(number);
    constexpr int most_errors = 256;
    const std::size_t length = ::strcspn(text, "@,");
    for (int error = 1; error < most_errors; ++error)
        if (is_word(text, length, ::strerrorname_np(error))) {
            text += length;
            return error;
        }
    return 0;
}

// "CALL=ERRNO", "CALL=ERRNO@N", "CALL=ERRNO@N+". Moves `text` behind it.
bool take_fault(const char *&text, kiv_sim_fault &fault) {
    fault = {};
    fault.call = take_call(text);
    if (fault.call == KIV_SIM_CALL_KINDS || *text++ != '=')
        return false;
    fault.action = KIV_SIM_FAIL;
    fault.error = take_error(text);
    fault.nth = fault.times = 1;
    if (*text == '@') {
        fault.nth = take_number(++text);
        if (*text == '+') {
            fault.times = KIV_SIM_ALWAYS;
            ++text;
        }
    }
    return fault.error != 0 && fault.nth != 0;
}

bool arm_all(const char *text) {
    do {
        kiv_sim_fault fault;
        if (!take_fault(text, fault) || kiv_sim_arm(&fault) != 0)
            return false;
    } while (*text++ == ',');
    return text[-1] == '\0';
}

// All of them or none. At load, so that the first call of the program's own can be the one.
[[gnu::constructor]] void arm_from_environment() {
    constexpr char variable[] = "KIV_SIM_FAIL";
    const char *value = ::getenv(variable);
    if (value == nullptr || *value == '\0' || arm_all(value))
        return;
    kiv_sim_clear_faults();
    complain(variable, value, "CALL=ERRNO[@N[+]],... with the calls of kiv/sim.h, as read=EIO@3");
}

} // namespace
} // namespace kiv::sim
