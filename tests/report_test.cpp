// Reports: what reaches kiv-core when a call fails, word for word. kiv-core's side is replaced here by
// doubles that keep the arguments as they came, and can leave errno changed.

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "fixtures/board.h"
#include "kiv/core.h"
#include "kiv/platform.h"
#include "kiv/uart.h"

namespace {

struct Message {
    const char *category;
    int level;
    std::string format, text;
};

struct Check {
    std::string expression, file, function;
    int line;
    bool operator==(const Check &) const = default;
};

// Before main, when the library is loaded, only plain memory is sure to be there.
constinit kiv_log_category *added[4] = {};
constinit const void *third_word_when_added[4] = {};
constinit int levels_when_added[4] = {};
constinit unsigned added_count = 0;

std::vector<Message> messages;
std::vector<Check> assertions, warnings;
int errno_after_a_message = -1; // -1: as it was

} // namespace

int kiv_log_dyn_add(kiv_log_category *category) {
    third_word_when_added[added_count] = category->core;
    levels_when_added[added_count] = *category->level;
    added[added_count++] = category;
    return ENOMEM; // of no interest to the library
}

int sup_log_msg_nocolor_raw(const char *category, int level, const char *format, ...) {
    const int before = errno;
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    messages.push_back({category, level, format, text});
    errno = errno_after_a_message == -1 ? before : errno_after_a_message;
    return -1;
}

void kiv_assert(const char *expression, const char *file, int line, const char *function) {
    assertions.push_back({expression, file, function, line});
}

void kiv_warn(const char *expression, const char *file, int line, const char *function) {
    warnings.push_back({expression, file, function, line});
}

namespace kiv::test {
namespace {

constexpr const char *module_path = "drivers/src/posix/linux_uart";
constexpr const char *nowhere = "/nonexistent/tty";
constexpr const char *line = "/dev/ttyKIV0";

class ReportTest : public BoardTest {
  protected:
    UART_infos port_{};

    void SetUp() override {
        BoardTest::SetUp();
        messages.clear();
        assertions.clear();
        warnings.clear();
        errno_after_a_message = -1;
        kiv_log_dyn_level_POS = 3;
        port_.magic = UART_MAGIC;
        port_.flags = UART_FLAG_STREAM;
    }
    void TearDown() override {
        kiv_log_dyn_level_POS = 3;
        BoardTest::TearDown();
    }
    // A port whose read fails with `error`.
    int fail_read(int error) {
        static int read_error;
        read_error = error;
        port_.read = [](UART_infos *, void *, unsigned int) {
            errno = read_error;
            return -1;
        };
        char byte;
        unsigned int length = 1;
        return sup_uart_Read_partial(&port_, &byte, &length);
    }
};

TEST_F(ReportTest, BothCategoriesAreRegisteredAtLoad) {
    ASSERT_EQ(added_count, 2U);
    EXPECT_STREQ(added[0]->name, "POS");
    EXPECT_STREQ(added[1]->name, "uart_bt");
    EXPECT_EQ(added[0]->level, &kiv_log_dyn_level_POS);
    EXPECT_EQ(added[1]->level, &kiv_log_dyn_level_uart_bt);
    for (unsigned i = 0; i < 2; ++i) {
        EXPECT_EQ(levels_when_added[i], 3);
        EXPECT_EQ(third_word_when_added[i], nullptr);
    }
}

TEST_F(ReportTest, TraceIsWrittenLetterForLetter) {
    EXPECT_EQ(sup_uart_Init(&port_, nowhere, 9, 0), ENOENT);
    ASSERT_EQ(messages.size(), 1U);
    const Message &trace = messages[0];
    EXPECT_EQ(trace.category, added[0]->name); // the registered string itself
    EXPECT_EQ(trace.level, 1);
    EXPECT_EQ(trace.format,
              "drivers/src/posix/linux_uart:%d in %s, "
              "UART_infos->kiv_linux_sfd = kiv_linux_sopen(device_name, O_RDWR | O_NOCTTY) : %s\n");
    int source_line = 0;
    int end = 0;
    EXPECT_EQ(std::sscanf(trace.text.c_str(), "drivers/src/posix/linux_uart:%d in%n", &source_line, &end), 1);
    EXPECT_GT(source_line, 0);
    EXPECT_EQ(
        trace.text.substr(static_cast<std::size_t>(end)),
        " sup_uart_Init2, UART_infos->kiv_linux_sfd = kiv_linux_sopen(device_name, O_RDWR | O_NOCTTY) : "
        "No such file or directory\n");
    EXPECT_EQ(assertions, std::vector<Check>());
    EXPECT_EQ(warnings, std::vector<Check>());
}

TEST_F(ReportTest, LevelZeroSilencesMessagesAndNothingElse) {
    for (const int level : {-1, 0, 1, 2, 3, 100}) {
        kiv_log_dyn_level_POS = level;
        kiv_log_dyn_level_uart_bt = 3 - level; // the other category's, and of no matter here
        messages.clear();
        assertions.clear();
        warnings.clear();
        errno_after_a_message = EXDEV; // a message would be followed by an assertion
        port_.magic = 0;
        EXPECT_EQ(fail_read(EPERM), EPERM);
        EXPECT_EQ(sup_uart_Init(&port_, "tcpout:127.0.0.1:1", 9, 0), ENODEV);
        EXPECT_EQ(sup_uart_Init(&port_, line, 3, 0), EINVAL);
        EXPECT_EQ(messages.size(), level >= 1 ? 3U : 0U) << "level " << level;
        EXPECT_EQ(assertions.size(), level >= 1 ? 2U : 1U) << "the magic's, and the comparison of errno";
        EXPECT_EQ(warnings.size(), 1U);
    }
    kiv_log_dyn_level_uart_bt = 3;
}

TEST_F(ReportTest, ErrnoThatTheLogChangedIsReportedAtTheTracesPlace) {
    errno_after_a_message = EXDEV;
    EXPECT_EQ(fail_read(EPERM), EPERM); // the status is the saved one
    ASSERT_EQ(messages.size(), 1U);
    ASSERT_EQ(assertions.size(), 1U);
    const Check &check = assertions[0];
    EXPECT_EQ(check.expression, "__old_errno == (*__errno_location ())");
    EXPECT_EQ(check.file, module_path);
    EXPECT_EQ(check.function, "sup_uart_Read_partial");
    EXPECT_NE(messages[0].text.find(":" + std::to_string(check.line) + " in "), std::string::npos);
    // The number that the speed helper returns was never in errno.
    assertions.clear();
    EXPECT_EQ(sup_uart_Init(&port_, line, 115200, 0), EINVAL);
    ASSERT_EQ(messages.size(), 2U);
    EXPECT_EQ(messages[1].format, "drivers/src/posix/linux_uart:%d in %s, "
                                  "ret = uart_set_speed(&termios_p, speed) : %s\n");
    EXPECT_NE(messages[1].text.find(" : Invalid argument\n"), std::string::npos);
    EXPECT_EQ(assertions, std::vector<Check>());
}

TEST_F(ReportTest, FailureWithoutErrnoWritesNoTrace) {
    errno_after_a_message = EXDEV;
    fail_read(0);
    EXPECT_TRUE(messages.empty());
    EXPECT_EQ(assertions, std::vector<Check>());
    ASSERT_EQ(warnings.size(), 1U);
}

TEST_F(ReportTest, ChecksNameExpressionPlaceAndFunction) {
    EXPECT_EQ(sup_uart_close(nullptr), EINVAL);
    port_.magic = 0;
    EXPECT_EQ(fail_read(EPERM), EPERM);
    ASSERT_EQ(assertions.size(), 2U);
    ASSERT_EQ(warnings.size(), 1U);
    EXPECT_EQ(assertions[0],
              (Check{"(UART_infos) != ((void *)0)", module_path, "sup_uart_close", assertions[0].line}));
    EXPECT_EQ(assertions[1], (Check{"UART_infos->magic == 0xc0decafe", module_path, "sup_uart_Read_partial",
                                    assertions[1].line}));
    EXPECT_EQ(warnings[0], (Check{"ret == 0", module_path, "sup_uart_Read_partial", warnings[0].line}));
}

} // namespace
} // namespace kiv::test
