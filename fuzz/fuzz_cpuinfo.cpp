// Product identification against an oracle of a few lines: any contents of /proc/cpuinfo, any room for the
// name. The first byte of an input is the room.

#include <algorithm>
#include <cstdint>
#include <string>

#include "kiv/platform.h"
#include "kiv/sim.h"
#include "require.h"

namespace {

// Calls found(text) for the texts of a file's lines, in pieces of at most `most`, until it returns true.
template <class Found>
bool each_line(const std::string &file, std::size_t most, Found found) {
    for (std::size_t at = 0; at < file.size();) {
        const std::size_t line = std::min(file.find('\n', at), file.size() - 1) + 1 - at;
        const std::string piece = file.substr(at, std::min(most, line));
        at += piece.size();
        if (found(piece.substr(0, piece.find('\0'))))
            return true;
    }
    return false;
}

// The result and the whole buffer, which is full of '#' at first.
std::string expected_name(const std::string &file, std::size_t room, int32_t &status) {
    std::string buffer(room, '#');
    status = room == 0 ? -22 : -2;
    each_line(file, 511, [&](const std::string &text) {
        if (room == 0 || text.rfind("Hardware\t: ", 0) != 0)
            return false;
        const std::string rest = text.substr(11);
        buffer = rest.substr(0, std::min(rest.find_first_of(" \t\n\v\f\r"), room - 1));
        buffer.resize(room, '\0');
        status = 0;
        return true;
    });
    return buffer;
}

std::uint32_t hexadecimal(const std::string &text) {
    const std::string digits = "00112233445566778899aAbBcCdDeEfF";
    std::size_t at = std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size());
    const bool negative = text.substr(at, 1) == "-";
    at += negative || text.substr(at, 1) == "+" ? 1 : 0;
    if (text.substr(at, 2) == "0x" || text.substr(at, 2) == "0X")
        at += 2;
    std::uint64_t number = 0;
    for (; at < text.size() && digits.find(text[at]) != std::string::npos; ++at)
        number = std::min<std::uint64_t>(number * 16 + digits.find(text[at]) / 2, UINT64_C(1) << 32);
    if (number > UINT32_MAX)
        return UINT32_MAX;
    return static_cast<std::uint32_t>(negative ? 0 - number : number);
}

std::uint32_t expected_revision(const std::string &file) {
    std::uint32_t number = 0;
    each_line(file, 127, [&](const std::string &text) {
        const std::size_t colon = text.find(':');
        if (text.rfind("Revision", 0) != 0 || colon == std::string::npos)
            return false;
        number = colon + 2 < text.size() ? hexadecimal(text.substr(colon + 2)) : 0;
        return true;
    });
    return number;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size == 0)
        return 0;
    const std::size_t room = data[0];
    const std::string file(data + 1, data + size);
    require(kiv_sim_cpuinfo_set(file.data(), file.size()) == 0, "setting the text");

    std::string name(room, '#');
    int32_t status = 0;
    const std::string expected = expected_name(file, room, status);
    require(get_product_name(name.data(), static_cast<std::uint32_t>(room)) == status, "status");
    require(name == expected, "name");
    require(get_product_revision() == expected_revision(file), "revision");
    return 0;
}
