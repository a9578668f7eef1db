// Ports in trouble: for each kind of port and the BNEP sender, a while without descriptors, without memory,
// with a log that cannot be written, under signals, beside mistakes of other threads, with peers that
// misbehave. An application sends numbered records, its peer sends them back. Each pair of a port and a
// trouble is a process of its own.
//
//   soak [--seconds S] [--limits] [--jobs N] [--list] [PORT/TROUBLE...]
//
// Whatever the trouble, no record comes twice or out of order, none is missing where the port keeps its
// connection, and the port works again when the trouble has ended. --limits judges as well what it costs: the
// share of a processor core, and how often the log repeats a line. For that let it take 10 seconds a pair.
// The library reports every failure, so kiv-core is told to write each line once a second.

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <mutex>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>

#include "soak/pairs.h"

// The clock of the day, put back by an hour for whoever in this process looks at it through the C library.
static std::atomic<long> put_back{0};

extern "C" int clock_gettime(clockid_t clock, timespec *now) noexcept {
    const auto status = static_cast<int>(::syscall(SYS_clock_gettime, clock, now));
    if (clock == CLOCK_REALTIME)
        now->tv_sec -= put_back;
    return status;
}
extern "C" int gettimeofday(timeval *now, void *) noexcept {
    timespec precise;
    const int status = clock_gettime(CLOCK_REALTIME, &precise);
    *now = {.tv_sec = precise.tv_sec, .tv_usec = static_cast<suseconds_t>(precise.tv_nsec / 1000)};
    return status;
}
extern "C" time_t time(time_t *now) noexcept {
    timespec precise;
    clock_gettime(CLOCK_REALTIME, &precise);
    if (now != nullptr)
        *now = precise.tv_sec;
    return precise.tv_sec;
}

namespace kiv::test {
namespace {

// The application -----------------------------------------------------------------------------------------

constexpr unsigned pause_after_failure = 200, pause_of_writer = 10; // milliseconds
constexpr unsigned bulk = 16384; // records in one send to a peer that is deaf

// It reads in one thread and writes in another. What fails is tried again a little later; a tty or a
// controller is closed for that and opened again, a sender that has ended is stopped and started.
class Application {
    const Kind kind_;
    const std::string service_, tcp_name_, client_name_;
    std::vector<std::uint8_t> buffer_ = std::vector<std::uint8_t>(bulk * record_size);
    std::atomic<bool> broken_{false}, writing_{false};
    unsigned last_sent_ = 0;

    static inline Application *self = nullptr;
    static void take_frame(void *, std::uint16_t, const std::uint8_t *payload, std::uint16_t length,
                           int step) {
        if (step == KIV_BNEP_FRAME_DATA)
            self->checker.feed(payload, length);
    }
    int start_sender() {
        static const std::uint8_t address[] = {1, 0, 0, 0, 0, 2};
        sigset_t all, before; // as the header says: a signal would end the sender
        sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, &before);
        sender_fd = ::dup(0);
        ::close(sender_fd); // the number that the interface gets
        const int status = kiv_bnep_set_sender(take_frame, address);
        ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
        return status;
    }
    int open() {
        switch (kind_) {
        case tty:
            return sup_uart_Init(&port, "/dev/ttyKIV0", UART_SPEED_115200, 0);
        case hci:
            return sup_uart_Init(&port, "hci0", 0, 0);
        case tcp_server:
            return sup_uart_Init(&port, tcp_name_.c_str(), 0, 0);
        case tcp_client:
            sup_uart_Prepare(&port, nullptr);
            return sup_uart_Opened(&port, pos_open_tcp_client(&port, client_name_.c_str(), 0));
        case unix_client:
            return sup_uart_Init(&port, service_.c_str(), 0, 0);
        case demultiplexer:
            sup_uart_Prepare(&port, nullptr);
            return sup_uart_Opened(&port, pos_btgpsdemux_open(&port, service_.c_str()));
        default:
            return start_sender();
        }
    }
    // The reader's: nobody else may be inside the record.
    void open_again() {
        broken_ = true;
        while (writing_)
            pause_ms(1);
        sup_uart_close(&port);
        checker.forget_packet();
        while (pause_ms(pause_after_failure), open() != 0) {
        }
        broken_ = false;
    }
    void lose_memory() const {
        kiv_sim_fault fault{};
        fault.call = KIV_SIM_MALLOC;
        fault.nth = 1;
        fault.times = KIV_SIM_ALWAYS;
        fault.error = ENOMEM;
        fault.this_thread = 1;
        kiv_sim_arm(&fault);
    }
    bool send(unsigned count) {
        std::uint8_t *at = buffer_.data();
        if (kind_ == hci) {
            static const std::uint8_t header[] = {2, 0x2a, 0x20, record_size, 0};
            at = std::copy(header, header + sizeof header, at);
        }
        for (unsigned i = 0; i < count; ++i, at += record_size)
            put_record(at, ++last_sent_);
        const auto length = static_cast<unsigned>(at - buffer_.data());
        if (kind_ != bnep)
            return sup_uart_Send(&port, buffer_.data(), length) == 0;
        const std::uint8_t nobody[6] = {};
        return kiv_bnep_data_available(nullptr, 0x88b5, buffer_.data(), length, nobody, nobody) != -1 ||
               errno != ENODEV;
    }
    void repair() {
        if (kind_ == tty)
            sup_uart_Stop_UART(&port); // lets go of the reader, who opens it again
        if (kind_ == bnep) {
            kiv_bnep_set_sender(nullptr, nullptr);
            start_sender();
        }
    }
    template <typename Turn>
    [[noreturn]] void run(std::atomic<pid_t> &id, Turn turn) {
        id = ::gettid();
        for (bool armed = false;;) {
            if (memory_gone && !armed)
                lose_memory();
            armed = memory_gone;
            turn();
        }
    }
    void read() {
        std::uint8_t data[4096];
        unsigned length = sizeof data;
        if (sup_uart_Read_partial(&port, data, &length) == 0)
            kind_ == hci ? checker.feed_h4(data, length) : checker.feed(data, length);
        else if (kind_ == tty || kind_ == hci)
            open_again();
        else
            pause_ms(pause_after_failure);
    }
    void write() {
        writing_ = true;
        const bool sent = broken_ || send(deafened && has_process(kind_) ? bulk : 1);
        if (!sent)
            repair();
        writing_ = false;
        last_number = last_sent_;
        pause_ms(sent ? pause_of_writer : pause_after_failure);
    }

  public:
    UART_infos port{};
    Checker checker;
    std::atomic<pid_t> reader{0}, writer{0};
    std::atomic<unsigned> last_number{0};
    std::atomic<bool> memory_gone{false}, deafened{false};
    std::atomic<int> sender_fd{-1};

    Application(Kind kind, const std::string &service, std::uint16_t number)
        : kind_(kind), service_((kind == unix_client ? "unix:" : "") + service),
          tcp_name_("tcp:" + std::to_string(number)),
          client_name_("tcpout:127.0.0.1:" + std::to_string(number)) {
        self = this;
        ::setenv("KIV_SIM_TTY0", service.c_str(), 1);
    }
    void start() {
        while (open() != 0)
            pause_ms(pause_after_failure);
        if (kind_ != bnep)
            std::thread([this] { run(reader, [this] { read(); }); }).detach();
        std::thread([this] { run(writer, [this] { write(); }); }).detach();
    }
    int descriptor() const {
        return kind_ == bnep ? sender_fd.load() : __atomic_load_n(&port.fd, __ATOMIC_RELAXED);
    }
};

// Troubles ------------------------------------------------------------------------------------------------

// What stands between the application and its far end, and the log.
struct Pair {
    const Kind kind;
    Application &application;
    std::atomic<bool> trouble{true};
    int log_pipe[2] = {-1, -1}; // that nobody reads

    // Does something again and again until the trouble ends.
    template <typename Turn>
    void meanwhile(unsigned pause, Turn turn) {
        helpers.emplace_back([this, pause, turn] {
            for (; trouble; pause_ms(pause))
                turn();
        });
    }
    std::vector<std::jthread> helpers;
};

void take_descriptors(Pair &pair) {
    const rlimit few = {.rlim_cur = 64, .rlim_max = 1024};
    ::setrlimit(RLIMIT_NOFILE, &few);
    auto taken = std::make_shared<std::vector<int>>();
    taken->reserve(1024);
    pair.helpers.emplace_back([&pair, taken] {
        for (; pair.trouble; pause_ms(5))
            for (int fd; (fd = ::dup(0)) != -1;)
                taken->push_back(fd);
        for (const int fd : *taken)
            ::close(fd);
    });
}
void take_memory(Pair &pair) {
    for (const kiv_sim_call call : {KIV_SIM_CALLOC, KIV_SIM_SOCKET, KIV_SIM_ACCEPT})
        kiv_sim_fail(call, 1, KIV_SIM_ALWAYS, ENOMEM);
    pair.application.memory_gone = true;
}
// Somebody else in the process has much to report.
void make_noise(Pair &pair) {
    pair.meanwhile(10, [] {
        UART_infos other;
        sup_uart_Init(&other, "/dev/there is none", UART_SPEED_9600, 0);
    });
}
void fill_disk(Pair &pair) {
    const int full = ::open("/dev/full", O_WRONLY);
    ::dup2(full, STDERR_FILENO);
    ::close(full);
    make_noise(pair);
}
void block_log(Pair &pair) {
    ::pipe(pair.log_pipe);
    ::fcntl(pair.log_pipe[1], F_SETFL, O_NONBLOCK);
    const char rest[4096] = {};
    while (::write(pair.log_pipe[1], rest, sizeof rest) > 0) {
    }
    ::fcntl(pair.log_pipe[1], F_SETFL, 0);
    ::dup2(pair.log_pipe[1], STDERR_FILENO);
    make_noise(pair);
}
void read_log(Pair &pair) {
    std::thread([fd = pair.log_pipe[0]] {
        char rest[4096];
        while (::read(fd, rest, sizeof rest) > 0) {
        }
    }).detach();
}
void storm(Pair &pair, int flags) {
    struct sigaction ignored = {};
    ignored.sa_handler = [](int) {};
    ignored.sa_flags = flags;
    ::sigaction(SIGUSR1, &ignored, nullptr);
    pair.meanwhile(1, [&pair] {
        for (const pid_t thread : {pair.application.reader.load(), pair.application.writer.load()})
            if (thread != 0)
                ::syscall(SYS_tgkill, ::getpid(), thread, SIGUSR1);
    });
}

int bystander = -1; // /dev/null: the port must not take its number over
bool bystander_stands() {
    struct stat now {};
    return bystander == -1 || (::fstat(bystander, &now) == 0 && S_ISCHR(now.st_mode));
}

// Later somebody else gets the number, if the port has not taken it for its next connection.
void close_by_mistake(Pair &pair) {
    ::close(pair.application.descriptor());
    pause_ms(500);
    bystander = ::open("/dev/null", O_RDWR);
}

constexpr unsigned all_kinds = (1u << kinds) - 1;
constexpr unsigned streams = 1u << tcp_server | 1u << tcp_client | 1u << unix_client | 1u << demultiplexer;

const struct Trouble {
    const char *name, *what;
    Mode far;        // what the far end does meanwhile
    unsigned losing; // the kinds of port whose connection may go, and records with it
    unsigned applies;
    void (*begin)(Pair &pair);
    void (*end)(Pair &pair);
} troubles[] = {
    {"descriptors", "the peer leaves, and no descriptor is free", drop, all_kinds, all_kinds,
     take_descriptors, nullptr},
    {"memory", "the peer leaves, and there is no memory", drop, all_kinds, all_kinds, take_memory,
     [](Pair &pair) {
         pair.application.memory_gone = false;
         kiv_sim_clear_faults();
     }},
    {"log-full", "the log's disk is full", echo, 0, all_kinds, fill_disk, nullptr},
    {"log-blocked", "nobody reads the log's pipe", echo, 0, all_kinds, block_log, read_log},
    {"signals", "a thousand signals a second, SA_RESTART on streams", echo, 0, all_kinds,
     [](Pair &pair) { storm(pair, (streams & 1u << pair.kind) != 0 ? SA_RESTART : 0); }, nullptr},
    {"bare-signals", "the same without SA_RESTART", echo, streams, streams,
     [](Pair &pair) { storm(pair, 0); }, nullptr},
    {"clock", "the clock is put back by an hour", echo, 0, all_kinds, [](Pair &) { put_back = 3600; },
     nullptr},
    {"closed", "another thread closes the port's descriptor", echo, all_kinds, all_kinds, close_by_mistake,
     nullptr},
    {"leaving", "the peer goes as soon as it has come", leave, all_kinds, all_kinds, nullptr, nullptr},
    {"crawling", "the peer sends byte by byte", crawl, 0, all_kinds & ~(1u << bnep), nullptr, nullptr},
    {"deaf", "the peer reads nothing", deaf, 1u << hci | 1u << bnep, all_kinds,
     [](Pair &pair) { pair.application.deafened = true; },
     [](Pair &pair) { pair.application.deafened = false; }},
};

// One pair ------------------------------------------------------------------------------------------------

struct Result {
    bool complete, recovered, spared;
    unsigned records, missing, disorder;
    double cpu, lines, recovery; // percent; per second, of the most frequent; seconds
    char line[160];
};

// What comes to standard error, counted line by line.
class LogCounter {
    std::mutex lock_;
    std::map<std::string, unsigned> counts_;

    void take(FILE *log) {
        char line[1024];
        while (std::fgets(line, sizeof line, log) != nullptr) {
            line[std::strcspn(line, "\n")] = '\0';
            const std::lock_guard<std::mutex> hold(lock_);
            ++counts_[line];
        }
    }

  public:
    LogCounter() {
        int ends[2];
        ::pipe(ends);
        ::dup2(ends[1], STDERR_FILENO);
        ::close(ends[1]);
        std::thread([this, log = ::fdopen(ends[0], "r")] { take(log); }).detach();
    }
    // Begins anew.
    std::pair<std::string, unsigned> take_most_frequent() {
        const std::lock_guard<std::mutex> hold(lock_);
        std::pair<std::string, unsigned> most;
        for (const auto &[line, count] : std::exchange(counts_, {}))
            if (count > most.second)
                most = {line, count};
        return most;
    }
};

double seconds_of(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}
double now() {
    return seconds_of(CLOCK_MONOTONIC);
}
// Of the process, without the threads that make the trouble.
double cpu_used(std::vector<std::jthread> &helpers) {
    double seconds = seconds_of(CLOCK_PROCESS_CPUTIME_ID);
    for (auto &helper : helpers) {
        clockid_t clock;
        ::pthread_getcpuclockid(helper.native_handle(), &clock);
        seconds -= seconds_of(clock);
    }
    return seconds;
}
// A bound for what must come, far above what it takes.
bool wait_for_records(const Checker &checker, unsigned last) {
    for (unsigned i = 0; i < 6000; ++i, pause_ms(10))
        if (checker.last >= last)
            return true;
    return false;
}

template <class Far>
void run_pair(Kind kind, const Trouble &trouble, double seconds, Result &result, Far &far,
              Application &application) {
    LogCounter log;
    application.start();
    Pair pair{.kind = kind, .application = application, .helpers = {}};
    if (!wait_for_records(application.checker, 10))
        return;
    const unsigned missing_before = application.checker.missing;
    log.take_most_frequent();
    const int log_before = ::dup(STDERR_FILENO);
    const double cpu_before = cpu_used(pair.helpers), began = now();
    far.become(trouble.far);
    if (trouble.begin != nullptr)
        trouble.begin(pair);
    while (now() < began + seconds)
        pause_ms(10);
    const double ended = now();
    result.cpu = 100 * (cpu_used(pair.helpers) - cpu_before) / (ended - began);
    const auto most = log.take_most_frequent();
    result.lines = most.second / (ended - began);
    std::strncpy(result.line, most.first.c_str(), sizeof result.line - 1);

    pair.trouble = false;
    put_back = 0;
    if (trouble.end != nullptr)
        trouble.end(pair);
    far.become(echo);
    pair.helpers.clear();
    ::dup2(log_before, STDERR_FILENO);
    result.recovered = wait_for_records(application.checker, application.last_number + 10);
    result.recovery = now() - ended;
    result.records = application.checker.last;
    result.missing = application.checker.missing - missing_before;
    result.disorder = application.checker.disorder;
    result.spared = bystander_stands();
    result.complete = true;
}

[[noreturn]] void run_pair(Kind kind, const Trouble &trouble, double seconds, Result &result) {
    ::signal(SIGPIPE, SIG_IGN);
    ::alarm(static_cast<unsigned>(seconds) + 150);
    if (has_process(kind)) {
        FarProcess far(kind);
        Application application(kind, far.name(), far.number());
        run_pair(kind, trouble, seconds, result, far, application);
    } else {
        FarModel far(kind);
        Application application(kind, "", 0);
        run_pair(kind, trouble, seconds, result, far, application);
    }
    ::_exit(0);
}

// All of them ---------------------------------------------------------------------------------------------

struct Options {
    double seconds = 1;
    unsigned jobs = 32;
    bool limits = false, list = false;
    std::vector<std::string> wanted;
};

using Chosen = std::pair<Kind, const Trouble *>;

std::string name_of(const Chosen &pair) {
    return std::string(kind_names[pair.first]) + "/" + pair.second->name;
}

std::vector<Chosen> chosen(const std::vector<std::string> &wanted) {
    std::vector<Chosen> pairs;
    for (int kind = tty; kind < kinds; ++kind)
        for (const Trouble &trouble : troubles) {
            const Chosen pair(static_cast<Kind>(kind), &trouble);
            const auto fits = [&](const std::string &part) {
                return name_of(pair).find(part) != std::string::npos;
            };
            if ((trouble.applies & 1u << kind) != 0 &&
                (wanted.empty() || std::any_of(wanted.begin(), wanted.end(), fits)))
                pairs.push_back(pair);
        }
    return pairs;
}

// Returns the first thing that is wrong, or nothing.
std::string verdict(const Result &result, const Chosen &pair, const Options &options) {
    const bool may_lose = (pair.second->losing & 1u << pair.first) != 0;
    const std::pair<bool, std::string> faults[] = {
        {!result.complete, "it did not come to its end"},
        {!result.recovered, "it does not work again"},
        {result.disorder != 0, "records are out of order"},
        {result.missing != 0 && !may_lose, "records are missing"},
        {!result.spared, "somebody else's descriptor was hit"},
        {options.limits && result.cpu > 5, "it spins"},
        {options.limits && result.lines * options.seconds > options.seconds + 1,
         std::string("the log repeats ") + result.line},
    };
    for (const auto &[is_there, what] : faults)
        if (is_there)
            return what;
    return {};
}

int run_all(const Options &options) {
    const std::vector<Chosen> pairs = chosen(options.wanted);
    if (options.list) {
        for (const Chosen &pair : pairs)
            std::printf("%-24s %s\n", name_of(pair).c_str(), pair.second->what);
        return 0;
    }
    auto *results = static_cast<Result *>(::mmap(nullptr, sizeof(Result) * (pairs.size() + 1),
                                                 PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    std::printf("%-24s %9s %9s %7s %9s %8s\n", "port/trouble", "bytes", "missing", "CPU %", "lines/s",
                "back s");
    std::map<pid_t, std::size_t> running;
    unsigned failed = 0;
    for (std::size_t next = 0; next < pairs.size() || !running.empty();) {
        std::fflush(stdout);
        if (next < pairs.size() && running.size() < options.jobs) {
            const pid_t child = ::fork();
            if (child == 0)
                run_pair(pairs[next].first, *pairs[next].second, options.seconds, results[next]);
            running[child] = next++;
            continue;
        }
        const std::size_t done = running.extract(::wait(nullptr)).mapped();
        const Result &result = results[done];
        const std::string wrong = verdict(result, pairs[done], options);
        std::printf("%-24s %9u %9u %7.2f %9.1f %8.1f   %s\n", name_of(pairs[done]).c_str(),
                    result.records * record_size, result.missing, result.cpu, result.lines, result.recovery,
                    wrong.empty() ? "passed" : wrong.c_str());
        failed += wrong.empty() ? 0U : 1U;
    }
    std::printf("%zu pairs, %u failed\n", pairs.size(), failed);
    return failed == 0 && !pairs.empty() ? 0 : 1;
}

} // namespace
} // namespace kiv::test

int main(int argc, char **argv) {
    kiv::test::Options options;
    ::setenv("KIV_CORE_LOG_LIMIT", "1", 1);
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        const char *value = i + 1 < argc ? argv[i + 1] : "";
        if (word == "--seconds" && ++i)
            options.seconds = std::atof(value);
        else if (word == "--jobs" && ++i)
            options.jobs = static_cast<unsigned>(std::atoi(value));
        else if (word == "--limits")
            options.limits = true;
        else if (word == "--list")
            options.list = true;
        else if (word[0] != '-')
            options.wanted.push_back(word);
        else {
            std::fprintf(stderr, "usage: %s [--seconds S] [--limits] [--jobs N] [--list] [PORT/TROUBLE...]\n",
                         argv[0]);
            return 2;
        }
    }
    return kiv::test::run_all(options);
}
