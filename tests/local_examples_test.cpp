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

TEST(LocalExamples, GpsDemuxShowsSentencesAndLosses) {
    UnixService gps(own_name("gps"));
    gps.start();
    Program program(GPS_DEMUX " " + gps.name() + " 3");
    Peer peer = gps.accept();
    EXPECT_TRUE(peer.send("noise\r\n$GPGLL,1*00\r\n$GPG"));
    peer.close();
    peer = gps.accept();
    EXPECT_TRUE(peer.send("GA,cut*00\r\n$GPGGA,2*00\r\n$GPRMC,3"));
    EXPECT_TRUE(peer.send("*00\r\n"));
    EXPECT_EQ(program.output(),
              "connected\n$GPGLL,1*00\ndisconnected\nconnected\n$GPGGA,2*00\n$GPRMC,3*00\n");
}

} // namespace
