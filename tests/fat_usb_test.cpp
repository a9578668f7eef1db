// FAT attributes of files, and USB links over the simulated serial line and a pseudo-terminal.

#include <cerrno>
#include <cstdlib>
#include <linux/msdos_fs.h>
#include <string>
#include <sys/ioctl.h>
#include <thread>
#include <unistd.h>
#include <utility>

#include "fixtures/log_capture.h"
#include "fixtures/pty.h"
#include "kiv/platform.h"

extern "C" int usb_link_main(int argc, char **argv); // examples/usb_link.c

namespace kiv::test {
namespace {

// FAT attributes --------------------------------------------------------------------------------------------

class FatAttributes : public LoggedBoardTest {
  protected:
    std::string path_;

    void SetUp() override {
        LoggedBoardTest::SetUp();
        path_ = ::testing::TempDir() + "kiv_fat_XXXXXX";
        const int fd = ::mkstemp(path_.data());
        ASSERT_GE(fd, 0);
        ::close(fd);
    }
    void TearDown() override {
        ::unlink(path_.c_str());
        LoggedBoardTest::TearDown();
    }
    using Answer = std::pair<int32_t, std::uint32_t>;
    static Answer ask(const std::string &path) {
        std::uint32_t attributes = 0xa5a5a5a5;
        const int32_t status = kiv_fs_get_fat_attribute(path.c_str(), &attributes);
        return {status, attributes};
    }
};

TEST_F(FatAttributes, PassesOnHiddenAndSystemOnly) {
    for (std::uint32_t attributes = 0; attributes < 0x40; ++attributes) {
        ASSERT_EQ(kiv_sim_fat_set(path_.c_str(), attributes), 0);
        EXPECT_EQ(ask(path_), (Answer{0, attributes & 6})) << attributes;
    }
}

TEST_F(FatAttributes, AreNoneWhereThereAreNoneAndTheErrorOfOpening) {
    EXPECT_EQ(ask(path_), (Answer{0, 0})) << "another file system";
    EXPECT_EQ(ask(path_ + "/none"), (Answer{ENOTDIR, 0}));
    EXPECT_EQ(ask("/nowhere/at/all"), (Answer{ENOENT, 0}));
    ASSERT_EQ(kiv_sim_fat_set(path_.c_str(), 0x27), 0);
    for (const int error : {EINTR, EACCES, EMFILE}) {
        kiv_sim_fail(KIV_SIM_OPEN, 1, 1, error);
        EXPECT_EQ(ask(path_), (Answer{error, 0}));
    }
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_OPEN), 6U) << "an interrupted opening is not repeated";
    for (const int error : {EINTR, EIO}) {
        kiv_sim_fail_ioctl(FAT_IOCTL_GET_ATTRIBUTES, 1, 1, error);
        EXPECT_EQ(ask(path_), (Answer{0, 0}));
    }
    kiv_sim_fail(KIV_SIM_CLOSE, 1, 1, EIO);
    EXPECT_EQ(ask(path_), (Answer{0, 6}));
    kiv_sim_reset();
    ::setenv("KIV_SIM_FAT", ("0x3:" + path_).c_str(), 1);
    EXPECT_EQ(ask(path_), (Answer{0, KIV_FAT_HIDDEN}));
    ::unsetenv("KIV_SIM_FAT");
}

// USB links -------------------------------------------------------------------------------------------------

constexpr char line_path[] = "/dev/ttyKIV1";
constexpr unsigned line = 1;

class UsbLink : public LoggedBoardTest {
  protected:
    UART_infos port_ = {};

    void open_link() { ASSERT_EQ(kiv_usb_open(&port_, line_path), 0); }
    void feed(const std::string &bytes) const {
        ASSERT_EQ(kiv_sim_line_send(line, bytes.data(), bytes.size()), bytes.size());
    }
    static kiv_sim_line_state state() {
        kiv_sim_line_state seen;
        EXPECT_EQ(kiv_sim_line_inspect(line, &seen), 0);
        return seen;
    }
    std::string read(unsigned length) {
        std::string buffer(length, '\0');
        const unsigned count = kiv_usb_read(&port_, buffer.data(), length);
        EXPECT_LE(count, length);
        return buffer.substr(0, count);
    }
};

TEST_F(UsbLink, IsASerialPortWithItsOwnSetUp) {
    open_link();
    EXPECT_EQ(state().c_cflag & (CBAUD | CRTSCTS | CSIZE | PARENB), B115200 | CRTSCTS | CS8);
    EXPECT_EQ(kiv_usb_write(&port_, "ping", 4), 4U);
    char sent[8];
    EXPECT_EQ(std::string(sent, kiv_sim_line_receive(line, sent, sizeof sent)), "ping");
    feed("pong!");
    EXPECT_EQ(read(4), "pong");
    EXPECT_EQ(kiv_usb_close(&port_), 0);
    EXPECT_EQ(state().c_cflag & CBAUD, static_cast<unsigned>(B0));
    EXPECT_EQ(state().modem & (KIV_SIM_DTR | KIV_SIM_RTS), 0U);
    EXPECT_EQ(state().near_ends, 1U) << "stopping is not closing";
    EXPECT_EQ(sup_uart_close(&port_), 0);
    EXPECT_EQ(state().near_ends, 0U);
}

TEST_F(UsbLink, StopEndsABlockedReadWithWhatHasCome) {
    open_link();
    feed("abc");
    std::string got;
    std::thread reader([&] { got = read(8); });
    kiv_sim_wait_calls(KIV_SIM_POLL, 2); // the second wait: the three bytes are taken
    EXPECT_EQ(kiv_usb_close(&port_), 0);
    reader.join();
    EXPECT_EQ(got, "abc");
    EXPECT_EQ(reports(), Reports{warned("posix/linux_uart", "sup_uart_Read")});
    EXPECT_EQ(sup_uart_close(&port_), 0);
}

TEST_F(UsbLink, TellsNothingOfFailuresButTheLog) {
    open_link();
    kiv_sim_fail(KIV_SIM_WRITE, 1, 1, EIO);
    EXPECT_EQ(kiv_usb_write(&port_, "lost", 4), 4U);
    EXPECT_EQ(kiv_usb_write(&port_, "", 0), 0U);
    EXPECT_EQ(read(0), "");
    feed("ab");
    kiv_sim_fail(KIV_SIM_READ, 2, 1, ENXIO);
    kiv_sim_shorten(KIV_SIM_READ, 1, 1, 1);
    EXPECT_EQ(read(2), "a");
    const std::string module = "posix/linux_uart";
    const std::string write_text = "ret = pos_write(UART_infos, buffer + (length - remaining), remaining)";
    const std::string read_text = "ret = pos_read(UART_infos, buffer + (*length - remaining), remaining)";
    EXPECT_EQ(reports(),
              (Reports{trace(module, "sup_uart_Send", write_text, EIO), warned(module, "sup_uart_Send"),
                       warned(module, "sup_uart_Send"), warned(module, "sup_uart_Read"),
                       trace(module, "sup_uart_Read", read_text, ENXIO), warned(module, "sup_uart_Read")}));
    EXPECT_EQ(sup_uart_close(&port_), 0);
    char byte = 0;
    EXPECT_EQ(kiv_usb_write(nullptr, &byte, 1), 1U);
    EXPECT_EQ(kiv_usb_read(nullptr, &byte, 1), 1U);
    EXPECT_EQ(kiv_usb_close(nullptr), EINVAL);
    const std::string no_port = "(UART_infos) != ((void *)0)";
    EXPECT_EQ(reports(),
              (Reports{asserted(module, "sup_uart_Send", no_port), asserted(module, "sup_uart_Read", no_port),
                       asserted(module, "sup_uart_Stop_UART", no_port)}));
}

TEST_F(UsbLink, PassesOnTheStatusOfOpeningAndStopping) {
    const std::string open_text =
        "UART_infos->kiv_linux_sfd = kiv_linux_sopen(device_name, O_RDWR | O_NOCTTY)";
    EXPECT_EQ(kiv_usb_open(&port_, "/nowhere"), ENOENT);
    EXPECT_EQ(reports(), Reports{trace("posix/linux_uart", "sup_uart_Init2", open_text, ENOENT)});
    EXPECT_EQ(kiv_usb_open(&port_, "tcpout:127.0.0.1:1"), ENODEV);
    EXPECT_EQ(reports(), Reports{logged(1, "tcpout support is not enabled\n")});
    open_link();
    constexpr unsigned long set_settings = 0x402C542B; // TCSETS2
    kiv_sim_fail_ioctl(set_settings, 1, 1, EIO);
    EXPECT_EQ(kiv_usb_close(&port_), EIO);
    EXPECT_EQ(reports(), (Reports{trace("posix/linux_uart", "sup_uart_Change_Speed",
                                        "ret = kiv_tcsetattr(UART_infos->fd, 0, &termios_p)", EIO),
                                  warned("posix/linux_uart", "sup_uart_Change_Speed"),
                                  warned("posix/linux_uart", "sup_uart_Stop_UART")}));
    EXPECT_EQ(sup_uart_close(&port_), 0);
}

TEST_F(UsbLink, TheExampleExchangesALine) {
    std::string words[] = {"usb_link", line_path, "hello"};
    char *arguments[] = {words[0].data(), words[1].data(), words[2].data(), nullptr};
    int status = -1;
    ::testing::internal::CaptureStdout();
    std::thread user([&] { status = usb_link_main(3, arguments); });
    kiv_sim_line_wait(
        line, [](const kiv_sim_line_state *now, void *) { return now->sent == 6 ? 1 : 0; }, nullptr);
    feed("world\nnot read");
    user.join();
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "world\n");
    EXPECT_EQ(status, 0);
    char sent[8];
    EXPECT_EQ(std::string(sent, kiv_sim_line_receive(line, sent, sizeof sent)), "hello\n");
    EXPECT_EQ(state().near_ends, 0U);
}

TEST_F(UsbLink, WorksOnAPseudoTerminal) {
    Pty pty;
    if (!pty.works())
        GTEST_SKIP() << "no pseudo-terminals here";
    const int status = kiv_usb_open(&port_, pty.path().c_str());
    if (status == ENOSYS) {
        reports();
        GTEST_SKIP() << "this emulator does not know the requests of ttys";
    }
    ASSERT_EQ(status, 0);
    ASSERT_EQ(::write(pty.master(), "\r\0\n", 3), 3);
    EXPECT_EQ(read(3), std::string("\r\0\n", 3));
    EXPECT_EQ(kiv_usb_write(&port_, "\n\x04", 2), 2U);
    char sent[8];
    EXPECT_EQ(::read(pty.master(), sent, sizeof sent), 2);
    EXPECT_EQ(kiv_usb_close(&port_), 0);
    EXPECT_EQ(read(1), "") << "the stop counts for the next read when none was blocked";
    EXPECT_EQ(reports(), Reports{warned("posix/linux_uart", "sup_uart_Read")});
    EXPECT_EQ(sup_uart_close(&port_), 0);
}

} // namespace
} // namespace kiv::test
