// I2C through the public header, on the simulated bus.

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <linux/i2c-dev.h>
#include <string>
#include <thread>
#include <vector>

#include "fixtures/log_capture.h"
#include "fixtures/signal.h"
#include "kiv/i2c.h"
#include "kiv/platform.h"

namespace kiv::test {
namespace {

constexpr char module_path[] = "linux/i2c";
constexpr char write_text[] = "ret = write(device->fd, tx_data, count)";
constexpr char read_text[] = "ret = read(device->fd, rx_data, count)";
constexpr char request_text[] = "ret = ioctl(device->fd, 0x0707, &msg_rdwr)";
constexpr char no_device[] = "(device) != ((void *)0)";

using Bytes = std::vector<std::uint8_t>;

Reports traced(const std::string &function, const std::string &text, int error) {
    return {trace(module_path, function, text, error)};
}
Reports traced_and_warned(const std::string &function, const std::string &text, int error) {
    return {trace(module_path, function, text, error), warned(module_path, function)};
}

unsigned all_calls() {
    unsigned sum = 0; // a sanitizer's run time has calls of its own, but none of these
    for (const kiv_sim_call call : {KIV_SIM_OPEN, KIV_SIM_CLOSE, KIV_SIM_READ, KIV_SIM_WRITE, KIV_SIM_IOCTL,
                                    KIV_SIM_POLL, KIV_SIM_SELECT, KIV_SIM_MALLOC, KIV_SIM_CALLOC})
        sum += kiv_sim_calls(call);
    return sum;
}

kiv_sim_i2c_state bus() {
    kiv_sim_i2c_state state;
    EXPECT_EQ(kiv_sim_i2c_inspect(&state), 0);
    return state;
}

// Opening and closing -------------------------------------------------------------------------------------

class I2cOpening : public LoggedBoardTest {
  protected:
    kiv_i2c_device device_;

    void dirty() { std::memset(static_cast<void *>(&device_), 0xa5, sizeof device_); }
};

TEST_F(I2cOpening, ClearsTheRecordAndBindsTheAddressEvenOfADriver) {
    dirty();
    ASSERT_EQ(kiv_sim_i2c_claim(0x68, 1), 0);
    ASSERT_EQ(kiv_i2c_open(&device_, nullptr, 0x68), 0);
    EXPECT_EQ(bus().open_files, 1U);
    EXPECT_EQ(device_.address, 0x68U);
    EXPECT_TRUE(device_.rx == nullptr && device_.tx == nullptr);
    EXPECT_TRUE(device_.msg == nullptr && device_.close == nullptr);
    kiv_i2c_close(&device_);
    EXPECT_EQ(bus().open_files, 0U);
    EXPECT_EQ(device_.address, 0x68U) << "closing leaves the record as it is";
}

TEST_F(I2cOpening, FailsStepByStepAndLeavesNothing) {
    const std::string open_text = "fd = open(name,02)";
    const std::string bind_text = "ret = ioctl(fd,0x0706,address)";
    const std::string refused_bus = logged(1, "usb-i2c support is not enabled\n");
    const auto failed = [](const std::string &text, int error) {
        return traced_and_warned("kiv_i2c_open", text, error);
    };
    const struct {
        const char *name;
        unsigned address;
        int open_error, bind_error; // injected
        int status;
        Reports expected;
    } rows[] = {
        {"/dev/usb-i2c", 0x50, 0, 0, ENODEV, {refused_bus, warned(module_path, "kiv_i2c_open")}},
        {"/dev/usb-i2c1", 0x50, 0, 0, ENOENT, failed(open_text, ENOENT)},
        {"/dev/i2c-0", 0x50, EACCES, 0, EACCES, failed(open_text, EACCES)},
        {nullptr, 0x50, EINTR, 0, EINTR, failed(open_text, EINTR)},
        {nullptr, 0x80, 0, 0, EINVAL, failed(bind_text, EINVAL)},
        {nullptr, 0x50, 0, EBUSY, EBUSY, failed(bind_text, EBUSY)},
        {nullptr, 0x50, 0, EINTR, EINTR, failed(bind_text, EINTR)},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name != nullptr ? row.name : "default");
        kiv_sim_reset();
        if (row.open_error != 0)
            kiv_sim_fail(KIV_SIM_OPEN, 1, 1, row.open_error);
        if (row.bind_error != 0)
            kiv_sim_fail_ioctl(I2C_SLAVE_FORCE, 1, 1, row.bind_error);
        dirty();
        EXPECT_EQ(kiv_i2c_open(&device_, row.name, row.address), row.status);
        const kiv_i2c_device zero = {};
        EXPECT_EQ(std::memcmp(&device_, &zero, sizeof zero), 0);
        EXPECT_EQ(bus().open_files, 0U);
        EXPECT_EQ(reports(), row.expected);
    }
    EXPECT_EQ(kiv_i2c_open(nullptr, nullptr, 0x50), EINVAL);
    EXPECT_EQ(reports(), Reports{asserted(module_path, "kiv_i2c_open", no_device)});
    kiv_log_dyn_level_POS = 0;
    EXPECT_EQ(kiv_i2c_open(&device_, "/dev/usb-i2c", 0x50), ENODEV);
    kiv_log_dyn_level_POS = 3;
    EXPECT_EQ(reports(), Reports{warned(module_path, "kiv_i2c_open")});
}

TEST_F(I2cOpening, ReportsAFailedCloseOnce) {
    for (const int error : {EIO, EINTR}) {
        kiv_sim_reset();
        ASSERT_EQ(kiv_i2c_open(&device_, nullptr, 0x50), 0);
        kiv_sim_fail(KIV_SIM_CLOSE, 1, 1, error);
        kiv_i2c_close(&device_);
        EXPECT_EQ(kiv_sim_calls(KIV_SIM_CLOSE), 1U);
        EXPECT_EQ(reports(), traced_and_warned("kiv_i2c_close", "ret = close(device->fd)", error));
    }
    ASSERT_EQ(kiv_i2c_open(&device_, nullptr, 0x50), 0);
    kiv_sim_answer(KIV_SIM_CLOSE, 1, 1, -1);
    errno = 0;
    kiv_i2c_close(&device_);
    EXPECT_EQ(reports(), Reports()) << "a failure without an error";
    kiv_i2c_close(nullptr);
    EXPECT_EQ(reports(), Reports{asserted(module_path, "kiv_i2c_close", no_device)});
}

// Transfers -----------------------------------------------------------------------------------------------

class I2cTransfer : public LoggedBoardTest {
  protected:
    kiv_i2c_device eeprom_, clock_;

    void SetUp() override {
        LoggedBoardTest::SetUp();
        ASSERT_EQ(kiv_i2c_open(&eeprom_, nullptr, KIV_SIM_I2C_EEPROM), 0);
        ASSERT_EQ(kiv_i2c_open(&clock_, nullptr, KIV_SIM_I2C_CLOCK), 0);
    }
    void TearDown() override {
        kiv_sim_clear_faults();
        kiv_i2c_close(&eeprom_);
        kiv_i2c_close(&clock_);
        LoggedBoardTest::TearDown();
    }

    // The same on both directions.
    static int32_t move(kiv_i2c_device &device, bool reading, Bytes &bytes) {
        const auto count = static_cast<uint32_t>(bytes.size());
        return reading ? kiv_i2c_rx(&device, bytes.data(), count) : kiv_i2c_tx(&device, bytes.data(), count);
    }
    static const char *name_of(bool reading) { return reading ? "kiv_i2c_rx" : "kiv_i2c_tx"; }
    static const char *text_of(bool reading) { return reading ? read_text : write_text; }
    static kiv_sim_call call_of(bool reading) { return reading ? KIV_SIM_READ : KIV_SIM_WRITE; }
};

TEST_F(I2cTransfer, WritesAPageAndPollsUntilItIsThere) {
    Bytes page = {0x10, 1, 2, 3, 4, 5, 6, 7, 8};
    ASSERT_EQ(kiv_i2c_tx(&eeprom_, page.data(), 9), 9);
    Bytes stored(9, 0);
    ASSERT_EQ(kiv_sim_eeprom_dump(0x0f, stored.data(), 9), 0);
    EXPECT_EQ(stored, (Bytes{0xff, 1, 2, 3, 4, 5, 6, 7, 8}));
    int polls = 0;
    while (kiv_i2c_tx(&eeprom_, page.data(), 1) == 0)
        ++polls;
    EXPECT_EQ(polls, 3);
    Bytes back(8, 0);
    ASSERT_EQ(kiv_i2c_rx(&eeprom_, back.data(), 8), 8);
    EXPECT_EQ(back, Bytes(page.begin() + 1, page.end()));
    EXPECT_EQ(bus().refused, 3U);
}

// An interruption is no licence for what follows it.
TEST_F(I2cTransfer, ReportsEveryFailureButAnAbsentSlaveAndReturnsZero) {
    for (const bool reading : {false, true})
        for (const int error : {EREMOTEIO, ENXIO, EIO, EAGAIN, ETIMEDOUT, EBADF})
            for (const unsigned interruptions : {0U, 3U}) {
                SCOPED_TRACE(std::string(name_of(reading)) + ": " + std::strerror(error));
                kiv_sim_clear_faults(); // only so many can be armed
                if (interruptions != 0)
                    kiv_sim_fail(call_of(reading), 1, interruptions, EINTR);
                kiv_sim_fail(call_of(reading), 1 + interruptions, 1, error);
                Bytes bytes(4, 0);
                const unsigned before = all_calls();
                EXPECT_EQ(move(eeprom_, reading, bytes), 0);
                EXPECT_EQ(all_calls() - before, 1U + interruptions);
                Reports expected =
                    times(interruptions, trace(module_path, name_of(reading), text_of(reading), EINTR));
                if (error != EREMOTEIO)
                    expected.push_back(trace(module_path, name_of(reading), text_of(reading), error));
                EXPECT_EQ(reports(), expected);
            }
    kiv_sim_i2c_plug(KIV_SIM_I2C_CLOCK, 0);
    Bytes bytes(1, 0);
    EXPECT_EQ(move(clock_, true, bytes), 0);
    EXPECT_EQ(reports(), Reports()) << "nobody at that address";
    kiv_sim_i2c_set_absent_error(ENXIO);
    EXPECT_EQ(move(clock_, true, bytes), 0);
    EXPECT_EQ(reports(), traced("kiv_i2c_rx", read_text, ENXIO)) << "as other controllers say it";
}

TEST_F(I2cTransfer, RefusesNullPointersWithZero) {
    Bytes bytes(1, 0);
    EXPECT_EQ(kiv_i2c_tx(nullptr, bytes.data(), 1), 0);
    EXPECT_EQ(kiv_i2c_rx(nullptr, bytes.data(), 1), 0);
    EXPECT_EQ(kiv_i2c_tx(&eeprom_, nullptr, 1), 0);
    EXPECT_EQ(kiv_i2c_rx(&eeprom_, nullptr, 0), 0);
    EXPECT_EQ(bus().transfers, 0U);
    EXPECT_EQ(reports(), (Reports{asserted(module_path, "kiv_i2c_tx", no_device),
                                  asserted(module_path, "kiv_i2c_rx", no_device),
                                  asserted(module_path, "kiv_i2c_tx", "(tx_data) != ((void *)0)"),
                                  asserted(module_path, "kiv_i2c_rx", "(rx_data) != ((void *)0)")}));
}

TEST_F(I2cTransfer, GoesOnAfterRealSignals) {
    struct sigaction ignored = {};
    ignored.sa_handler = [](int) {};
    ASSERT_EQ(::sigaction(SIGUSR1, &ignored, nullptr), 0);
    for (const bool reading : {false, true}) {
        kiv_sim_i2c_hold(1);
        Bytes bytes(1, 0);
        int32_t moved = 0;
        std::thread user([&] { moved = move(clock_, reading, bytes); });
        // Until the next attempt has begun and no longer, so that the reports of all of them have room.
        for (unsigned begun = 1; begun < 4; ++begun) {
            kiv_sim_wait_calls(call_of(reading), begun);
            while (kiv_sim_calls(call_of(reading)) == begun) {
                ::pthread_kill(user.native_handle(), SIGUSR1);
                ::sched_yield();
            }
        }
        kiv_sim_i2c_hold(0);
        user.join();
        EXPECT_EQ(moved, 1);
        const Reports seen = reports();
        EXPECT_EQ(seen.size(), kiv_sim_calls(call_of(reading)) - 1);
        EXPECT_EQ(seen, times(seen.size(), trace(module_path, name_of(reading), text_of(reading), EINTR)));
    }
}

TEST_F(I2cTransfer, ReturnsAShortCountAsItIs) {
    for (const bool reading : {false, true}) {
        kiv_sim_shorten(call_of(reading), 1, 1, 2);
        Bytes bytes(5, 0);
        EXPECT_EQ(move(clock_, reading, bytes), 2);
        EXPECT_EQ(kiv_sim_calls(call_of(reading)), 1U);
        Bytes none;
        none.reserve(1);
        EXPECT_EQ(move(clock_, reading, none), 0);
        EXPECT_EQ(kiv_sim_calls(call_of(reading)), 2U);
    }
    Bytes bytes(9000, 0);
    EXPECT_EQ(move(clock_, true, bytes), 8192) << "what the kernel takes at once";
}

// Combined transfers --------------------------------------------------------------------------------------

class I2cCombined : public I2cTransfer {
  protected:
    std::uint8_t register_ = 0;
    std::array<std::uint8_t, 8> contents_ = {};
    kiv_i2c_message pair_[2] = {{&register_, 1, 0}, {contents_.data(), 7, KIV_I2C_READ}};
};

TEST_F(I2cCombined, ReadsRegistersInOneSystemCall) {
    ASSERT_EQ(kiv_sim_clock_set(1709209845, 1), 0); // 2024-02-29 12:30:45, a Thursday
    const unsigned before = all_calls();
    ASSERT_EQ(kiv_i2c_msg(&clock_, pair_, 2), 0);
    EXPECT_EQ(all_calls() - before, 1U) << "and no allocation";
    EXPECT_EQ(contents_, (std::array<std::uint8_t, 8>{0x45, 0x30, 0x12, 5, 0x29, 0x02, 0x24, 0}));
    const kiv_sim_i2c_state state = bus();
    ASSERT_EQ(state.last_count, 2U);
    EXPECT_EQ(state.last[0].address, 0x68);
    EXPECT_EQ(state.last[1].address, 0x68);
    EXPECT_EQ(state.last[1].flags, 1);
    EXPECT_EQ(state.last[1].length, 7);
}

TEST_F(I2cCombined, CutsWhatTheKernelsFieldsDoNotHoldAndLeavesItTheFlags) {
    clock_.address = 0x10068;
    std::uint8_t byte = 0;
    kiv_i2c_message messages[2] = {{&byte, 0x10001, 0x70001}, {&byte, 0x20001, 0xff0000}};
    ASSERT_EQ(kiv_i2c_msg(&clock_, messages, 2), 0);
    const kiv_sim_i2c_state state = bus();
    for (const auto &seen : {state.last[0], state.last[1]}) {
        EXPECT_EQ(seen.address, 0x68);
        EXPECT_EQ(seen.length, 1);
    }
    EXPECT_EQ(state.last[0].flags, 1);
    EXPECT_EQ(state.last[1].flags, 0);
    pair_[1].flags = 0xfff1;
    EXPECT_EQ(kiv_i2c_msg(&clock_, pair_, 2), EOPNOTSUPP);
    EXPECT_EQ(bus().last[1].flags, 0xfff1);
    EXPECT_EQ(reports(), traced("kiv_i2c_msg", request_text, EOPNOTSUPP));
}

TEST_F(I2cCombined, TakesUpToTwentyMessages) {
    std::array<std::uint8_t, 21> bytes = {};
    std::array<kiv_i2c_message, 21> messages;
    for (std::size_t i = 0; i < messages.size(); ++i)
        messages[i] = {&bytes[i], 1, KIV_I2C_READ};
    for (std::uint8_t i = 0; i < 20; ++i) {
        const auto value = static_cast<std::uint8_t>(i + 1);
        kiv_sim_eeprom_load(i, &value, 1);
    }
    const struct {
        int32_t count;
        int status;
        unsigned kernel_count;
    } rows[] = {{1, 0, 1},
                {20, 0, 20},
                {21, EINVAL, 0},
                {INT32_MAX, EINVAL, 0},
                {0, EINVAL, 0},
                {-1, EINVAL, UINT32_MAX},
                {INT32_MIN, EINVAL, 0x80000000U}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.count);
        std::uint8_t start = 0;
        ASSERT_EQ(kiv_i2c_tx(&eeprom_, &start, 1), 1);
        bytes = {};
        const unsigned calls = kiv_sim_calls(KIV_SIM_IOCTL);
        EXPECT_EQ(kiv_i2c_msg(&eeprom_, messages.data(), row.count), row.status);
        for (int32_t i = 0; i < 21; ++i)
            EXPECT_EQ(bytes[static_cast<std::size_t>(i)], row.status == 0 && i < row.count ? i + 1 : 0);
        const bool reached = row.count <= 20;
        EXPECT_EQ(kiv_sim_calls(KIV_SIM_IOCTL) - calls, reached ? 1U : 0U);
        EXPECT_TRUE(!reached || bus().last_count == row.kernel_count);
        EXPECT_EQ(reports(),
                  reached && row.status != 0 ? traced("kiv_i2c_msg", request_text, EINVAL) : Reports());
    }
}

TEST_F(I2cCombined, ReturnsTheErrorOfTheRequestOnce) {
    for (const int error : {EREMOTEIO, ENXIO, EINTR, EIO, EOPNOTSUPP}) {
        SCOPED_TRACE(std::strerror(error));
        for (const int32_t count : {1, 2}) {
            const unsigned before = all_calls();
            kiv_sim_fail_ioctl(I2C_RDWR, 1, 1, error);
            EXPECT_EQ(kiv_i2c_msg(&clock_, pair_, count), error);
            EXPECT_EQ(all_calls() - before, 1U);
            EXPECT_EQ(reports(), traced("kiv_i2c_msg", request_text, error));
        }
    }
    kiv_sim_i2c_plug(KIV_SIM_I2C_CLOCK, 0);
    contents_.fill(0xee);
    EXPECT_EQ(kiv_i2c_msg(&clock_, pair_, 2), EREMOTEIO);
    EXPECT_EQ(contents_[0], 0xee);
    EXPECT_EQ(reports(), traced("kiv_i2c_msg", request_text, EREMOTEIO));
    EXPECT_EQ(kiv_i2c_msg(nullptr, pair_, 2), EINVAL);
    EXPECT_EQ(kiv_i2c_msg(&clock_, nullptr, 99), EINVAL);
    EXPECT_EQ(reports(), (Reports{asserted(module_path, "kiv_i2c_msg", no_device),
                                  asserted(module_path, "kiv_i2c_msg", "(msgs) != ((void *)0)")}));
}

TEST_F(I2cCombined, EndsWhenASignalInterruptsIt) {
    kiv_sim_i2c_hold(1);
    int32_t status = 0;
    std::thread user([&] { status = kiv_i2c_msg(&clock_, pair_, 2); });
    Interrupter interrupter(user.native_handle());
    // What ends it is the signal: the bus is let go only when it has returned.
    user.join();
    kiv_sim_i2c_hold(0);
    EXPECT_EQ(status, EINTR);
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_IOCTL), 3U) << "two openings and one transfer";
    EXPECT_EQ(reports(), traced("kiv_i2c_msg", request_text, EINTR));
}

// Operations of the record's own --------------------------------------------------------------------------

struct {
    kiv_i2c_device *device;
    const void *data;
    int64_t count;
} served;
int32_t answer;

template <typename Data, typename Count>
int32_t serve(kiv_i2c_device *device, Data *data, Count count) {
    served = {device, data, count};
    return answer;
}
void serve_close(kiv_i2c_device *device) {
    served = {device, nullptr, 0};
}

class I2cServed : public I2cCombined {
  protected:
    void expect_served(const void *data, int64_t count) {
        EXPECT_EQ(served.device, &clock_);
        EXPECT_EQ(served.data, data);
        EXPECT_EQ(served.count, count);
        served = {};
    }
};

TEST_F(I2cServed, GoesToTheRecordsOperations) {
    clock_.rx = serve;
    clock_.tx = serve;
    clock_.msg = serve;
    const unsigned before = all_calls();
    const struct { int32_t answered, moved; } rows[] = {{5, 5}, {0, 0}, {-1, 0}, {-5, -5}};
    for (const auto &row : rows) {
        answer = row.answered;
        EXPECT_EQ(kiv_i2c_tx(&clock_, contents_.data(), 5), row.moved);
        expect_served(contents_.data(), 5);
        EXPECT_EQ(kiv_i2c_rx(&clock_, contents_.data(), 6), row.moved);
        expect_served(contents_.data(), 6);
        for (const int32_t count : {-7, 2, 20}) {
            EXPECT_EQ(kiv_i2c_msg(&clock_, pair_, count), row.answered);
            expect_served(pair_, count);
        }
    }
    EXPECT_EQ(kiv_i2c_msg(&clock_, pair_, 21), EINVAL);
    clock_.rx = nullptr;
    clock_.msg = nullptr;
    EXPECT_EQ(kiv_i2c_rx(&clock_, contents_.data(), 6), 0);
    EXPECT_EQ(kiv_i2c_msg(&clock_, pair_, 2), ENODEV);
    EXPECT_EQ(served.device, nullptr);
    EXPECT_EQ(all_calls(), before) << "the descriptor is not used";
}

TEST_F(I2cServed, NeedsTxToBeServedAndCloseByItself) {
    clock_.rx = serve;
    clock_.msg = serve;
    EXPECT_EQ(kiv_i2c_tx(&clock_, &register_, 1), 1);
    EXPECT_EQ(kiv_i2c_rx(&clock_, contents_.data(), 1), 1);
    EXPECT_EQ(kiv_i2c_msg(&clock_, pair_, 2), 0);
    EXPECT_EQ(served.device, nullptr);
    clock_.close = serve_close;
    kiv_i2c_close(&clock_);
    expect_served(nullptr, 0);
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_CLOSE), 0U);
    clock_.close = nullptr;
}

} // namespace
} // namespace kiv::test
