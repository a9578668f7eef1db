// What stands around the soak program's application: the records that travel, and whoever is at the far end
// of a port.

#ifndef KIV_TESTS_SOAK_PAIRS_H
#define KIV_TESTS_SOAK_PAIRS_H

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <vector>

#include "fixtures/hci.h"
#include "fixtures/unix_service.h"
#include "kiv/network.h"
#include "kiv/transports.h"

namespace kiv::test {

enum Kind { tty, hci, tcp_server, tcp_client, unix_client, demultiplexer, bnep, kinds };
constexpr const char *kind_names[] = {"tty", "hci", "tcp-server", "tcp-client", "unix", "demux", "bnep"};

constexpr bool has_process(Kind kind) {
    return kind != hci && kind != bnep; // those have a model of the board at their far end
}

// What the far end does. drop: it goes away once, and echoes from then on.
enum Mode : char { echo = 'e', leave = 'l', crawl = 'c', deaf = 'd', drop = 'x' };

inline void pause_ms(unsigned milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

// Records -------------------------------------------------------------------------------------------------

// Four bytes hold 24 bits of a running number, each with its place in the record, so that a reader which is
// thrown into the middle of one finds the next. One more byte stands for nothing: a sign of life.
constexpr std::uint8_t sign_of_life = 0xff;
constexpr unsigned record_size = 4;

inline void put_record(std::uint8_t *at, unsigned number) {
    for (unsigned i = 0; i < record_size; ++i)
        at[i] = static_cast<std::uint8_t>(i << 6 | (number >> 6 * i & 0x3f));
}

class Checker {
    unsigned place_ = 0, number_ = 0;
    std::uint8_t packet_[2048];
    unsigned collected_ = 0;

    void complete() {
        const unsigned expected = last + 1;
        missing += number_ > expected ? number_ - expected : 0;
        disorder += number_ < expected ? 1 : 0;
        last = number_;
    }

  public:
    std::atomic<unsigned> last{0}, missing{0}, disorder{0};

    void feed(const std::uint8_t *data, unsigned length) {
        for (const std::uint8_t *end = data + length; data != end; ++data) {
            if (*data == sign_of_life)
                continue;
            const unsigned place = *data >> 6;
            if (place == 0)
                place_ = number_ = 0;
            if (place != place_)
                continue;
            number_ |= (*data & 0x3fu) << 6 * place;
            if (++place_ == record_size)
                complete();
        }
    }
    // The same for a controller's packets: events, and ACL data of one record.
    void feed_h4(const std::uint8_t *data, unsigned length) {
        for (unsigned i = 0; i < length; ++i) {
            packet_[collected_++] = data[i];
            const bool is_acl = packet_[0] == 2;
            if (collected_ < (is_acl ? 5u : 3u))
                continue;
            const unsigned header = is_acl ? 5 : 3, payload = packet_[is_acl ? 3 : 2];
            if (collected_ < header + payload)
                continue;
            if (is_acl)
                feed(packet_ + header, payload);
            collected_ = 0;
        }
    }
    void forget_packet() { collected_ = 0; }
};

// The far end ---------------------------------------------------------------------------------------------

// A process of its own, so that what befalls the port's process does not befall its peer.
class FarProcess {
    const Kind kind_;
    const ReservedPort reserved_{};
    std::unique_ptr<Listener> listener_;
    UnixService service_;
    int control_[2] = {-1, -1};

    Peer accept() const { return listener_ != nullptr ? listener_->accept() : service_.accept(); }
    bool somebody_waits() const {
        return !(listener_ != nullptr ? listener_->nobody_waits() : service_.nobody_waits());
    }

    static bool send_back(int fd, const std::uint8_t *data, std::size_t length, std::size_t at_once) {
        for (std::size_t sent = 0; sent < length;) {
            const ssize_t count = ::send(fd, data + sent, std::min(at_once, length - sent), MSG_NOSIGNAL);
            if (count <= 0)
                return false;
            sent += static_cast<std::size_t>(count);
        }
        return true;
    }
    // One look at everybody. Returns false when the port's process has gone.
    bool serve(Mode &mode, Peer &peer) {
        pollfd waits[] = {{.fd = control_[1], .events = POLLIN, .revents = 0},
                          {.fd = mode == deaf ? -1 : peer.fd(), .events = POLLIN, .revents = 0}};
        if (::poll(waits, 2, mode == leave ? 1 : 20) == 0 && peer.fd() != -1 && mode != leave)
            ::send(peer.fd(), &sign_of_life, 1, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (waits[0].revents != 0) {
            if (::recv(control_[1], &mode, 1, 0) != 1)
                return false;
            if (mode == drop) {
                peer.close();
                mode = echo;
            }
        }
        if (kind_ == tcp_server) {
            if (peer.fd() == -1)
                peer = Peer(connect_to_port(reserved_.number()));
        } else if (somebody_waits()) {
            peer = accept();
        }
        if (mode == leave)
            peer.close();
        std::uint8_t data[4096];
        if (peer.fd() == -1 || mode == deaf)
            return true;
        const ssize_t count = ::recv(peer.fd(), data, sizeof data, MSG_DONTWAIT);
        if (count == -1 && errno == EAGAIN)
            return true;
        if (count <= 0 ||
            !send_back(peer.fd(), data, static_cast<std::size_t>(count), mode == crawl ? 1 : SIZE_MAX))
            peer.close();
        return true;
    }

  public:
    explicit FarProcess(Kind kind) : kind_(kind), service_(kind == tty ? own_path() : own_name("soak")) {
        if (kind == tcp_client)
            listener_ = std::make_unique<Listener>(reserved_.number());
        else if (kind != tcp_server)
            service_.start();
        ::socketpair(AF_UNIX, SOCK_STREAM, 0, control_);
        if (::fork() != 0) {
            ::close(control_[1]);
            return;
        }
        ::close(control_[0]);
        Mode mode = echo;
        Peer peer;
        while (serve(mode, peer)) {
        }
        service_.stop();
        ::_exit(0);
    }
    std::string name() const { return service_.name(); }
    std::uint16_t number() const { return reserved_.number(); }
    void become(Mode mode) { ::send(control_[0], &mode, 1, MSG_NOSIGNAL); }
};

// A thread that turns the board's model of a controller or of an interface.
class FarModel {
    const Kind kind_;
    std::atomic<Mode> mode_{echo};

    void go_away() {
        if (kind_ == bnep) {
            kiv_sim_tap_delete("bnep");
            return;
        }
        kiv_sim_hci_unplug(0, EPIPE);
        pause_ms(50);
        configure([](kiv_sim_hci_config &config) { config.present = 1; });
    }
    void turn(unsigned time) {
        const Mode mode = mode_;
        if (mode == drop)
            mode_ = echo;
        if (mode == drop || (mode == leave && time % 20 == 0))
            go_away();
        if (kind_ == hci) {
            configure([mode](kiv_sim_hci_config &config) {
                config.answers = mode == deaf ? 0 : 1;
                config.fragment = mode == crawl ? 1 : 0;
            });
            const std::uint8_t event[] = {4, 0xff, 0};
            if (mode != deaf && time % 10 == 0)
                kiv_sim_hci_send(0, event, sizeof event);
            return;
        }
        kiv_sim_tap_set_up("bnep", 1);
        std::uint8_t frame[2000];
        std::size_t length;
        while (mode != deaf && (length = kiv_sim_tap_receive("bnep", frame, sizeof frame)) != 0)
            kiv_sim_tap_send("bnep", frame, length);
    }

  public:
    explicit FarModel(Kind kind) : kind_(kind) {
        if (kind == bnep) {
            kiv_sim_tun_set_node(KIV_SIM_NET_TUN, KIV_SIM_TUN_PRESENT);
            kiv_sim_tun_set_node(KIV_SIM_DEV_TUN, KIV_SIM_TUN_ABSENT);
        }
        std::thread([this] {
            for (unsigned time = 1;; ++time, pause_ms(10))
                turn(time);
        }).detach();
    }
    void become(Mode mode) { mode_ = mode; }
};

} // namespace kiv::test

#endif
