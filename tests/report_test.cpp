// Reports: when there are any, at which level, and what a log that changes errno does to them. Their texts
// are compared wherever calls fail.

#include <cerrno>

#include "fixtures/serial.h"
#include "fixtures/tap.h"
#include "kiv/core.h"
#include "kiv/transports.h"

namespace {

// Before main, when the library is loaded, only plain memory is sure to be there.
constinit kiv_log_category added[4] = {};
constinit int levels_when_added[4] = {};
constinit unsigned added_count = 0;

} // namespace

int kiv_log_dyn_add(kiv_log_category *category) {
    levels_when_added[added_count] = *category->level;
    added[added_count++] = *category;
    return ENOMEM; // of no interest to the library
}

namespace kiv::test {
namespace {

class ReportTest : public SerialTest {
  protected:
    const std::string warning_ = warned(uart, "sup_uart_Read_partial");

    void TearDown() override {
        kiv_log_dyn_level_POS = kiv_log_dyn_level_uart_bt = 3;
        errno_after_message = 0;
        SerialTest::TearDown();
    }
    // A read that fails with `error`.
    int fail_read(int error) {
        port_.magic = UART_MAGIC;
        port_.fd = error;
        port_.read = [](UART_infos *port, void *, unsigned int) {
            errno = port->fd;
            return -1;
        };
        char byte;
        unsigned int length = 1;
        return sup_uart_Read_partial(&port_, &byte, &length);
    }
};

TEST_F(ReportTest, BothCategoriesAreRegisteredAtLoad) {
    ASSERT_EQ(added_count, 2U);
    EXPECT_STREQ(added[0].name, "POS");
    EXPECT_STREQ(added[1].name, "uart_bt");
    EXPECT_EQ(added[0].level, &kiv_log_dyn_level_POS);
    EXPECT_EQ(added[1].level, &kiv_log_dyn_level_uart_bt);
    for (unsigned i = 0; i < 2; ++i) {
        EXPECT_EQ(levels_when_added[i], 3);
        EXPECT_EQ(added[i].core, nullptr);
    }
}

TEST_F(ReportTest, LevelsSilenceMessagesAndNothingElse) {
    const std::uint8_t group[] = {3, 0, 0, 0, 0, 1};
    constexpr int unknown = 4711; // the C library makes a text for it
    const Reports all = joined(
        {{asserted(uart, "sup_uart_close", "(UART_infos) != ((void *)0)"),
          trace(uart, "sup_uart_Read_partial", text_of_partial, unknown), warning_,
          logged(1, "tcpout support is not enabled\n"), trace(uart, "sup_uart_Init2", text_of_speed, EINVAL)},
         on_net_tun,
         refused_address("MAC address = ", "03 00 00 00 00 01 ")});
    kiv_sim_tun_set_node(KIV_SIM_NET_TUN, present);
    for (const int level : {-1, 0, 1, 2, 3}) {
        SCOPED_TRACE(level);
        kiv_log_dyn_level_POS = level;
        kiv_log_dyn_level_uart_bt = 3 - level; // the other category's, and of no matter here
        EXPECT_EQ(sup_uart_close(nullptr), EINVAL);
        EXPECT_EQ(fail_read(unknown), unknown);
        EXPECT_EQ(sup_uart_Init(&port_, "tcpout:127.0.0.1:1", 9, 0), ENODEV);
        EXPECT_EQ(sup_uart_Init(&port_, tty_path, 3, 0), EINVAL);
        std::int32_t fd;
        EXPECT_EQ(kiv_eth_open(&fd, "kiv0", group), -ENODEV);
        Reports expected = all;
        std::erase_if(expected, [level](const std::string &report) {
            return report.starts_with("POS/") && report[4] - '0' > level; // "POS/3 ..."
        });
        EXPECT_EQ(reports(), expected);
    }
}

TEST_F(ReportTest, BluetoothHasALevelOfItsOwn) {
    const Reports refusal = {logged(1, "pos_open_bt_generic: type TYPE_SYSPATH invalid here\n", "uart_bt")};
    for (const int level : {3, 0}) {
        kiv_log_dyn_level_uart_bt = level;
        kiv_log_dyn_level_POS = 3 - level;
        EXPECT_EQ(sup_uart_Init(&port_, "btsyspath:/sys/class/bluetooth/hci0", 9, 0), -EINVAL);
        EXPECT_EQ(pos_open_bt_syspath(nullptr, nullptr, 0), -EINVAL);
        EXPECT_EQ(reports(), level == 3 ? joined({refusal, refusal}) : Reports());
    }
}

TEST_F(ReportTest, ErrnoThatTheLogChangedIsReportedAndPutBack) {
    errno_after_message = EXDEV;
    EXPECT_EQ(fail_read(EPERM), EPERM);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(reports(),
              Reports({trace(uart, "sup_uart_Read_partial", text_of_partial, EPERM),
                       asserted(uart, "sup_uart_Read_partial", "__old_errno == (*__errno_location ())"),
                       warning_}));
    EXPECT_EQ(sup_uart_Init(&port_, tty_path, 3, 0), EINVAL); // a number that never was in errno
    EXPECT_EQ(reports(), Reports({trace(uart, "sup_uart_Init2", text_of_speed, EINVAL)}));
    EXPECT_EQ(fail_read(0), EIO);
    EXPECT_EQ(reports(), Reports({warning_})); // no trace without an errno
}

} // namespace
} // namespace kiv::test
