// The fixtures themselves: that they catch what they are there for.

#include <gtest/gtest-spi.h>
#include <unistd.h>

#include "fixtures/log_capture.h"
#include "kiv/core.h"

namespace kiv::test {
namespace {

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
