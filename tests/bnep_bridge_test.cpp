// Two namespaces of the machine's kernel, joined by two bridges in processes of their own: what the example
// carries is what programs on both sides sent.

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <random>
#include <spawn.h>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "fixtures/netns.h"

extern char **environ;

namespace kiv::test {
namespace {

constexpr unsigned megabytes = 4;

std::vector<std::string> bridge_command() {
    std::istringstream words(KIV_BNEP_BRIDGE);
    return {std::istream_iterator<std::string>(words), {}};
}

// One end: a namespace with its bridge.
class Side {
    int namespace_ = -1;
    pid_t bridge_ = -1;
    std::string log_;

  public:
    explicit Side(const std::string &log) : log_(log) {
        std::thread([this] {
            if (::unshare(CLONE_NEWNET) == 0)
                namespace_ = ::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
        }).join();
    }
    Side(const Side &) = delete;
    Side &operator=(const Side &) = delete;
    ~Side() {
        if (bridge_ != -1)
            ::kill(bridge_, SIGKILL);
        end();
        ::close(namespace_);
    }

    // Runs work on a thread inside.
    void run(const std::function<void()> &work) const {
        std::thread([&] {
            ASSERT_EQ(::setns(namespace_, CLONE_NEWNET), 0);
            work();
        }).join();
    }
    int shell(const std::string &command) const {
        int status = -1;
        run([&] { status = std::system(command.c_str()); });
        return status;
    }

    void start(const char *role, const std::string &socket, const char *address) {
        std::vector<std::string> words = bridge_command();
        words.insert(words.end(), {role, socket, address});
        std::vector<char *> arguments;
        for (std::string &word : words)
            arguments.push_back(word.data());
        arguments.push_back(nullptr);
        run([&] {
            posix_spawn_file_actions_t actions;
            ::posix_spawn_file_actions_init(&actions);
            ::posix_spawn_file_actions_addopen(&actions, 1, log_.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0600);
            EXPECT_EQ(::posix_spawn(&bridge_, arguments[0], &actions, nullptr, arguments.data(), environ), 0);
            ::posix_spawn_file_actions_destroy(&actions);
        });
    }
    bool has_interface() const {
        bool found = false;
        run([&] { found = !hardware_address("bnep").empty(); });
        return found;
    }
    bool has_ended() {
        const bool ended = ::waitpid(bridge_, nullptr, WNOHANG) == bridge_;
        if (ended)
            bridge_ = -1;
        return ended;
    }
    void kill() const { ::kill(bridge_, SIGTERM); }
    // Waits for the bridge; its status as of wait().
    int end() {
        int status = -1;
        if (bridge_ != -1)
            ::waitpid(std::exchange(bridge_, -1), &status, 0);
        return status;
    }
    // What it printed about the frames in one direction.
    std::vector<std::string> frames(const std::string &direction) const {
        std::vector<std::string> found;
        std::ifstream lines(log_);
        for (std::string line; std::getline(lines, line);)
            if (line.rfind(direction + " ", 0) == 0)
                found.push_back(line.substr(direction.size() + 1));
        return found;
    }
};

class BnepBridge : public ::testing::Test {
    std::string folder_;

  protected:
    std::unique_ptr<Side> left_, right_;

    void SetUp() override {
        const std::string refusal = enter_network_namespace();
        if (!refusal.empty())
            GTEST_SKIP() << refusal;
        if (std::system("command -v ip >/dev/null && command -v ping >/dev/null") != 0)
            GTEST_SKIP() << "needs the commands ip and ping";
        char name[] = "/tmp/kiv-bridge-XXXXXX";
        folder_ = ::mkdtemp(name);
        left_ = std::make_unique<Side>(folder_ + "/left");
        right_ = std::make_unique<Side>(folder_ + "/right");
        const std::string socket = folder_ + "/radio";
        right_->start("listen", socket, "02:00:00:00:00:02");
        while (!right_->has_interface())
            ::sched_yield();
        do // until the other listens
            left_->start("connect", socket, "02:00:00:00:00:01");
        while (!comes_up(*left_));
    }
    void TearDown() override {
        left_.reset();
        right_.reset();
        for (const char *name : {"/left", "/right", "/radio"})
            ::unlink((folder_ + name).c_str());
        ::rmdir(folder_.c_str());
    }
    static bool comes_up(Side &side) {
        while (!side.has_interface())
            if (side.has_ended())
                return false;
        return true;
    }
    void configure(int mtu) const {
        int number = 0;
        for (const Side *side : {left_.get(), right_.get()}) {
            const std::string host = std::to_string(++number);
            ASSERT_EQ(side->shell("ip address replace 10.0.0." + host + "/24 dev bnep && " +
                                  "ip link set bnep mtu " + std::to_string(mtu) + " up && " +
                                  "{ ip address replace fd00::" + host + "/64 dev bnep nodad || true; }"),
                      0);
        }
    }
    int ping(const std::string &options, const std::string &address) const {
        return left_->shell("ping -q -n -c 3 -i 0.02 -w 20 " + options + " " + address + " >/dev/null");
    }
};

TEST_F(BnepBridge, CarriesPingsOfEverySizeThatTheBufferHolds) {
    configure(1500);
    for (const char *options : {"-s 0", "-s 56", "-s 1472 -M do", "-s 1486"}) // the last in two fragments
        EXPECT_EQ(ping(options, "10.0.0.2"), 0) << options;
    const bool has_ipv6 = ::access("/proc/sys/net/ipv6", F_OK) == 0;
    for (const char *options : {"-s 0", "-s 1452 -M do", "-s 1486"})
        if (has_ipv6) {
            EXPECT_EQ(ping(options, "fd00::2"), 0) << options;
        }
    configure(1586); // what is left of 1600 bytes behind the header
    for (const char *options : {"-s 1486 -M do", "-s 1558 -M do"})
        EXPECT_EQ(ping(options, "10.0.0.2"), 0) << options;
    if (has_ipv6) {
        EXPECT_EQ(ping("-s 1486 -M do", "fd00::2"), 0);
    }

    left_->kill();
    EXPECT_EQ(right_->end(), 0) << "the other side ends in order when the link does";
    EXPECT_FALSE(right_->has_interface());
    const auto sent = left_->frames("out"), received = right_->frames("in");
    EXPECT_TRUE(sent.size() >= received.size() && std::equal(received.begin(), received.end(), sent.begin()));
    for (const char *frame : {"0806 28", "0800 28", "0800 84", "0800 1500", "0800 1586"})
        EXPECT_NE(std::find(received.begin(), received.end(), frame), received.end()) << frame;
}

bool send_all(int fd, const std::string &bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t count = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (count <= 0)
            return false;
        done += static_cast<std::size_t>(count);
    }
    return ::shutdown(fd, SHUT_WR) == 0;
}

std::string receive_all(int fd) {
    std::string received;
    char block[65536];
    for (ssize_t count; (count = ::read(fd, block, sizeof block)) > 0;)
        received.append(block, static_cast<std::size_t>(count));
    return received;
}

TEST_F(BnepBridge, CarriesMegabytesOfTcpBothWaysUnchanged) {
    configure(1500);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(5000);
    address.sin_addr.s_addr = inet_addr("10.0.0.2");
    int listener = -1, left = -1;
    right_->run([&] {
        listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ASSERT_EQ(::bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
        ASSERT_EQ(::listen(listener, 1), 0);
    });
    left_->run([&] {
        left = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ASSERT_EQ(::connect(left, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    });
    const int right = ::accept(listener, nullptr, nullptr);
    ASSERT_GE(right, 0);
    std::mt19937 random;
    std::string bytes(megabytes * 1024 * 1024, '\0');
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random()); });
    const int from[] = {left, right}, to[] = {right, left};
    for (int direction = 0; direction < 2; ++direction) {
        std::thread sender([&] { EXPECT_TRUE(send_all(from[direction], bytes)); });
        const std::string received = receive_all(to[direction]);
        sender.join();
        EXPECT_EQ(received.size(), bytes.size());
        EXPECT_TRUE(received == bytes);
    }
    for (const int fd : {listener, left, right})
        ::close(fd);
}

} // namespace
} // namespace kiv::test
