// The stand-in kiv-core: what kiv-drivers relies on, and nothing of kiv-drivers itself.

#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "fixtures/board.h"
#include "fixtures/resources.h"
#include "fixtures/signal.h"
#include "kiv/core.h"

namespace kiv::test {
namespace {

class CoreTest : public BoardTest {};

// Mutexes -------------------------------------------------------------------------------------------------

TEST_F(CoreTest, MutexWorksAtEveryWordAndKeepsToIts28Bytes) {
    for (const std::size_t offset : {1U, 2U}) {
        alignas(8) uint32_t storage[12];
        std::memset(storage, 0xA5, sizeof storage);
        auto *mutex = reinterpret_cast<sup_mutex_t *>(storage + offset);
        ASSERT_EQ(sup_mutex_init(mutex, 0), 0);
        int shared = 0;
        const unsigned rounds = scaled(200000);
        const auto count = [&] {
            for (unsigned i = 0; i < rounds; ++i) {
                sup_mutex_lock(mutex);
                ++shared;
                sup_mutex_unlock(mutex);
            }
        };
        std::thread other(count);
        count();
        other.join();
        EXPECT_EQ(shared, static_cast<int>(2 * rounds));
        EXPECT_EQ(sup_mutex_destroy(mutex), 0);
        for (std::size_t i = 0; i < std::size(storage); ++i)
            if (i < offset || i >= offset + 7) {
                EXPECT_EQ(storage[i], 0xA5A5A5A5U) << "word " << i << " beside the mutex";
            }
    }
}

TEST_F(CoreTest, MutexThatIsNotInitialisedIsRefused) {
    sup_mutex_t mutex{};
    EXPECT_EQ(sup_mutex_lock(&mutex), EINVAL);
    EXPECT_EQ(sup_mutex_unlock(&mutex), EINVAL);
    EXPECT_EQ(sup_mutex_destroy(&mutex), EINVAL);
    if (kiv_sim_fail(KIV_SIM_MALLOC, 1, 1, ENOMEM) == 0) {
        EXPECT_EQ(sup_mutex_init(&mutex, 0), ENOMEM);
        EXPECT_EQ(sup_mutex_lock(&mutex), EINVAL);
    }
}

// Threads -------------------------------------------------------------------------------------------------

struct Entered {
    std::string name; // of the thread; empty until it has run
    bool go = false;
};

void *enter(void *argument) {
    auto *seen = static_cast<Entered *>(argument);
    while (!__atomic_load_n(&seen->go, __ATOMIC_ACQUIRE))
        ::sched_yield();
    char name[16];
    ::pthread_getname_np(::pthread_self(), name, sizeof name);
    seen->name = name;
    return nullptr;
}

struct CoreThread {
    sup_thread_control_t control{};
    sup_thread_t handle = nullptr;

    CoreThread(void *(*entry)(void *), void *argument, const char *name = "BNEP sender, and more") {
        EXPECT_EQ(sup_thread_create(&handle, &control, 7, entry, argument, 0, name), 0);
        EXPECT_NE(handle, nullptr);
    }
};

TEST_F(CoreTest, ThreadWaitsToBeResumedAndIsWaitedForAtItsDeletion) {
    Entered held{.name = "", .go = true};
    Entered free{.name = "", .go = false};
    CoreThread suspended(enter, &held);
    CoreThread running(enter, &free);
    EXPECT_EQ(sup_thread_resume(running.handle), 0);
    EXPECT_EQ(sup_thread_resume(running.handle), EINVAL);
    __atomic_store_n(&free.go, true, __ATOMIC_RELEASE);
    EXPECT_EQ(sup_thread_delete(running.handle), 0);
    EXPECT_EQ(free.name, "BNEP sender, an"); // written by the thread: it has ended
    EXPECT_EQ(sup_thread_delete(suspended.handle), 0);
    EXPECT_EQ(held.name, ""); // and this one never ran
    EXPECT_EQ(sup_thread_resume(nullptr), EINVAL);
    EXPECT_EQ(sup_thread_delete(nullptr), EINVAL);
}

TEST_F(CoreTest, ThreadDoesNotWaitForItself) {
    struct Self {
        sup_thread_t handle;
        int status;
    } self{};
    CoreThread thread(
        [](void *argument) -> void * {
            auto *own = static_cast<Self *>(argument);
            own->status = sup_thread_delete(own->handle);
            return nullptr;
        },
        &self);
    self.handle = thread.handle;
    EXPECT_EQ(sup_thread_resume(thread.handle), 0);
    EXPECT_EQ(sup_thread_delete(thread.handle), 0);
    EXPECT_EQ(self.status, EINVAL);
}

double seconds_now() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

TEST_F(CoreTest, DelayLastsItsTimeUnderSignals) {
    for (const unsigned milliseconds : {0U, 30U, 1010U}) {
        const double begin = seconds_now();
        const Interrupter interrupter(::pthread_self());
        EXPECT_EQ(sup_thread_delay(milliseconds, 0), 0);
        EXPECT_GE(seconds_now() - begin, milliseconds * 1e-3);
    }
}

// Logging -------------------------------------------------------------------------------------------------

// Collects what is written to stderr while it lives.
class StderrPipe {
    int saved_ = ::dup(STDERR_FILENO);
    int read_end_ = -1;
    std::string collected_;
    std::thread reader_;

  public:
    StderrPipe() {
        int ends[2];
        EXPECT_EQ(::pipe(ends), 0);
        ::dup2(ends[1], STDERR_FILENO);
        ::close(ends[1]);
        read_end_ = ends[0];
        reader_ = std::thread([this] {
            std::vector<char> buffer(65536);
            ssize_t count;
            while ((count = ::read(read_end_, buffer.data(), buffer.size())) > 0)
                collected_.append(buffer.data(), static_cast<std::size_t>(count));
        });
    }
    StderrPipe(const StderrPipe &) = delete;
    StderrPipe &operator=(const StderrPipe &) = delete;
    ~StderrPipe() { finish(); }

    std::string finish() {
        if (reader_.joinable()) {
            ::dup2(saved_, STDERR_FILENO);
            ::close(saved_);
            reader_.join();
            ::close(read_end_);
        }
        return collected_;
    }
};

TEST_F(CoreTest, MessagesAreWrittenRaw) {
    StderrPipe pipe;
    EXPECT_EQ(sup_log_msg_nocolor_raw("POS", 1, "%s:%d in %s\n", "a/path", 12, "f"), 15);
    EXPECT_EQ(sup_system_diag("no line end %%"), 13);
    kiv_assert("(p) != 0", "m", 3, "g");
    kiv_warn("ret == 0", "m", 4, "h");
    EXPECT_EQ(pipe.finish(), "a/path:12 in f\nno line end %assertion failed: (p) != 0 (m:3 in g)\n"
                             "warning: ret == 0 (m:4 in h)\n");
}

// Around the size of the local buffer, of a pipe's whole writes, and of a pipe.
constexpr std::size_t lengths[] = {1, 510, 511, 512, 513, 4096, 5000, 70000};

TEST_F(CoreTest, MessagesOfManyThreadsStayWholeUnderSignals) {
    StderrPipe pipe;
    const unsigned rounds = scaled(100);
    const Interrupter outer(::pthread_self()); // those of the threads then give way to its handler
    std::vector<std::thread> writers;
    for (const char mark : {'a', 'b', 'c', 'd'})
        writers.emplace_back([=] {
            const Interrupter interrupter(::pthread_self()); // makes long writes come back short
            for (unsigned i = 0; i < rounds; ++i)
                for (const std::size_t length : lengths)
                    sup_log_msg_nocolor_raw("POS", 1, "%s\n", std::string(length, mark).c_str());
        });
    for (auto &writer : writers)
        writer.join();
    std::map<std::string, unsigned> lines;
    const std::string text = pipe.finish();
    for (std::size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1)
        ++lines[text.substr(at, end - at)];
    EXPECT_EQ(lines.size(), 4 * std::size(lengths));
    for (const auto &[line, count] : lines)
        EXPECT_EQ(count, rounds) << line.size() << " times " << line[0];
}

TEST_F(CoreTest, MessageThatMemoryIsTooShortForKeepsItsBeginning) {
    const std::string text(5000, 'x');
    StderrPipe pipe;
    kiv_sim_fault fault = {};
    fault.call = KIV_SIM_MALLOC;
    fault.nth = 1;
    fault.times = 1;
    fault.error = ENOMEM;
    fault.this_thread = 1; // the pipe's reader allocates too
    if (kiv_sim_arm(&fault) != 0)
        GTEST_SKIP() << "allocation is out of reach";
    EXPECT_EQ(sup_system_diag("%s", text.c_str()), 5000);
    EXPECT_EQ(pipe.finish(), std::string(511, 'x'));
}

TEST_F(CoreTest, ReportsLeaveErrnoAlone) {
    const int saved = ::dup(STDERR_FILENO);
    const std::string text(5000, 'x');
    ::close(STDERR_FILENO); // the write fails
    int after[4] = {};
    errno = ENOTTY;
    sup_log_msg_nocolor_raw("POS", 1, "%s", text.c_str());
    after[0] = errno;
    sup_system_diag("%s", text.c_str());
    after[1] = errno;
    kiv_assert("e", "f", 1, "g");
    after[2] = errno;
    kiv_warn("e", "f", 1, "g");
    after[3] = errno;
    ::dup2(saved, STDERR_FILENO);
    ::close(saved);
    for (const int each : after)
        EXPECT_EQ(each, ENOTTY);
}

TEST_F(CoreTest, CategoriesAreAddedOnce) {
    static int level = 3;
    static kiv_log_category first = {&level, "first", nullptr};
    static kiv_log_category second = {&level, "second", nullptr};
    kiv_log_category without_level = {nullptr, "x", nullptr};
    kiv_log_category without_name = {&level, nullptr, nullptr};
    EXPECT_EQ(kiv_log_dyn_add(nullptr), EINVAL);
    EXPECT_EQ(kiv_log_dyn_add(&without_level), EINVAL);
    EXPECT_EQ(kiv_log_dyn_add(&without_name), EINVAL);
    EXPECT_EQ(kiv_log_dyn_add(&first), 0);
    EXPECT_EQ(kiv_log_dyn_add(&second), 0);
    const void *const word = first.core;
    EXPECT_EQ(kiv_log_dyn_add(&first), 0); // a second entry would make a ring of the list
    EXPECT_EQ(first.core, word);
    EXPECT_EQ(level, 3);
}

} // namespace
} // namespace kiv::test
