// What programs are told about the board by their environment alone. Each value either is in force, as a
// reader of the header would expect it, or is ignored with one line on stderr. The first byte of an input
// says which variable it is.

#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <map>
#include <regex>
#include <sanitizer/common_interface_defs.h>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

// Read when a program is loaded, and so out of reach from outside.
#include "../sim/src/environment.cpp"

#include "kiv/platform.h"
#include "require.h"
#include "script.h"

namespace {

struct Armed {
    int call, error;
    unsigned nth, times;
    bool operator==(const Armed &) const = default;
};

std::vector<Armed> armed;
unsigned complaints = 0;

ssize_t complained(int, const void *, std::size_t size) {
    ++complaints;
    return static_cast<ssize_t>(size);
}

} // namespace

namespace kiv::sim {
const real_calls &real() {
    static const real_calls calls = [] {
        real_calls made = {};
        made.write = complained;
        return made;
    }();
    return calls;
}
} // namespace kiv::sim

int kiv_sim_arm(const kiv_sim_fault *fault) {
    if (armed.size() == KIV_SIM_MAX_FAULTS)
        return ENOSPC;
    armed.push_back({fault->call, fault->error, fault->nth, fault->times});
    return 0;
}
void kiv_sim_clear_faults() {
    armed.clear();
}

namespace {

std::vector<std::string> split(const std::string &text, char at) {
    std::vector<std::string> parts(1);
    for (const char each : text) {
        if (each == at)
            parts.emplace_back();
        else
            parts.back() += each;
    }
    return parts;
}

int number_of(const std::string &digits) {
    return digits.size() <= 10 && std::stoll(digits) <= INT32_MAX ? std::stoi(digits) : 0;
}

void judge_faults(const std::string &text) {
    static const std::regex form("([^=]*)=([1-9][0-9]*|[A-Z][A-Z0-9]*)(?:@([1-9][0-9]*)(\\+?))?");
    std::vector<Armed> expected;
    bool fits = true;
    for (const std::string &each : split(text, ',')) {
        std::smatch found;
        fits = fits && std::regex_match(each, found, form);
        if (!fits)
            break;
        Armed one = {KIV_SIM_CALL_KINDS, 0,
                     found.length(3) > 0 ? static_cast<unsigned>(number_of(found.str(3))) : 1,
                     found.length(4) > 0 ? static_cast<unsigned>(KIV_SIM_ALWAYS) : 1U};
        for (int call = 0; call < KIV_SIM_CALL_KINDS; ++call)
            one.call = found.str(1) == kiv_sim_call_name(static_cast<kiv_sim_call>(call)) ? call : one.call;
        if (found.str(2)[0] <= '9')
            one.error = number_of(found.str(2));
        for (int error = 1; error < 134 && one.error == 0; ++error)
            if (const char *name = ::strerrorname_np(error); name != nullptr && found.str(2) == name)
                one.error = error;
        expected.push_back(one);
        fits = one.call != KIV_SIM_CALL_KINDS && one.error != 0 && one.nth != 0;
    }
    fits = fits && expected.size() <= KIV_SIM_MAX_FAULTS;
    armed.clear();
    complaints = 0;
    ::setenv("KIV_SIM_FAIL", text.c_str(), 1);
    kiv::sim::arm_from_environment();
    const bool none = text.empty();
    require(armed == (fits && !none ? expected : std::vector<Armed>()), "the faults that are armed");
    require_equal(complaints, fits || none ? 0 : 1, "complaints about faults");
}

// The rest is asked for by the board itself, which writes to stderr.
template <class Act>
unsigned complaints_of(Act act) {
    static const int file = ::memfd_create("stderr", MFD_CLOEXEC);
    static const int standard = ::dup(STDERR_FILENO);
    __sanitizer_set_report_fd(reinterpret_cast<void *>(static_cast<std::intptr_t>(standard))); // NOLINT
    require(::ftruncate(file, 0) == 0 && ::lseek(file, 0, SEEK_SET) == 0, "a place for complaints");
    ::dup2(file, STDERR_FILENO);
    act();
    ::dup2(standard, STDERR_FILENO);
    std::string said(static_cast<std::size_t>(::lseek(file, 0, SEEK_CUR)), '\0');
    require(::pread(file, said.data(), said.size(), 0) == static_cast<ssize_t>(said.size()),
            "reading complaints");
    require(said.empty() || (said.rfind("kiv-sim: KIV_SIM_", 0) == 0 && said.back() == '\n'), "a complaint");
    return said.empty() ? 0 : 1;
}

bool opens(const char *path, int flags) {
    const int fd = ::open(path, flags);
    ::close(fd);
    return fd != -1;
}

void judge_line(const std::string &text) {
    const bool known = text == "echo" || text == "silent" || text.empty();
    const bool peer = !known && (text[0] == '/' || text[0] == '@');
    ::setenv("KIV_SIM_TTY2", text.c_str(), 1);
    int fd = -1;
    const unsigned count =
        complaints_of([&] { fd = ::open("/dev/ttyKIV2", O_RDWR | O_NOCTTY | O_NONBLOCK); });
    require_equal(count, known || peer ? 0 : 1, "complaints about a line");
    require((fd != -1) == !peer, "the opening of a line"); // nobody listens anywhere
    if (fd != -1) {
        char byte = 'x';
        require(::write(fd, &byte, 1) == 1, "a line takes a byte");
        byte = 0;
        require((::read(fd, &byte, 1) == 1 && byte == 'x') == (text == "echo"), "an echo");
    }
    ::close(fd);
}

// A list of which all members before a mistake count.
void judge_pins(const std::string &text, bool wires) {
    static const std::string number = "[ \t\n\v\f\r]*([-+]?[0-9]+)";
    static const std::regex wire(number + "=" + number + "(?: +|$)"),
        directory("([^= ]+)=" + number + "(?: +|$)");
    const auto pin_of = [](const std::string &digits) {
        const std::size_t first = std::min(digits.find_first_of("123456789"), digits.size() - 1);
        if (digits[first] < '1' || digits[first] > '9')
            return 0;
        const int pin = digits[0] == '-' || digits.size() - first > 2 ? -1 : std::stoi(digits.substr(first));
        return pin < KIV_SIM_PINS ? pin : -1;
    };
    std::map<std::string, int> names;
    std::vector<std::pair<int, int>> pairs;
    bool fits = true;
    for (auto at = text.begin(); fits && at != text.end();) {
        std::smatch found;
        fits = std::regex_search(at, text.end(), found, wires ? wire : directory,
                                 std::regex_constants::match_continuous);
        if (!fits)
            break;
        const std::string name = found.str(1);
        const int one = wires ? pin_of(name) : 0, other = pin_of(found.str(2));
        if (wires && one >= 0 && other >= 0)
            pairs.emplace_back(one, other);
        else if (!wires && other >= 0 && name.size() < 40 && names.count(name) == 0 && names.size() < 16)
            names[name] = other;
        else
            fits = false;
        at = found[0].second;
    }
    ::setenv(wires ? "KIV_SIM_WIRES" : "KIV_SIM_SYSFS", text.c_str(), 1);
    ::unsetenv(wires ? "KIV_SIM_SYSFS" : "KIV_SIM_WIRES");
    kiv_sim_reset();
    const unsigned count = complaints_of([] { opens("/dev/gpio", O_RDWR); });
    require_equal(count, fits ? 0 : 1, "complaints about pins");
    for (const auto &[name, pin] : names) {
        kiv_sim_pin_state state;
        kiv_sim_pin_inspect(static_cast<unsigned>(pin), &state);
        if (name.find('/') == std::string::npos)
            require(opens(("/sys/class/gpio/" + name + "/value").c_str(), O_RDONLY), "a directory of a pin");
    }
    for (const auto &[one, other] : pairs) {
        kiv_sim_pin_state state;
        kiv_sim_pin_drive(static_cast<unsigned>(one), 1);
        kiv_sim_pin_inspect(static_cast<unsigned>(other), &state);
        require(state.level == 1, "a wire");
        kiv_sim_pin_drive(static_cast<unsigned>(one), -1);
    }
}

void judge_host(const std::string &text) {
    in_addr address;
    const bool fits = text.empty() || ::inet_pton(AF_INET, text.c_str(), &address) == 1;
    ::setenv("KIV_SIM_TUN", text.c_str(), 1);
    kiv_sim_reset();
    bool opened = false;
    const unsigned count = complaints_of([&] { opened = opens("/dev/net/tun", O_RDWR); });
    require(opened, "the opening of an interface");
    require_equal(count, fits ? 0 : 1, "complaints about a host");
}

void judge_attributes(const std::string &text) {
    static const std::regex form("[ \t\n\v\f\r]*([-+]?)(0[xX][0-9a-fA-F]+|0[0-7]*|[1-9][0-9]*)");
    const std::string value = text + ":/proc/self/exe";
    const std::string number = text.substr(0, text.find(':'));
    std::smatch found;
    const bool fits = std::regex_match(number, found, form);
    std::uint32_t expected = 0, attributes = 0;
    if (fits && number == text) {
        const std::string digits = found.str(2);
        const unsigned base = digits.size() > 1 && (digits[1] | 0x20) == 'x' ? 16 : digits[0] == '0' ? 8 : 10;
        bool saturated = false;
        std::uint64_t sum = 0;
        for (const char digit : digits.substr(base == 16 ? 2 : 0)) {
            const auto added = static_cast<unsigned>(digit <= '9' ? digit - '0' : (digit | 0x20) - 'a' + 10);
            saturated = saturated || sum > (UINT64_MAX - added) / base;
            sum = sum * base + added;
        }
        sum = saturated ? UINT64_MAX : found.str(1) == "-" ? 0 - sum : sum;
        expected = static_cast<std::uint32_t>(sum) & (KIV_FAT_HIDDEN | KIV_FAT_SYSTEM);
    }
    ::setenv("KIV_SIM_FAT", value.c_str(), 1);
    int status = 0;
    const unsigned count =
        complaints_of([&] { status = kiv_fs_get_fat_attribute("/proc/self/exe", &attributes); });
    require_equal(status, 0, "asking for attributes");
    require_equal(count, fits ? 0 : 1, "complaints about attributes");
    require_equal(attributes, expected, "attributes");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    Input input(data, size);
    const unsigned what = input.below(6);
    const Bytes bytes = input.bytes(size);
    std::string text(bytes.begin(), bytes.end());
    text = text.substr(0, text.find('\0'));
    switch (what) {
    case 0:
        judge_faults(text);
        break;
    case 1:
        judge_line(text);
        break;
    case 2:
    case 3:
        judge_pins(text, what == 2);
        break;
    case 4:
        judge_host(text);
        break;
    default:
        judge_attributes(text);
    }
    return 0;
}
