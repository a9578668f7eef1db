// What kivctl reads: numbers and times, the grammars of transfers and pins, packets on a serial link,
// captures. The first byte of an input says what the rest is. The library is not there: its functions are
// defined here, and take down what they are given.

#include <getopt.h>
#include <map>
#include <optional>
#include <regex>
#include <string>
#include <sys/mman.h>

// The link's functions are its own business, and so are its port and addresses.
#include "../tools/kivctl/bnep.cpp"

#include "kiv/gpio.h"
#include "kiv/i2c.h"
#include "require.h"
#include "script.h"

namespace {

using Words = std::vector<std::string>;

std::string text_of(const Bytes &bytes) {
    const std::string text(bytes.begin(), bytes.end());
    return text.substr(0, text.find('\0'));
}

// What the library was given ------------------------------------------------------------------------------

struct Message {
    unsigned flags;
    Bytes bytes; // of a write; of a read, as many
    bool operator==(const Message &) const = default;
};

struct Frame {
    unsigned protocol;
    Bytes payload, destination, source;
    bool operator==(const Frame &) const = default;
};

struct Given {
    std::vector<Message> messages;
    std::vector<unsigned> addresses;
    std::vector<int> pins; // times two, and the level
    std::vector<Frame> frames;
    Bytes sent;
} given;

Bytes link_bytes; // what the serial link brings, in pieces
std::size_t link_at, link_piece;

} // namespace

std::int32_t kiv_i2c_open(kiv_i2c_device *device, const char *, std::uint32_t address) {
    *device = {};
    given.addresses.push_back(address);
    return 0;
}
std::int32_t kiv_i2c_msg(kiv_i2c_device *, const kiv_i2c_message *messages, std::int32_t count) {
    for (int i = 0; i < count; ++i) {
        const kiv_i2c_message &each = messages[i];
        if (each.flags == KIV_I2C_READ)
            std::fill_n(each.buf, each.len, std::uint8_t{0});
        given.messages.push_back({each.flags, Bytes(each.buf, each.buf + each.len)});
    }
    return 0;
}
int kiv_gpio_open(void) {
    return 0;
}
int kiv_gpio_output_set(int pin) {
    given.pins.insert(given.pins.end(), {pin, 1});
    return 0;
}
int kiv_gpio_output_clear(int pin) {
    given.pins.insert(given.pins.end(), {pin, 0});
    return 0;
}
int kiv_bnep_data_available(void *, std::uint16_t protocol, const void *payload, unsigned int length,
                            const std::uint8_t *destination, const std::uint8_t *source) {
    const auto *bytes = static_cast<const std::uint8_t *>(payload);
    given.frames.push_back({protocol, Bytes(bytes, bytes + length), Bytes(destination, destination + 6),
                            Bytes(source, source + 6)});
    return static_cast<int>(length);
}
int sup_uart_Send(UART_infos *, const void *data, unsigned int length) {
    const auto *bytes = static_cast<const std::uint8_t *>(data);
    given.sent.insert(given.sent.end(), bytes, bytes + length);
    return 0;
}
int sup_uart_Read_partial(UART_infos *, void *buffer, unsigned int *length) {
    *length =
        static_cast<unsigned>(std::min({std::size_t{*length}, link_piece, link_bytes.size() - link_at}));
    std::copy_n(link_bytes.begin() + static_cast<std::ptrdiff_t>(link_at), *length,
                static_cast<std::uint8_t *>(buffer));
    link_at += *length;
    return *length > 0 ? 0 : EIO;
}

// No thread keeps watch here, and nothing may end the program.
namespace kivctl {

exit_code start_watch(ending) {
    return done;
}
exit_code start_thread(void *(*)(void *), void *) {
    return done;
}
int stop_descriptor() {
    return -1;
}
void set_limit(std::uint64_t, exit_code, const char *) {}
void clear_limit() {}
void at_end(void (*)()) {}
void leave(exit_code) {
    ::fail("the end of the program");
}

} // namespace kivctl

namespace {

// Values --------------------------------------------------------------------------------------------------

const char number_form[] = "0[xX][0-9a-fA-F]+|[0-9]+";

// The value of a text of that form, if it is at most most.
std::optional<std::uint32_t> value_of(const std::string &text, std::uint32_t most) {
    const bool hex = text.size() > 1 && (text[1] | 0x20) == 'x';
    const std::string digits = text.substr(hex ? 2 : 0);
    const std::size_t first = std::min(digits.find_first_not_of('0'), digits.size() - 1);
    if (digits.size() - first > 10)
        return std::nullopt;
    const std::uint64_t value = std::stoull(digits.substr(first), nullptr, hex ? 16 : 10);
    return value <= most ? std::optional(static_cast<std::uint32_t>(value)) : std::nullopt;
}

void judge_number(const std::string &text, std::uint32_t most) {
    static const std::regex form(number_form);
    const auto expected = std::regex_match(text, form) ? value_of(text, most) : std::nullopt;
    std::uint32_t value = 0;
    require(kivctl::parse_number(text.c_str(), most, value) == expected.has_value(),
            "whether it is a number");
    require(!expected.has_value() || value == *expected, "a number");
}

void judge_duration(const std::string &text) {
    static const std::regex form("([0-9]*)(?:\\.([0-9]{0,6}))?(s|ms|us)?");
    static const std::map<std::string, std::uint64_t> units = {
        {"", 1000000}, {"s", 1000000}, {"ms", 1000}, {"us", 1}};
    constexpr std::uint64_t most = 1000000000000;
    std::smatch found;
    std::optional<std::uint64_t> expected;
    if (std::regex_match(text, found, form) && found.length(1) + found.length(2) > 0) {
        const std::string whole = "0" + found.str(1);
        const std::size_t first = std::min(whole.find_first_not_of('0'), whole.size() - 1);
        const std::string part = (found.str(2) + "000000").substr(0, 6);
        if (whole.size() - first <= 13) {
            const std::uint64_t unit = units.at(found.str(3));
            const std::uint64_t sum =
                std::stoull(whole.substr(first)) * unit + std::stoull(part) * unit / 1000000;
            if (sum <= most)
                expected = sum;
        }
    }
    std::uint64_t value = 0;
    require(kivctl::parse_duration(text.c_str(), value) == expected.has_value(), "whether it is a time");
    require(!expected.has_value() || value == *expected, "a time");
}

// Pairs of digits; with colons it is an address.
void judge_bytes(const std::string &text, std::size_t room) {
    static const std::regex bytes_form("(?:[0-9a-fA-F]{2}[: ]?)*"), pair("[0-9a-fA-F]{2}");
    static const std::regex address_form("[0-9a-fA-F]{2}(?::[0-9a-fA-F]{2}){5}");
    Bytes expected;
    for (std::sregex_iterator each(text.begin(), text.end(), pair), end; each != end; ++each)
        expected.push_back(static_cast<std::uint8_t>(std::stoul(each->str(), nullptr, 16)));
    Bytes got(room);
    std::size_t size = room;
    const bool fits = std::regex_match(text, bytes_form) && expected.size() <= room;
    require(kivctl::parse_hex(text.c_str(), got.data(), size) == fits, "whether these are bytes");
    got.resize(fits ? size : 0);
    require(!fits || got == expected, "bytes");
    std::uint8_t address[6];
    const bool is_address = std::regex_match(text, address_form);
    require(kivctl::parse_address(text.c_str(), address) == is_address, "whether it is an address");
    require(!is_address || expected == Bytes(address, address + 6), "an address");
}

void judge_escapes(const std::string &text) {
    static const std::regex form("(?:[^\\\\]|\\\\[rnte0\\\\]|\\\\x[0-9a-fA-F]{2})*");
    static const std::map<char, char> letters = {{'r', '\r'}, {'n', '\n'}, {'t', '\t'},
                                                 {'e', 27},   {'0', 0},    {'\\', '\\'}};
    std::string expected;
    const bool fits = std::regex_match(text, form);
    for (std::size_t i = 0; fits && i < text.size(); ++i) {
        if (text[i] != '\\') {
            expected += text[i];
        } else if (text[++i] != 'x') {
            expected += letters.at(text[i]);
        } else {
            expected += static_cast<char>(std::stoul(text.substr(i + 1, 2), nullptr, 16));
            i += 2;
        }
    }
    std::string copy = text;
    const long length = kivctl::unescape(copy.data());
    require_equal(length, fits ? static_cast<long>(expected.size()) : -1, "the length of a text");
    require(!fits || copy.compare(0, expected.size(), expected) == 0, "a text");
}

// Grammars ------------------------------------------------------------------------------------------------

kivctl::request made_of(const char *verb, Words &words, std::vector<char *> &pointers) {
    for (std::string &word : words)
        pointers.push_back(word.data());
    kivctl::request made = {};
    made.what = kivctl::find_verb(verb[0] == 'i' ? "i2c" : "gpio", verb[0] == 'i' ? "transfer" : "set");
    made.count = static_cast<int>(words.size());
    pointers.push_back(nullptr);
    made.arguments = pointers.data();
    return made;
}

// The byte that follows one with a suffix. The sequence of p is i2ctransfer's.
std::uint8_t following(int byte, const std::string &suffix) {
    if (suffix == "p") {
        byte = ((byte ^ 27) + 13) % 256;
        byte = byte * 2 + byte / 128;
    } else if (suffix != "=") {
        byte += suffix == "+" ? 1 : -1;
    }
    return static_cast<std::uint8_t>(byte);
}

// The messages that words mean, or nothing. r? reads as many bytes as the chip says.
std::optional<std::vector<Message>> messages_of(const Words &words, unsigned &address, bool &chip_says) {
    static const std::regex head("([rw])(" + std::string(number_form) + ")(?:@(" + number_form + "))?");
    static const std::regex any_read("r[?](@.*)?");
    static const std::regex byte("(" + std::string(number_form) + ")([-=+p]?)");
    std::vector<Message> messages;
    std::optional<unsigned> chip;
    chip_says = false;
    for (std::size_t i = 0; i < words.size();) {
        const bool says = std::regex_match(words[i], any_read);
        const std::string word = says ? "r1" + words[i].substr(2) : words[i];
        std::smatch found;
        ++i;
        if (messages.size() == KIV_I2C_MAX_MSGS || !std::regex_match(word, found, head))
            return std::nullopt;
        const bool reads = found.str(1) == "r";
        const auto length = value_of(found.str(2), 8192);
        const auto named = found.length(3) > 0 ? value_of(found.str(3), 0x7f) : chip;
        if (!length.has_value() || !named.has_value() || (chip.has_value() && named != chip) ||
            (reads && *length == 0))
            return std::nullopt;
        chip = named;
        chip_says = chip_says || says;
        messages.push_back({reads ? KIV_I2C_READ : 0, Bytes(reads ? *length : 0)});
        Bytes &bytes = messages.back().bytes;
        while (bytes.size() < *length) {
            if (i == words.size() || !std::regex_match(words[i], found, byte))
                return std::nullopt;
            const auto value = value_of(found.str(1), 0xff);
            if (!value.has_value())
                return std::nullopt;
            bytes.push_back(static_cast<std::uint8_t>(*value));
            while (found.length(2) > 0 && bytes.size() < *length)
                bytes.push_back(following(bytes.back(), found.str(2)));
            ++i;
        }
    }
    address = chip.value_or(0);
    return messages;
}

// This bus is none that lets a chip say a length.
void judge_transfer(Words words) {
    unsigned address = 0;
    bool chip_says = false;
    const auto expected = messages_of(words, address, chip_says);
    std::vector<char *> pointers;
    const kivctl::exit_code code = kivctl::i2c_transfer(made_of("i", words, pointers));
    const kivctl::exit_code carried_out = chip_says ? kivctl::unavailable : kivctl::done;
    require_equal(code, expected.has_value() ? carried_out : kivctl::misused, "the exit code of a transfer");
    require(given.messages == (code == kivctl::done ? *expected : std::vector<Message>()),
            "the messages of a transfer");
    require(!expected.has_value() || given.addresses == std::vector<unsigned>{address},
            "the chip of a transfer");
}

void judge_pins(Words words) {
    static const std::regex form("(" + std::string(number_form) + ")=([01])");
    std::vector<int> expected;
    bool fits = true;
    for (const std::string &word : words) {
        std::smatch found;
        const bool matches = std::regex_match(word, found, form);
        const auto pin = matches ? value_of(found.str(1), INT32_MAX) : std::nullopt;
        fits = fits && pin.has_value();
        expected.insert(expected.end(),
                        {static_cast<int>(pin.value_or(0)), matches && found.str(2) == "1" ? 1 : 0});
    }
    std::vector<char *> pointers;
    require_equal(kivctl::gpio_set(made_of("g", words, pointers)), fits ? kivctl::done : kivctl::misused,
                  "pins");
    require(given.pins == (fits ? expected : std::vector<int>()), "the pins that are set");
}

// Packets -------------------------------------------------------------------------------------------------

constexpr std::uint8_t link_end = 0xc0, link_escape = 0xdb;

std::vector<Bytes> unframed(const Bytes &stream) {
    std::vector<Bytes> packets(1);
    bool escaped = false;
    for (const std::uint8_t byte : stream) {
        if (byte == link_end)
            packets.emplace_back();
        else if (byte != link_escape)
            packets.back().push_back(escaped && byte == 0xdc   ? link_end
                                     : escaped && byte == 0xdd ? link_escape
                                                               : byte);
        escaped = byte == link_escape;
    }
    return packets;
}

Bytes backwards(const Bytes &bytes) {
    return {bytes.rbegin(), bytes.rend()};
}

// The frame that a packet means, if it is one; the peer is whoever sent the last one.
std::optional<Frame> frame_of(const Bytes &packet, Bytes &peer) {
    std::size_t at = 1;
    const auto take = [&](std::size_t count) {
        at += count;
        return at <= packet.size() ? Bytes(packet.begin() + static_cast<std::ptrdiff_t>(at - count),
                                           packet.begin() + static_cast<std::ptrdiff_t>(at))
                                   : Bytes();
    };
    const unsigned kind = packet[0] & 0x7f;
    if (kind > 4 || kind == 1)
        return std::nullopt;
    const Bytes destination = kind == 0 || kind == 4 ? take(6) : Bytes(kivctl::own, kivctl::own + 6);
    const Bytes source = kind == 0 || kind == 3 ? take(6) : peer;
    const Bytes protocol = take(2);
    for (bool more = (packet[0] & 0x80) != 0; more && at <= packet.size();) {
        const Bytes extension = take(2);
        more = !extension.empty() && (extension[0] & 0x80) != 0;
        take(extension.empty() ? 0 : extension[1]);
    }
    if (at > packet.size())
        return std::nullopt;
    peer = source;
    const Bytes payload(packet.begin() + static_cast<std::ptrdiff_t>(at), packet.end());
    return Frame{protocol[0] * 256U + protocol[1], payload, backwards(destination), backwards(source)};
}

void judge_inbound(Input &input) {
    link_piece = 1 + std::size_t{input.byte()};
    link_bytes = input.bytes(4096);
    if (!link_bytes.empty() && link_bytes.back() % 4 == 0) // as long as no input is
        link_bytes.insert(link_bytes.end() - 1, 1600 + link_piece % 16, link_bytes.back());
    link_bytes.push_back(link_end);
    link_at = 0;
    Bytes peer(6, 0xff);
    std::copy_n(peer.begin(), 6, kivctl::peer_address);
    std::vector<Frame> expected;
    for (const Bytes &packet : unframed(link_bytes))
        if (!packet.empty() && packet.size() <= kivctl::longest_packet)
            if (const auto frame = frame_of(packet, peer); frame.has_value())
                expected.push_back(*frame);
    kivctl::carry_inbound(nullptr);
    require(given.frames == expected, "the frames that the link brings");
    require(Bytes(kivctl::peer_address, kivctl::peer_address + 6) == peer, "the peer's address");
}

void judge_outbound(Input &input) {
    const auto protocol = static_cast<std::uint16_t>(input.word());
    const Bytes payload = input.exactly(std::size_t{input.byte()} * (1 + input.below(7)));
    kivctl::take_outbound(nullptr, protocol, nullptr, 0, KIV_BNEP_FRAME_START);
    kivctl::take_outbound(nullptr, 0, payload.data(), static_cast<std::uint16_t>(payload.size()),
                          KIV_BNEP_FRAME_DATA);
    kivctl::take_outbound(nullptr, 0, nullptr, 0, KIV_BNEP_FRAME_END);
    Bytes packet = {3};
    packet.insert(packet.end(), kivctl::own, kivctl::own + 6);
    packet.insert(packet.end(),
                  {static_cast<std::uint8_t>(protocol >> 8), static_cast<std::uint8_t>(protocol)});
    packet.insert(packet.end(), payload.begin(), payload.end());
    require(unframed(given.sent) == std::vector<Bytes>{{}, packet, {}}, "the packet on the link");
}

// Captures ------------------------------------------------------------------------------------------------

std::size_t number_at(const Bytes &bytes, std::size_t at, std::size_t size, bool big_endian) {
    std::size_t value = 0;
    for (std::size_t i = 0; i < size; ++i)
        value = value * 256 + bytes[big_endian ? at + i : at + size - 1 - i];
    return value;
}

void judge_h4(Input &input) {
    static const std::map<unsigned, std::pair<std::size_t, std::size_t>> lengths = {
        {1, {3, 1}},
        {2, {3, 2}},
        {3, {3, 1}},
        {4, {2, 1}},
        {5, {3, 2}}}; // where they stand, how long they are
    const std::size_t piece = 1 + std::size_t{input.byte()};
    const Bytes stream = input.bytes(4096);
    std::vector<Bytes> expected, got;
    std::size_t strays = 0;
    for (std::size_t at = 0; at < stream.size();) {
        const auto kind = lengths.find(stream[at]);
        if (kind == lengths.end()) {
            ++strays, ++at;
            continue;
        }
        const auto &[place, size] = kind->second;
        if (at + place + size > stream.size())
            break;
        const std::size_t told = number_at(stream, at + place, size, false);
        const std::size_t whole = place + size + (kind->first == 5 ? told & 0x3fff : told);
        if (at + whole > stream.size())
            break;
        const auto begin = stream.begin() + static_cast<std::ptrdiff_t>(at);
        expected.emplace_back(begin, begin + static_cast<std::ptrdiff_t>(whole));
        at += whole;
    }
    static kivctl::h4_parser parser;
    parser = {};
    for (std::size_t at = 0; at < stream.size();) {
        at += parser.take(stream.data() + at, std::min(piece, stream.size() - at));
        if (!parser.complete())
            continue;
        got.emplace_back(parser.packet(), parser.packet() + parser.length());
        parser.next();
    }
    require(got == expected && parser.strays() == strays, "packets of a stream");
}

void judge_pcap(Input &input) {
    static const Bytes heads[] = {
        {0xa1, 0xb2, 0xc3, 0xd4}, {0xd4, 0xc3, 0xb2, 0xa1}, {0xa1, 0xb2, 0x3c, 0x4d}};
    const unsigned which = input.below(5);
    Bytes file = which < 3 ? heads[which] : Bytes();
    if (which < 4) {
        file.resize(24);
        file[which == 1 ? 20 : 23] = 1;
    }
    const Bytes rest = input.bytes(4096);
    file.insert(file.end(), rest.begin(), rest.end());
    bool good = file.size() >= 24, ends = false;
    std::vector<Bytes> expected, got;
    const bool big = good && file[0] == 0xa1;
    if (good) {
        const std::size_t magic = number_at(file, 0, 4, big);
        good = (magic == 0xa1b2c3d4 || magic == 0xa1b23c4d) && (number_at(file, 20, 4, big) & 0xffff) == 1;
    }
    for (std::size_t at = 24; good && !ends;) {
        ends = at == file.size();
        if (ends || at + 16 > file.size())
            break;
        const std::size_t size = number_at(file, at + 8, 4, big);
        at += 16;
        if (size == 0 || size > 65535 || at + size > file.size())
            break;
        const auto begin = file.begin() + static_cast<std::ptrdiff_t>(at);
        expected.emplace_back(begin, begin + static_cast<std::ptrdiff_t>(size));
        at += size;
    }
    static const int memory = ::memfd_create("pcap", 0);
    require(::ftruncate(memory, 0) == 0 && ::pwrite(memory, file.data(), file.size(), 0) >= 0, "a file");
    kivctl::pcap_reader reader;
    static Bytes frame(kivctl::longest_frame);
    kivctl::exit_code code = reader.open(("/proc/self/fd/" + std::to_string(memory)).c_str());
    require((code == kivctl::done) == good, "whether it is a capture");
    while (code == kivctl::done) {
        std::size_t size = frame.size();
        code = reader.next(frame.data(), size);
        if (code == kivctl::done && size == 0)
            break;
        if (code == kivctl::done)
            got.emplace_back(frame.begin(), frame.begin() + static_cast<std::ptrdiff_t>(size));
    }
    require((code == kivctl::done) == ends && got == expected, "the frames of a capture");
}

// Any command line: what is taken of it is in its bounds and in its order.
void judge_command_line(Input &input) {
    std::size_t count = 0;
    while (kivctl::verbs[count].area[0] != '\0')
        ++count;
    const kivctl::verb &verb = kivctl::verbs[input.byte() % count];
    Words words = {"kivctl"};
    while (!input.empty())
        words.push_back(text_of(input.bytes(1 + input.below(12))));
    const Words before = words;
    std::vector<char *> pointers;
    for (std::string &word : words)
        pointers.push_back(word.data());
    pointers.push_back(nullptr);
    kivctl::option_value values[kivctl::most_options];
    kivctl::request parsed{};
    if (kivctl::read_arguments(verb, static_cast<int>(words.size()), pointers.data(), values, parsed) !=
        kivctl::done)
        return;
    require(parsed.has('h') || (parsed.count >= verb.least && parsed.count <= verb.most),
            "the number of arguments");
    std::size_t from = 1;
    for (int i = 0; i < parsed.count; ++i, ++from) {
        while (from < before.size() && before[from] != parsed.arguments[i])
            ++from;
        require(from < before.size(), "the order of arguments");
    }
    for (int i = 0; i < parsed.option_count; ++i) {
        const std::string keys = verb.options + std::string(kivctl::common_options);
        require(keys.find(values[i].key) != std::string::npos, "an option of the verb");
    }
}

Words words_of(Input &input) {
    Words words(1);
    for (const std::uint8_t byte : input.bytes(4096)) {
        if (byte == ' ' || byte == '\0')
            words.emplace_back();
        else
            words.back() += static_cast<char>(byte);
    }
    return words;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    require(std::freopen("/dev/null", "w", stdout) != nullptr, "no output");
    kivctl::fail(kivctl::failed, nullptr, "%s", "the first error is the only one that is said");
    kivctl::over = ::eventfd(0, EFD_NONBLOCK);
    const std::uint8_t address[] = {2, 0, link_end, link_escape, 0, 1};
    std::copy_n(address, 6, kivctl::own);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    Input input(data, size);
    given = {};
    const unsigned what = input.byte();
    switch (what % 10) {
    case 0:
        judge_number(text_of(input.bytes(64)), what < 128 ? UINT32_MAX : 0xff);
        break;
    case 1:
        judge_duration(text_of(input.bytes(64)));
        break;
    case 2:
        judge_bytes(text_of(input.bytes(256)), what);
        break;
    case 3:
        judge_escapes(text_of(input.bytes(256)));
        break;
    case 4:
        judge_transfer(words_of(input));
        break;
    case 5:
        judge_pins(words_of(input));
        break;
    case 6:
        what < 200 ? judge_inbound(input) : judge_outbound(input);
        break;
    case 7:
        judge_h4(input);
        break;
    case 8:
        judge_pcap(input);
        break;
    default:
        judge_command_line(input);
    }
    return 0;
}
