// The stand-in kiv-core: what kiv-drivers relies on, and nothing of kiv-drivers itself.

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <map>
#include <new>
#include <poll.h>
#include <semaphore>
#include <sstream>
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

// What a thread has seen; nothing until it has run.
struct Seen {
    std::binary_semaphore go{0};
    std::string name{};
    int deletion_of_itself = 0;
    sup_thread_t thread = nullptr;
};

void *look_around(void *argument) {
    auto &seen = *static_cast<Seen *>(argument);
    seen.go.acquire();
    char name[16];
    ::pthread_getname_np(::pthread_self(), name, sizeof name);
    seen.name = name;
    seen.deletion_of_itself = sup_thread_delete(seen.thread);
    return nullptr;
}

TEST_F(CoreTest, ThreadWaitsToBeResumedAndIsWaitedForAtItsDeletion) {
    Seen seen[2];
    sup_thread_control_t controls[2]{};
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(sup_thread_create(&seen[i].thread, &controls[i], 7, look_around, &seen[i], 0,
                                    "BNEP sender, and more"),
                  0);
    EXPECT_EQ(sup_thread_resume(seen[0].thread), 0);
    EXPECT_EQ(sup_thread_resume(seen[0].thread), EINVAL);
    for (Seen &each : seen)
        each.go.release();
    for (Seen &each : seen)
        EXPECT_EQ(sup_thread_delete(each.thread), 0);
    EXPECT_EQ(seen[0].name, "BNEP sender, an");
    EXPECT_EQ(seen[0].deletion_of_itself, EINVAL);
    EXPECT_EQ(seen[1].name, "") << "it was never resumed";
    EXPECT_EQ(sup_thread_resume(nullptr), EINVAL);
    EXPECT_EQ(sup_thread_delete(nullptr), EINVAL);
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

// Every line is written or counted; pieces of lines are all written.
TEST_F(CoreTest, WithALimitALineThatComesAgainIsCounted) {
    constexpr long limit = 2;
    ::setenv("KIV_CORE_LOG_LIMIT", "2", 1);
    const auto second = [] {
        timespec now;
        ::clock_gettime(CLOCK_MONOTONIC, &now);
        return now.tv_sec;
    };
    const std::string warning = "warning: another (m:1 in h)";
    const time_t first = second();
    unsigned written = 0, pieces = 0;
    std::istringstream text(stderr_of([&] {
        for (bool goes_on = true; goes_on;) {
            goes_on = second() == first;
            sup_log_msg_nocolor_raw("POS", 1, "a line\n");
            kiv_warn("another", "m", 1, "h");
            for (; pieces < 20; ++pieces)
                sup_log_msg_nocolor_raw("POS", 1, pieces % 2 == 0 ? "00 " : "\n");
            ++written;
        }
    }));
    ::unsetenv("KIV_CORE_LOG_LIMIT");
    const time_t last = second();
    std::map<std::string, unsigned> lines;
    unsigned total = 0, left_out = 0;
    for (std::string line; std::getline(text, line);) {
        if (std::sscanf(line.c_str(), "kiv-core: %u repeated lines left out", &left_out) == 1)
            total += left_out;
        else if (++lines[line]; line == warning || line == "a line")
            ++total;
    }
    EXPECT_LE(lines["a line"], limit * (last - first + 1));
    EXPECT_LE(lines[warning], limit * (last - first + 1));
    EXPECT_EQ(lines["00 "], pieces / 2);
    EXPECT_GE(total + 2, 2 * written) << "the last ones may be left out and not told yet";
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
    void *const library = ::mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    EXPECT_EQ(kiv_log_dyn_add(new (library) kiv_log_category{&level, "gone", nullptr}), 0);
    ::munmap(library, 4096);
    EXPECT_EQ(kiv_log_dyn_add(&next), 0);
}

} // namespace
} // namespace kiv::test
