// The stand-in kiv-core: what kiv-drivers relies on, and nothing of kiv-drivers itself.

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <map>
#include <new>
#include <poll.h>
#include <string>
#include <sys/mman.h>
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

// Mutexes and threads ---------------------------------------------------------------------------------------

TEST_F(CoreTest, MutexWorksAtEveryWordAndKeepsToIts28Bytes) {
    for (const std::size_t offset : {1U, 2U}) {
        alignas(8) uint32_t storage[12];
        std::memset(storage, 0xA5, sizeof storage);
        auto *mutex = reinterpret_cast<sup_mutex_t *>(storage + offset);
        ASSERT_EQ(sup_mutex_init(mutex, 0), 0);
        int shared = 0;
        const int rounds = scaled(200000);
        const auto count = [&] {
            for (int i = 0; i < rounds; ++i) {
                sup_mutex_lock(mutex);
                ++shared;
                sup_mutex_unlock(mutex);
            }
        };
        std::thread other(count);
        count();
        other.join();
        EXPECT_EQ(shared, 2 * rounds);
        EXPECT_EQ(sup_mutex_destroy(mutex), 0);
        EXPECT_EQ(sup_mutex_lock(mutex), EINVAL);
        for (std::size_t i = 0; i < std::size(storage); ++i)
            if (i < offset || i >= offset + 7) {
                EXPECT_EQ(storage[i], 0xA5A5A5A5U) << "word " << i << " beside the mutex";
            }
    }
}

TEST_F(CoreTest, MutexThatIsNotInitialisedIsRefused) {
    sup_mutex_t mutex{};
    if (kiv_sim_fail(KIV_SIM_MALLOC, 1, 1, ENOMEM) == 0) {
        EXPECT_EQ(sup_mutex_init(&mutex, 0), ENOMEM);
    }
    EXPECT_EQ(sup_mutex_lock(&mutex), EINVAL);
    EXPECT_EQ(sup_mutex_unlock(&mutex), EINVAL);
    EXPECT_EQ(sup_mutex_destroy(&mutex), EINVAL);
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

TEST_F(CoreTest, DelayLastsItsTimeUnderSignals) {
    for (const unsigned milliseconds : {30U, 1990U}) {
        const auto begin = std::chrono::steady_clock::now();
        const Interrupter interrupter(::pthread_self());
        EXPECT_EQ(sup_thread_delay(milliseconds, 0), 0);
        EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(milliseconds));
    }
}

// Logging ---------------------------------------------------------------------------------------------------

// What is written to stderr meanwhile. Through a pipe: that takes long texts in pieces.
std::string stderr_of(const std::function<void()> &act) {
    int ends[2];
    EXPECT_EQ(::pipe(ends), 0);
    const int saved = ::dup(STDERR_FILENO);
    ::dup2(ends[1], STDERR_FILENO);
    ::close(ends[1]);
    std::string collected;
    std::thread reader([&] {
        std::vector<char> buffer(65536);
        ssize_t count;
        while ((count = ::read(ends[0], buffer.data(), buffer.size())) > 0)
            collected.append(buffer.data(), static_cast<std::size_t>(count));
    });
    act();
    ::dup2(saved, STDERR_FILENO);
    ::close(saved);
    reader.join();
    ::close(ends[0]);
    return collected;
}

TEST_F(CoreTest, MessagesAreWrittenRaw) {
    const std::string text = stderr_of([] {
        EXPECT_EQ(sup_log_msg_nocolor_raw("POS", 1, "%s:%d in %s\n", "a/path", 12, "f"), 15);
        EXPECT_EQ(sup_system_diag("no line end %%"), 13);
        kiv_assert("(p) != 0", "m", 3, "g");
        kiv_warn("ret == 0", "m", 4, "h");
    });
    EXPECT_EQ(text, "a/path:12 in f\nno line end %assertion failed: (p) != 0 (m:3 in g)\n"
                    "warning: ret == 0 (m:4 in h)\n");
}

// Around the size of the local buffer, and of a pipe's whole writes.
constexpr std::size_t lengths[] = {1, 510, 511, 512, 4095};

TEST_F(CoreTest, MessagesOfManyThreadsStayWholeUnderSignals) {
    const unsigned rounds = scaled(100);
    const Interrupter outer(::pthread_self()); // those of the threads then give way to its handler
    const auto write = [&](char mark) {
        const Interrupter interrupter(::pthread_self());
        for (unsigned i = 0; i < rounds; ++i)
            for (const std::size_t length : lengths)
                sup_log_msg_nocolor_raw("POS", 1, "%s\n", std::string(length, mark).c_str());
    };
    const std::string text = stderr_of([&] {
        std::vector<std::thread> writers;
        for (const char mark : {'a', 'b', 'c', 'd'})
            writers.emplace_back(write, mark);
        for (auto &writer : writers)
            writer.join();
    });
    std::map<std::string, unsigned> lines;
    for (std::size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1)
        ++lines[text.substr(at, end - at)];
    EXPECT_EQ(lines.size(), 4 * std::size(lengths));
    for (const auto &[line, count] : lines)
        EXPECT_EQ(count, rounds) << line.size() << " times " << line[0];
}

// Longer than a pipe: the write comes back short, and is gone on with.
TEST_F(CoreTest, LongMessageOfOneThreadIsWholeUnderSignals) {
    const std::string text(200000, 'x');
    const std::string written = stderr_of([&] {
        const Interrupter interrupter(::pthread_self());
        EXPECT_EQ(sup_system_diag("%s", text.c_str()), 200000);
    });
    EXPECT_EQ(written, text);
}

TEST_F(CoreTest, WriterThatNobodyReadsHoldsUpNobodyElse) {
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    const int saved = ::dup(STDERR_FILENO);
    ::dup2(ends[1], STDERR_FILENO);
    std::thread stuck([] { sup_system_diag("%s", std::string(200000, 'x').c_str()); });
    pollfd pipe = {ends[0], POLLIN, 0};
    ::poll(&pipe, 1, -1); // it is in the write that the pipe has no room for
    ::close(ends[1]);
    const int elsewhere = ::open("/dev/null", O_WRONLY);
    ::dup2(elsewhere, STDERR_FILENO);
    EXPECT_EQ(sup_system_diag("%s", "goes on"), 7);
    ::dup2(saved, STDERR_FILENO);
    char buffer[4096];
    while (::read(ends[0], buffer, sizeof buffer) > 0) {
    }
    stuck.join();
    for (const int fd : {ends[0], saved, elsewhere})
        ::close(fd);
}

TEST_F(CoreTest, MessageThatMemoryIsTooShortForKeepsItsBeginning) {
    if (kiv_sim_reaches(KIV_SIM_MALLOC) == 0)
        GTEST_SKIP() << "allocation is out of reach";
    const std::string text(5000, 'x');
    kiv_sim_fault fault = {};
    fault.call = KIV_SIM_MALLOC;
    fault.nth = fault.times = 1;
    fault.error = ENOMEM;
    fault.this_thread = 1; // the pipe's reader allocates too
    const std::string written = stderr_of([&] {
        kiv_sim_arm(&fault);
        EXPECT_EQ(sup_system_diag("%s", text.c_str()), 5000);
    });
    EXPECT_EQ(written, std::string(511, 'x'));
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

TEST_F(CoreTest, CategoriesOfALibraryThatIsUnloadedAreForgotten) {
    static int level = 3;
    kiv_log_category next = {&level, "next", nullptr};
    kiv_log_category without_level = {nullptr, "x", nullptr};
    kiv_log_category without_name = {&level, nullptr, nullptr};
    for (kiv_log_category *refused :
         {static_cast<kiv_log_category *>(nullptr), &without_level, &without_name})
        EXPECT_EQ(kiv_log_dyn_add(refused), EINVAL);
    void *const library = ::mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    EXPECT_EQ(kiv_log_dyn_add(new (library) kiv_log_category{&level, "gone", nullptr}), 0);
    ::munmap(library, 4096);
    EXPECT_EQ(kiv_log_dyn_add(&next), 0);
}

} // namespace
} // namespace kiv::test
