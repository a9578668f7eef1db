// Interrupts of pins, through the shared library.

#include <cerrno>
#include <functional>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "fixtures/log_capture.h"
#include "fixtures/signal.h"
#include "kiv/gpio.h"

namespace kiv::test {
namespace {

const char module[] = "linux/gpio";
const std::string open_irq_text =
    "ret = ioctl(device->fd, (((1U) << (((0+8)+8)+14)) | ((('p')) << (0+8)) | (((3)) << 0) | "
    "((((sizeof(struct gpio_irq)))) << ((0+8)+8))), &data)";
const std::string wait_irq_text =
    "ret = ioctl(device->fd, (((1U) << (((0+8)+8)+14)) | ((('p')) << (0+8)) | (((5)) << 0) | "
    "((((sizeof(struct gpio_irq)))) << ((0+8)+8))), &data)";
constexpr unsigned long wait_request = 0x40087005;

Reports refusal(const char *function, const std::string &text, int error) {
    return {trace(module, function, text, error), warned(module, function)};
}

void wait_for_waiter(unsigned pin) {
    EXPECT_EQ(
        kiv_sim_pin_wait(
            pin, [](const kiv_sim_pin_state *state, void *) { return state->waiting != 0 ? 1 : 0; }, nullptr),
        0);
}

class GpioIrq : public LoggedBoardTest {
  protected:
    kiv_gpio_irq_device irq_ = {-1, -1};

    void open(int pin, unsigned mode = KIV_SIM_EDGE_RISING) {
        ASSERT_EQ(kiv_gpio_irq_open(&irq_, pin, mode), 0);
        ASSERT_GE(irq_.fd, 0);
        ASSERT_EQ(irq_.pin, pin);
    }
    void TearDown() override {
        if (irq_.fd >= 0) {
            EXPECT_EQ(kiv_gpio_irq_close(&irq_), 0);
        }
        LoggedBoardTest::TearDown();
    }
};

TEST_F(GpioIrq, WaitsForTheEdgesOfItsMode) {
    const struct {
        unsigned mode;
        int before, after;
    } rows[] = {{KIV_SIM_EDGE_RISING, 0, 1}, {KIV_SIM_EDGE_FALLING, 1, 0}, {KIV_SIM_EDGE_BOTH, 0, 1}};
    ASSERT_EQ(kiv_sim_fail(KIV_SIM_OPEN, 1, 2, EINTR), 0); // it goes on
    for (const auto &row : rows) {
        ASSERT_EQ(kiv_sim_pin_drive(8, row.before), 0);
        open(8, row.mode);
        std::thread waiter([this] { EXPECT_EQ(kiv_gpio_irq_wait(&irq_), 0); });
        wait_for_waiter(8);
        kiv_sim_pin_state state;
        EXPECT_EQ(kiv_sim_pin_inspect(8, &state), 0);
        EXPECT_EQ(state.irq_mode, static_cast<int>(row.mode));
        EXPECT_EQ(kiv_sim_pin_drive(8, row.after), 0);
        waiter.join();
        EXPECT_EQ(kiv_gpio_irq_close(&irq_), 0);
    }
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_OPEN), 5u);
    irq_.fd = -1;
}

TEST_F(GpioIrq, MissingDeviceLeavesTheHandleAlone) {
    irq_ = {-7, 123};
    ASSERT_EQ(kiv_sim_fail(KIV_SIM_OPEN, 1, 1, ENOENT), 0);
    EXPECT_EQ(kiv_gpio_irq_open(&irq_, 8, KIV_SIM_EDGE_RISING), ENOENT);
    EXPECT_EQ(irq_.fd, -7);
    EXPECT_EQ(irq_.pin, 123);
    EXPECT_EQ(reports(), refusal("kiv_gpio_dev_open",
                                 "*fd = ({ int __ret; while((__ret = (open(\"/dev/gpio\", 02))) == -1 && "
                                 "(*__errno_location ()) == 4); __ret;})",
                                 ENOENT));
}

// The descriptor stays with the handle.
TEST_F(GpioIrq, RefusedInterruptIsReleasedByItsCloser) {
    open(9);
    const struct {
        int pin;
        unsigned mode;
        int status;
    } rows[] = {{8, 0, EINVAL}, {8, 4, EINVAL}, {8, 0xffffffff, EINVAL}, {64, 1, EINVAL}, {9, 1, EBUSY}};
    for (const auto &row : rows) {
        kiv_gpio_irq_device refused = {-1, -1};
        EXPECT_EQ(kiv_gpio_irq_open(&refused, row.pin, row.mode), row.status);
        EXPECT_EQ(reports(), refusal("kiv_gpio_irq_open", open_irq_text, row.status));
        EXPECT_EQ(refused.pin, row.pin);
        EXPECT_EQ(open_descriptors().count(refused.fd), 1u);
        EXPECT_EQ(kiv_gpio_irq_close(&refused), 0);
        EXPECT_EQ(open_descriptors().count(refused.fd), 0u);
    }
}

TEST_F(GpioIrq, SignalEndsTheWait) {
    open(8);
    std::thread waiter([this] {
        Interrupter interrupter(::pthread_self());
        EXPECT_EQ(kiv_gpio_irq_wait(&irq_), EINTR);
        interrupter.stop();
    });
    waiter.join();
    EXPECT_EQ(reports(), refusal("kiv_gpio_irq_wait", wait_irq_text, EINTR));
    EXPECT_EQ(kiv_sim_pin_drive(8, 1), 0);
    EXPECT_EQ(kiv_gpio_irq_wait(&irq_), 0);
}

TEST_F(GpioIrq, FailedWaitsAreReportedAndNotRepeated) {
    open(8);
    for (const int error : {EINTR, EIO, ENODEV}) {
        const unsigned before = kiv_sim_calls(KIV_SIM_IOCTL);
        ASSERT_EQ(kiv_sim_fail_ioctl(wait_request, 1, 1, error), 0);
        EXPECT_EQ(kiv_gpio_irq_wait(&irq_), error);
        EXPECT_EQ(reports(), refusal("kiv_gpio_irq_wait", wait_irq_text, error));
        EXPECT_EQ(kiv_sim_calls(KIV_SIM_IOCTL), before + 1);
    }
}

// The device's own number says nothing; -1 without an errno neither.
TEST_F(GpioIrq, AnyOtherResultIsASuccess) {
    open(8);
    for (const long result : {5L, -2L, -1L}) {
        ASSERT_EQ(kiv_sim_answer(KIV_SIM_IOCTL, 1, 1, result), 0);
        errno = result == -1 ? 0 : EDOM;
        EXPECT_EQ(kiv_gpio_irq_wait(&irq_), 0) << result;
    }
    kiv_gpio_irq_device other = {-1, -1};
    ASSERT_EQ(kiv_sim_answer(KIV_SIM_IOCTL, 1, 1, -1), 0);
    errno = 0;
    EXPECT_EQ(kiv_gpio_irq_open(&other, 9, KIV_SIM_EDGE_RISING), 0);
    EXPECT_EQ(kiv_gpio_irq_close(&other), 0);
}

// Nothing that goes wrong is told, and close is called once.
TEST_F(GpioIrq, ClosingAlwaysSucceeds) {
    const std::function<void()> troubles[] = {
        [] { EXPECT_EQ(kiv_sim_fail(KIV_SIM_IOCTL, 1, 1, EIO), 0); },
        [] { EXPECT_EQ(kiv_sim_fail(KIV_SIM_CLOSE, 1, 1, EINTR), 0); },
        [this] { ::close(irq_.fd); },
    };
    for (const auto &trouble : troubles) {
        open(8);
        trouble();
        const unsigned before = kiv_sim_calls(KIV_SIM_CLOSE);
        EXPECT_EQ(kiv_gpio_irq_close(&irq_), 0);
        EXPECT_EQ(kiv_sim_calls(KIV_SIM_CLOSE), before + 1);
        EXPECT_EQ(irq_.pin, 8);
    }
    irq_.fd = -1;
}

TEST_F(GpioIrq, HandlesAreIndependent) {
    open(8);
    kiv_gpio_irq_device other = {-1, -1};
    ASSERT_EQ(kiv_gpio_irq_open(&other, 9, KIV_SIM_EDGE_RISING), 0);
    EXPECT_NE(irq_.fd, other.fd);
    std::thread first([this] { EXPECT_EQ(kiv_gpio_irq_wait(&irq_), 0); });
    std::thread second([&other] { EXPECT_EQ(kiv_gpio_irq_wait(&other), 0); });
    wait_for_waiter(8);
    wait_for_waiter(9);
    EXPECT_EQ(kiv_sim_pin_drive(9, 1), 0);
    second.join();
    kiv_sim_pin_state state;
    ASSERT_EQ(kiv_sim_pin_inspect(8, &state), 0);
    EXPECT_EQ(state.waiting, 1u);
    EXPECT_EQ(kiv_gpio_irq_close(&other), 0);
    EXPECT_EQ(kiv_sim_pin_drive(8, 1), 0);
    first.join();
}

} // namespace
} // namespace kiv::test
