// The stand-in kiv-core: what kiv-drivers relies on, and nothing of kiv-drivers itself.

#include <atomic>
#include <cerrno>
#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <unistd.h>

#include "fixtures/board.h"
#include "fixtures/resources.h"
#include "kiv/core.h"

namespace kiv::test {
namespace {

class CoreTest : public BoardTest {};

// Mutexes and threads ---------------------------------------------------------------------------------------

TEST_F(CoreTest, MutexWorksAtEveryWordAndKeepsToIts28Bytes) {
    for (const std::size_t offset : {1U, 2U}) {
        alignas(8) uint32_t storage[12];
        std::memset(storage, 0xA5, sizeof storage);
        auto *mutex = reinterpret_cast<sup_mutex_t *>(storage + offset);
        ASSERT_EQ(sup_mutex_init(mutex, 0), 0);
        unsigned shared = 0;
        const auto count = [&] {
            for (unsigned i = 0; i < scaled(200000); ++i) {
                sup_mutex_lock(mutex);
                ++shared;
                sup_mutex_unlock(mutex);
            }
        };
        std::thread other(count);
        count();
        other.join();
        EXPECT_EQ(shared, 2 * scaled(200000));
        EXPECT_EQ(sup_mutex_destroy(mutex), 0);
        EXPECT_EQ(sup_mutex_lock(mutex), EINVAL);
        EXPECT_TRUE(storage[offset - 1] == 0xA5A5A5A5U && storage[offset + 7] == 0xA5A5A5A5U);
    }
}

struct CoreThread {
    std::atomic<bool> go = false;
    std::string name{}; // as the thread has seen it; empty until it has run
    int deletion_of_itself = 0;
    sup_thread_t handle = nullptr;
    sup_thread_control_t control{};

    CoreThread() {
        EXPECT_EQ(sup_thread_create(&handle, &control, 7, enter, this, 0, "BNEP sender, and more"), 0);
    }

    static void *enter(void *argument) {
        auto *own = static_cast<CoreThread *>(argument);
        own->go.wait(false);
        char name[16];
        ::pthread_getname_np(::pthread_self(), name, sizeof name);
        own->name = name;
        own->deletion_of_itself = sup_thread_delete(own->handle);
        return nullptr;
    }
    void let_go() {
        go = true;
        go.notify_one();
    }
};

TEST_F(CoreTest, ThreadWaitsToBeResumedAndIsWaitedForAtItsDeletion) {
    CoreThread suspended;
    CoreThread running;
    suspended.let_go();
    EXPECT_EQ(sup_thread_resume(running.handle), 0);
    EXPECT_EQ(sup_thread_resume(running.handle), EINVAL);
    running.let_go();
    EXPECT_EQ(sup_thread_delete(running.handle), 0);
    EXPECT_EQ(running.name, "BNEP sender, an"); // written by the thread: it has ended
    EXPECT_EQ(running.deletion_of_itself, EINVAL);
    EXPECT_EQ(sup_thread_delete(suspended.handle), 0);
    EXPECT_EQ(suspended.name, ""); // and this one never ran
    EXPECT_EQ(sup_thread_resume(nullptr), EINVAL);
    EXPECT_EQ(sup_thread_delete(nullptr), EINVAL);
}

// Logging ---------------------------------------------------------------------------------------------------

TEST_F(CoreTest, MessagesAreWrittenRaw) {
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(sup_log_msg_nocolor_raw("POS", 1, "%s:%d in %s\n", "a/path", 12, "f"), 15);
    EXPECT_EQ(sup_system_diag("no line end %%"), 13);
    kiv_assert("(p) != 0", "m", 3, "g");
    kiv_warn("ret == 0", "m", 4, "h");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "a/path:12 in f\nno line end %assertion failed: (p) != 0 (m:3 in g)\n"
              "warning: ret == 0 (m:4 in h)\n");
}

TEST_F(CoreTest, MessagesOfManyThreadsStayWhole) {
    constexpr std::size_t lengths[] = {1, 511, 512, 5000, 70000}; // around the size of the local buffer
    const unsigned rounds = scaled(100);
    const auto write = [&](char mark) {
        for (unsigned i = 0; i < rounds; ++i)
            for (const std::size_t length : lengths)
                sup_log_msg_nocolor_raw("POS", 1, "%s\n", std::string(length, mark).c_str());
    };
    ::testing::internal::CaptureStderr();
    {
        std::jthread first(write, 'a');
        std::jthread second(write, 'b');
    }
    std::map<std::string, unsigned> lines;
    std::istringstream text(::testing::internal::GetCapturedStderr());
    for (std::string line; std::getline(text, line);)
        ++lines[line];
    EXPECT_EQ(lines.size(), 2 * std::size(lengths));
    for (const auto &[line, count] : lines)
        EXPECT_EQ(count, rounds) << line.size() << " times " << line[0];
}

TEST_F(CoreTest, ReportsLeaveErrnoAlone) {
    const int saved = ::dup(STDERR_FILENO);
    const std::string text(5000, 'x');
    ::close(STDERR_FILENO); // the write fails
    errno = ENOTTY;
    sup_log_msg_nocolor_raw("POS", 1, "%s", text.c_str());
    const int after_message = errno;
    kiv_warn("e", "f", 1, "g");
    const int after_warning = errno;
    ::dup2(saved, STDERR_FILENO);
    ::close(saved);
    EXPECT_EQ(after_message, ENOTTY);
    EXPECT_EQ(after_warning, ENOTTY);
}

} // namespace
} // namespace kiv::test
