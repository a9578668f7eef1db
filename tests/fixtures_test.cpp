// The fixtures themselves: that they catch what they are there for.

#include <cerrno>
#include <gtest/gtest-spi.h>
#include <unistd.h>

#include "fixtures/log_capture.h"
#include "kiv/core.h"

namespace kiv::test {
namespace {

TEST(Reports, AreWholeTextsWithTheSourceLineMasked) {
    reports();
    errno = EL2HLT;
    sup_log_msg_nocolor_raw("POS", 1, "%s:%d in %s, %s : %s\n", "drivers/src/linux/i2c", 77, "kiv_i2c_open",
                            "fd = open(name,02)", "No such file or directory");
    sup_log_msg_nocolor_raw("uart_bt", 3, "at 10:20 in place\n");
    kiv_assert("(device) != ((void *)0)", "drivers/src/linux/i2c", 5, "kiv_i2c_open");
    kiv_warn("ret == 0", "drivers/src/linux/i2c", 6, "kiv_i2c_open");
    kiv_warn("ret == 0", "drivers/src/linux/i2c", 0, "kiv_i2c_open");
    sup_system_diag("port %d\n", 5000);
    EXPECT_EQ(errno, EL2HLT);
    EXPECT_EQ(reports(),
              Reports({trace("linux/i2c", "kiv_i2c_open", "fd = open(name,02)", ENOENT),
                       logged(3, "at 10:20 in place\n", "uart_bt"),
                       asserted("linux/i2c", "kiv_i2c_open", "(device) != ((void *)0)"),
                       warned("linux/i2c", "kiv_i2c_open"), warned("linux/i2c", "kiv_i2c_open") + ", no line",
                       diagnosed("port 5000\n")}));
    EXPECT_EQ(reports(), Reports());
}

// A board test that is run by hand, so that its failures can be looked at.
class Probe : public LoggedBoardTest {
  public:
    void TestBody() override {}
    using LoggedBoardTest::SetUp;
    using LoggedBoardTest::TearDown;
};

TEST(BoardFixture, FailsForALeftDescriptorAndForALeftReport) {
    static Probe probe;
    probe.SetUp();
    static int left = ::dup(STDERR_FILENO);
    EXPECT_NONFATAL_FAILURE(probe.TearDown(), "descriptors were left open");
    ::close(left);
    probe.SetUp();
    sup_log_msg_nocolor_raw("POS", 1, "unexpected\n");
    EXPECT_NONFATAL_FAILURE(probe.TearDown(), "reports that the test did not expect");
    probe.SetUp();
    probe.TearDown();
}

} // namespace
} // namespace kiv::test
