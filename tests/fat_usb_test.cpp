// FAT attributes of files, and USB links over the simulated serial line.

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <termios.h>
#include <thread>
#include <unistd.h>
#include <utility>

#include "fixtures/serial.h"
#include "kiv/platform.h"

namespace kiv::test {
namespace {

// FAT attributes --------------------------------------------------------------------------------------------

class FatAttributes : public LoggedBoardTest {
  protected:
    std::string path_ = ::testing::TempDir() + "kiv_fat_XXXXXX";

    void SetUp() override {
        LoggedBoardTest::SetUp();
        ::close(::mkstemp(path_.data()));
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
    for (const std::uint32_t attributes : {0x00U, 0x02U, 0x04U, 0x39U, 0x3fU}) {
        ASSERT_EQ(kiv_sim_fat_set(path_.c_str(), attributes), 0);
        EXPECT_EQ(ask(path_), (Answer{0, attributes & 6})) << attributes;
    }
}

TEST_F(FatAttributes, AreNoneWhereThereAreNoneAndTheErrorOfOpening) {
    EXPECT_EQ(ask(path_), (Answer{0, 0})) << "another file system";
    EXPECT_EQ(ask(path_ + "/none"), (Answer{ENOTDIR, 0}));
}

// USB links -------------------------------------------------------------------------------------------------

class UsbLink : public SerialTest {
  protected:
    void open_link() { ASSERT_EQ(kiv_usb_open(&port_, tty_path), 0); }
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
    EXPECT_EQ(kiv_usb_close(&port_), 0);
    EXPECT_EQ(state().modem & (KIV_SIM_DTR | KIV_SIM_RTS), 0U);
    EXPECT_EQ(state().near_ends, 1U) << "stopping is not closing";
    close();
}

TEST_F(UsbLink, StopEndsABlockedReadWithWhatHasCome) {
    open_link();
    feed("abc");
    std::thread reader([&] { EXPECT_EQ(read(8), "abc"); });
    kiv_sim_wait_calls(KIV_SIM_POLL, 2); // the second wait: the three bytes are taken
    EXPECT_EQ(kiv_usb_close(&port_), 0);
    reader.join();
    EXPECT_EQ(reports(), Reports{warned(uart, "sup_uart_Read")});
    close();
}

TEST_F(UsbLink, RefusesWhatIsNoLink) {
    EXPECT_EQ(kiv_usb_open(&port_, "/nowhere"), ENOENT);
    char byte = 0;
    EXPECT_EQ(kiv_usb_write(nullptr, &byte, 1), 1U);
    EXPECT_EQ(kiv_usb_read(nullptr, &byte, 1), 1U);
    EXPECT_EQ(kiv_usb_close(nullptr), EINVAL);
    reports(); // the port's own
}

} // namespace
} // namespace kiv::test
