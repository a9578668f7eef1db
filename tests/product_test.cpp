// Product identification, on every kind of /proc/cpuinfo.

#include <cstring>
#include <string>
#include <utility>

#include "fixtures/log_capture.h"
#include "kiv/platform.h"

namespace kiv::test {
namespace {

using namespace std::string_literals;

class Product : public LoggedBoardTest {
  protected:
    static void set_text(const std::string &text) {
        ASSERT_EQ(kiv_sim_cpuinfo_set(text.data(), text.size()), 0);
    }
    // The name, or the number of the failure; a failure leaves the buffer alone, and success fills it.
    static std::string name(std::uint32_t room = 800) {
        std::string buffer(room + 1, '#');
        const int32_t status = get_product_name(buffer.data(), room);
        const std::size_t length = status == 0 ? std::strlen(buffer.c_str()) : 0;
        EXPECT_EQ(buffer.substr(length), std::string(room - length, status == 0 ? '\0' : '#') + '#');
        return status == 0 ? buffer.substr(0, length) : std::to_string(status);
    }
};

TEST_F(Product, TakesTheFirstWordOfTheHardwareLine) {
    const std::pair<std::string, std::string> rows[] = {
        {"processor\t: 0\nHardware\t: Example Board Rev B\nHardware\t: C\n", "Example"},
        {"Hardware\t:  Blank first\n", ""},
        {"Hardware\t: A\xa0\xff\vZ\n", "A\xa0\xff"},
        {"Hardware\t: AB\0CD\n"s, "AB"},
        {"x\0Hardware\t: Hidden\n"s, "-2"},
        {"Hardware : A\nHardware\t:B\nhardware\t: D\n Hardware\t: E\n", "-2"},
        // A piece of a long line counts as a line.
        {std::string(511, 'x') + "Hardware\t: Piece\n", "Piece"},
        {std::string(510, 'x') + "Hardware\t: Piece\n", "-2"},
        {"Hardware\t: " + std::string(600, 'n') + "\n", std::string(500, 'n')},
    };
    for (const auto &[text, expected] : rows) {
        SCOPED_TRACE(text);
        set_text(text);
        EXPECT_EQ(name(), expected);
    }
}

TEST_F(Product, CutsTheNameToItsRoom) {
    set_text("Hardware\t: ABCDEFG HI\n");
    EXPECT_EQ(name(1), "");
    EXPECT_EQ(name(7), "ABCDEF");
    EXPECT_EQ(name(8), "ABCDEFG");
    EXPECT_EQ(name(0), "-22");
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_FOPEN), 3U) << "the file is not opened in vain";
}

TEST_F(Product, ReadsTheNumberOfTheRevisionLine) {
    const std::pair<std::string, std::uint32_t> rows[] = {
        {"Hardware\t: X\nRevision\t: 000e\nRevision\t: 1\n", 14},
        {"Revision: \t\v 0xBeEf!\n", 0xbeef},
        {"Revision\t: zz\nRevision\t: 5\n", 0},
        {"Revision 12\nRevisions: a: b\n", 10},
        {"XRevision: 3\nrevision: 4\n", 0},
        {"Revision\t:56\n", 6}, // the number is looked for two characters after the colon
        {"Revision:\0005\n"s, 0},
        {"Revision\0: 6\nRevision: 7\n"s, 7},
        {"Revision: 100000000\n", 0xffffffff},
        {"Revision: 123456789abcdef0123456789\n", 0xffffffff},
        {"Revision: -2\n", 0xfffffffe},
        {std::string(127, 'x') + "Revision: 8\n", 8},
        {std::string(126, 'x') + "Revision: 8\n", 0},
        // The colon is the last character of a piece; the next one is a line of its own.
        {"Revision" + std::string(118, ' ') + ": 9\nRevision: a\n", 0},
    };
    for (const auto &[text, expected] : rows) {
        SCOPED_TRACE(text);
        set_text(text);
        EXPECT_EQ(get_product_revision(), expected);
    }
}

TEST_F(Product, KnowsNothingFromAFileThatCannotBeRead) {
    set_text("Hardware\t: A\nRevision\t: 1\n");
    EXPECT_EQ(name(), "A");
    ASSERT_EQ(kiv_sim_cpuinfo_redirect("/"), 0); // opens, and cannot be read
    EXPECT_EQ(name(), "-2");
    EXPECT_EQ(get_product_revision(), 0U);
}

} // namespace
} // namespace kiv::test
