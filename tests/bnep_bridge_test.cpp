// Two namespaces of the machine's kernel, joined by two bridges in processes of their own: what the example
// carries is what programs on both sides sent.

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "fixtures/netns.h"

namespace kiv::test {
namespace {

// One end: a namespace with its bridge.
class Side {
    std::string log_;
    int namespace_ = -1;
    FILE *bridge_ = nullptr; // what its shell prints
    int process_ = 0;

  public:
    explicit Side(std::string log) : log_(std::move(log)) {
        std::thread([this] {
            if (::unshare(CLONE_NEWNET) == 0)
                namespace_ = ::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
        }).join();
    }
    Side(const Side &) = delete;
    Side &operator=(const Side &) = delete;
    ~Side() {
        if (bridge_ != nullptr) {
            kill();
            end();
        }
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
    // Waits until the command succeeds, but not for ever: the test may have been ended meanwhile.
    bool becomes_true(const std::string &command) const {
        return shell("for try in $(seq 2000); do " + command +
                     " >/dev/null 2>&1 && exit; sleep 0.01; done; exit 1") == 0;
    }
    void start(const std::string &arguments) {
        const std::string command = "echo $$; exec " KIV_BNEP_BRIDGE " " + arguments + " >" + log_;
        run([&] { bridge_ = ::popen(command.c_str(), "re"); });
        ASSERT_EQ(std::fscanf(bridge_, "%d", &process_), 1);
    }
    void kill() const { ::kill(process_, SIGTERM); }
    // Waits for the bridge; its status as of wait().
    int end() { return ::pclose(std::exchange(bridge_, nullptr)); }
    // What it printed about the frames in one direction.
    std::vector<std::string> frames(const std::string &direction) const {
        std::vector<std::string> found;
        std::ifstream lines(log_);
        for (std::string line; std::getline(lines, line);)
            if (line.starts_with(direction + " "))
                found.push_back(line.substr(direction.size() + 1));
        return found;
    }
};

TEST(BnepBridge, CarriesPingsOfEverySizeThatTheBufferHolds) {
    const std::string refusal = enter_network_namespace();
    if (!refusal.empty())
        GTEST_SKIP() << refusal;
    if (std::system("command -v ip >/dev/null && command -v ping >/dev/null") != 0)
        GTEST_SKIP() << "needs the commands ip and ping";
    char folder[] = "/tmp/kiv-bridge-XXXXXX";
    ASSERT_NE(::mkdtemp(folder), nullptr);
    const std::string path = folder;
    {
        Side left(path + "/left"), right(path + "/right");
        right.start("listen " + path + "/radio 02:00:00:00:00:02");
        const std::string listening = "00010000 .*" + path + "/radio";
        ASSERT_TRUE(right.becomes_true("grep '" + listening + "' /proc/net/unix"));
        left.start("connect " + path + "/radio 02:00:00:00:00:01");
        // What is left of 1600 bytes behind the header: 1586.
        const std::string set_up = "ip link set bnep mtu 1586 up && ip address add dev bnep ";
        ASSERT_TRUE(left.becomes_true(set_up + "10.0.0.1/24"));
        ASSERT_TRUE(right.becomes_true(set_up + "10.0.0.2/24"));
        for (const char *options : {"-c 3 -s 0", "-c 3 -s 1558 -M do", "-c 3 -s 1586", "-c 300 -s 1400"})
            EXPECT_EQ(left.shell(std::string("ping -q -n -i 0.002 -w 20 10.0.0.2 >/dev/null ") + options), 0)
                << options;

        left.kill();
        EXPECT_EQ(right.end(), 0) << "the other side ends in order when the link does";
        EXPECT_NE(right.shell("ip link show bnep >/dev/null 2>&1"), 0);
        const auto sent = left.frames("out"), received = right.frames("in");
        EXPECT_TRUE(sent.size() >= received.size() &&
                    std::equal(received.begin(), received.end(), sent.begin()));
        for (const char *frame : {"0806 28", "0800 28", "0800 1586"})
            EXPECT_NE(std::find(received.begin(), received.end(), frame), received.end()) << frame;
    }
    EXPECT_EQ(std::system(("rm -r " + path).c_str()), 0);
}

} // namespace
} // namespace kiv::test
