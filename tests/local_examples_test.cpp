// The examples that talk to a local service, run as a user would.

#include <cstdio>
#include <memory>
#include <string>

#include "fixtures/unix_service.h"

using namespace kiv::test;

namespace {

// A program that runs beside the test. Its output comes when it has ended.
class Program {
    std::unique_ptr<FILE, int (*)(FILE *)> output_;

  public:
    explicit Program(const std::string &command)
        : output_(::popen((EMULATOR + command).c_str(), "r"), ::pclose) {}
    std::string output() {
        std::string text;
        for (int c = std::fgetc(output_.get()); c != EOF; c = std::fgetc(output_.get()))
            text += static_cast<char>(c);
        EXPECT_EQ(::pclose(output_.release()), 0);
        return text;
    }
};

TEST(LocalExamples, UnixPortPrintsTheAnswer) {
    UnixService echo(own_path());
    echo.start();
    Program program(UNIX_PORT " unix:" + echo.name() + " hello");
    const Peer peer = echo.accept();
    EXPECT_EQ(peer.receive(6), "hello\n");
    EXPECT_TRUE(peer.send("hello "));
    EXPECT_TRUE(peer.send("yourself\n"));
    EXPECT_EQ(program.output(), "hello yourself\n");
}

} // namespace
