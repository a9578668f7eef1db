// I2C through the public header, on the simulated bus.

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "fixtures/fault_sweep.h"
#include "kiv/i2c.h"
#include "kiv/platform.h"

namespace kiv::test {
namespace {

constexpr char module_path[] = "linux/i2c";

using Bytes = std::vector<std::uint8_t>;

Reports traced_and_warned(const std::string &function, const std::string &text, int error) {
    return {trace(module_path, function, text, error), warned(module_path, function)};
}

const std::string text_of_open = "fd = open(name,02)";
const std::string text_of_address = "ret = ioctl(fd,0x0706,address)";

std::string failed_request(int error) {
    return trace(module_path, "kiv_i2c_msg", "ret = ioctl(device->fd, 0x0707, &msg_rdwr)", error);
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

    void SetUp() override {
        LoggedBoardTest::SetUp();
        std::memset(static_cast<void *>(&device_), 0xa5, sizeof device_);
    }
};

TEST_F(I2cOpening, ClearsTheRecordAndBindsTheAddressEvenOfADriver) {
    ASSERT_EQ(kiv_sim_i2c_claim(0x68, 1), 0);
    ASSERT_EQ(kiv_i2c_open(&device_, nullptr, 0x68), 0);
    EXPECT_TRUE(device_.rx == nullptr && device_.tx == nullptr);
    EXPECT_TRUE(device_.msg == nullptr && device_.close == nullptr);
    kiv_i2c_close(&device_);
    EXPECT_EQ(device_.address, 0x68U) << "closing leaves the record as it is";
}

TEST_F(I2cOpening, RefusesBusesAndAddressesThatAreNone) {
    const struct {
        const char *name;
        unsigned address;
        int status;
        Reports expected;
    } rows[] = {
        {"/dev/usb-i2c",
         0x50,
         ENODEV,
         {logged(1, "usb-i2c support is not enabled\n"), warned(module_path, "kiv_i2c_open")}},
        {"/dev/usb-i2c1", 0x50, ENOENT, traced_and_warned("kiv_i2c_open", text_of_open, ENOENT)},
        {nullptr, 0x80, EINVAL, traced_and_warned("kiv_i2c_open", text_of_address, EINVAL)},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(kiv_i2c_open(&device_, row.name, row.address), row.status);
        const kiv_i2c_device zero = {};
        EXPECT_EQ(std::memcmp(&device_, &zero, sizeof zero), 0);
        EXPECT_EQ(reports(), row.expected);
    }
}

TEST_F(I2cOpening, AFailureIsToldByItsOwnErrno) {
    kiv_sim_fail(KIV_SIM_IOCTL, 1, 1, EBUSY);
    kiv_sim_fail(KIV_SIM_CLOSE, 1, 1, EIO); // on the way out
    EXPECT_EQ(kiv_i2c_open(&device_, nullptr, 0x50), EBUSY);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(reports(), traced_and_warned("kiv_i2c_open", text_of_address, EBUSY));
}

TEST_F(I2cOpening, AFailureToCloseWithoutAnErrorIsNone) {
    ASSERT_EQ(kiv_i2c_open(&device_, nullptr, 0x50), 0);
    kiv_sim_answer(KIV_SIM_CLOSE, 1, 1, -1);
    errno = 0;
    kiv_i2c_close(&device_);
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_CLOSE), 1U);
}

// Transfers -----------------------------------------------------------------------------------------------

class I2c : public LoggedBoardTest {
  protected:
    kiv_i2c_device eeprom_, clock_;
    std::uint8_t register_ = 0;
    std::array<std::uint8_t, 8> contents_ = {};
    kiv_i2c_message pair_[2] = {{&register_, 1, 0}, {contents_.data(), 7, KIV_I2C_READ}};

    void SetUp() override {
        LoggedBoardTest::SetUp();
        ASSERT_EQ(kiv_i2c_open(&eeprom_, nullptr, KIV_SIM_I2C_EEPROM), 0);
        ASSERT_EQ(kiv_i2c_open(&clock_, nullptr, KIV_SIM_I2C_CLOCK), 0);
    }
    void TearDown() override {
        kiv_i2c_close(&eeprom_);
        kiv_i2c_close(&clock_);
        LoggedBoardTest::TearDown();
    }
};

const struct Way {
    int32_t (*move)(kiv_i2c_device *device, void *data, uint32_t count);
    const char *function, *text;
    kiv_sim_call call;
} ways[] = {
    {[](kiv_i2c_device *device, void *data, uint32_t count) { return kiv_i2c_tx(device, data, count); },
     "kiv_i2c_tx", "ret = write(device->fd, tx_data, count)", KIV_SIM_WRITE},
    {kiv_i2c_rx, "kiv_i2c_rx", "ret = read(device->fd, rx_data, count)", KIV_SIM_READ},
};

// An interruption is no licence for what follows it.
TEST_F(I2c, AnAbsentSlaveIsNotReported) {
    for (const Way &way : ways) {
        kiv_sim_fail(way.call, 1, 3, EINTR);
        kiv_sim_fail(way.call, 4, 1, EREMOTEIO);
        EXPECT_EQ(way.move(&clock_, contents_.data(), 4), 0);
        EXPECT_EQ(kiv_sim_calls(way.call), 4U);
        EXPECT_EQ(reports(), times(3, trace(module_path, way.function, way.text, EINTR)));
    }
}

// Combined transfers --------------------------------------------------------------------------------------

TEST_F(I2c, ReadsRegistersInOneSystemCall) {
    ASSERT_EQ(kiv_sim_clock_set(1709209845, 1), 0); // 2024-02-29 12:30:45, a Thursday
    const unsigned calls = kiv_sim_calls(KIV_SIM_IOCTL), allocations = kiv_sim_calls(KIV_SIM_MALLOC);
    ASSERT_EQ(kiv_i2c_msg(&clock_, pair_, 2), 0);
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_MALLOC), allocations);
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_IOCTL), calls + 1);
    EXPECT_EQ(contents_, (std::array<std::uint8_t, 8>{0x45, 0x30, 0x12, 5, 0x29, 0x02, 0x24, 0}));
}

TEST_F(I2c, CutsWhatTheKernelsFieldsDoNotHoldAndLeavesItTheFlags) {
    clock_.address = 0x10068;
    kiv_i2c_message messages[2] = {{&register_, 0x10001, 0x70001}, {&register_, 0x20001, 0xfff0}};
    EXPECT_EQ(kiv_i2c_msg(&clock_, messages, 2), EOPNOTSUPP);
    const kiv_sim_i2c_state state = bus();
    for (const auto &seen : {state.last[0], state.last[1]}) {
        EXPECT_EQ(seen.address, 0x68);
        EXPECT_EQ(seen.length, 1);
    }
    EXPECT_EQ(state.last[0].flags, 1);
    EXPECT_EQ(state.last[1].flags, 0xfff0);
    EXPECT_EQ(reports(), Reports{failed_request(EOPNOTSUPP)});
}

TEST_F(I2c, TakesUpToTwentyMessages) {
    std::array<std::uint8_t, 21> bytes;
    std::array<kiv_i2c_message, 21> messages;
    for (std::size_t i = 0; i < messages.size(); ++i)
        messages[i] = {&bytes[i], 1, KIV_I2C_READ};
    const struct {
        int32_t count;
        int status;
        unsigned calls, kernel_count;
    } rows[] = {{1, 0, 1, 1}, {20, 0, 1, 20}, {21, EINVAL, 0, 20}, {0, EINVAL, 1, 0}, {-1, EINVAL, 1, ~0U}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.count);
        bytes = {};
        const unsigned calls = kiv_sim_calls(KIV_SIM_IOCTL);
        EXPECT_EQ(kiv_i2c_msg(&eeprom_, messages.data(), row.count), row.status);
        const auto filled = std::count(bytes.begin(), bytes.end(), 0xff); // what an empty page reads as
        EXPECT_EQ(filled, row.status == 0 ? row.count : 0);
        EXPECT_EQ(kiv_sim_calls(KIV_SIM_IOCTL) - calls, row.calls);
        EXPECT_EQ(bus().last_count, row.kernel_count);
        EXPECT_EQ(reports(), times(row.status == 0 ? 0 : row.calls, failed_request(EINVAL)));
    }
}

// Operations of the record's own --------------------------------------------------------------------------

// The last call: the device, the data, the count.
using Served = std::tuple<kiv_i2c_device *, const void *, int64_t>;
Served served;
int32_t answer;

template <typename Data, typename Count>
int32_t serve(kiv_i2c_device *device, Data *data, Count count) {
    served = {device, data, count};
    return answer;
}

TEST_F(I2c, GoesToTheRecordsOperations) {
    clock_.rx = serve;
    clock_.tx = serve;
    clock_.msg = serve;
    for (const int32_t answered : {5, -1, -5}) {
        answer = answered;
        EXPECT_EQ(kiv_i2c_tx(&clock_, contents_.data(), 5), answered == -1 ? 0 : answered);
        EXPECT_EQ(served, Served(&clock_, contents_.data(), 5));
        EXPECT_EQ(kiv_i2c_rx(&clock_, contents_.data(), 6), answered == -1 ? 0 : answered);
        EXPECT_EQ(served, Served(&clock_, contents_.data(), 6));
        for (const int32_t count : {-7, 2, 20}) {
            EXPECT_EQ(kiv_i2c_msg(&clock_, pair_, count), answered);
            EXPECT_EQ(served, Served(&clock_, pair_, count));
        }
    }
    EXPECT_EQ(kiv_i2c_msg(&clock_, pair_, 21), EINVAL);
    clock_.rx = nullptr;
    clock_.msg = nullptr;
    EXPECT_EQ(kiv_i2c_rx(&clock_, contents_.data(), 6), 0);
    EXPECT_EQ(kiv_i2c_msg(&clock_, pair_, 2), ENODEV);
    EXPECT_EQ(bus().transfers, 0U) << "the descriptor is not used";
}

TEST_F(I2c, NeedsTxToBeServedAndCloseByItself) {
    served = {};
    clock_.rx = serve;
    clock_.msg = serve;
    EXPECT_EQ(kiv_i2c_rx(&clock_, contents_.data(), 1), 1);
    EXPECT_EQ(kiv_i2c_msg(&clock_, pair_, 2), 0);
    EXPECT_EQ(served, Served());
    clock_.close = [](kiv_i2c_device *device) { served = {device, nullptr, 0}; };
    kiv_i2c_close(&clock_);
    EXPECT_EQ(served, Served(&clock_, nullptr, 0));
    EXPECT_EQ(kiv_sim_calls(KIV_SIM_CLOSE), 0U);
    clock_.close = nullptr;
}

// Whatever goes wrong
// ----------------------------------------------------------------------------------------

kiv_i2c_device swept;
std::uint8_t bytes[4];
kiv_i2c_message one_message = {bytes, 4, KIV_I2C_READ};

void open_device() {
    EXPECT_EQ(kiv_i2c_open(&swept, nullptr, KIV_SIM_I2C_CLOCK), 0);
}
void close_device() {
    if (swept.fd != 0)
        kiv_i2c_close(&swept);
    swept = {};
}

Outcome failed_opening(const Point &at) {
    if (at.is(KIV_SIM_CLOSE))
        return {0};
    const std::string &text = at.is(KIV_SIM_IOCTL) ? text_of_address : text_of_open;
    return {at.error, traced_and_warned("kiv_i2c_open", text, at.error)};
}
Outcome failed_closing(const Point &at) {
    return {0, traced_and_warned("kiv_i2c_close", "ret = close(device->fd)", at.error)};
}
// A transfer that was interrupted is made again, and each attempt traced; a short count is passed on.
constexpr int none = -1;

template <int way>
Outcome failed_transfer(const Point &at) {
    if (!at.is(Fault::fails))
        return {at.is(Fault::moves_less) ? 1 : none};
    const std::string traced = trace(module_path, ways[way].function, ways[way].text, at.error);
    return at.error == EINTR ? Outcome{0, each_time(at, traced), true} : Outcome{none, {traced}};
}
template <int way>
int transfer() {
    const int moved = ways[way].move(&swept, bytes, 4);
    return moved == 4 ? 0 : moved == 0 ? none : moved;
}

const Scene fresh = {nothing, close_device};
const Scene closing = {open_device, [] { swept = {}; }};
const Scene opened = {open_device, close_device};

const SweptOperation rows[] = {
    {"kiv_i2c_open", "", fresh, failed_opening,
     [] { return kiv_i2c_open(&swept, nullptr, KIV_SIM_I2C_CLOCK); }},
    {"kiv_i2c_open", "without_input", without_input(fresh), failed_opening,
     [] { return kiv_i2c_open(&swept, nullptr, KIV_SIM_I2C_CLOCK); }},
    {"kiv_i2c_close", "", closing, failed_closing, [] { return kiv_i2c_close(&swept), 0; }},
    {"kiv_i2c_tx", "", opened, failed_transfer<0>, transfer<0>},
    {"kiv_i2c_rx", "", opened, failed_transfer<1>, transfer<1>},
    {"kiv_i2c_msg", "", opened,
     [](const Point &at) {
         return Outcome{at.error, {failed_request(at.error)}};
     },
     [] { return kiv_i2c_msg(&swept, &one_message, 1); }},
};

INSTANTIATE_TEST_SUITE_P(I2c, FaultSweep, ::testing::ValuesIn(rows), row_name);

} // namespace
} // namespace kiv::test
