#pragma once
// The service on the board, and the station's library at the other end of the cable.

#include <poll.h>

#include <optional>

#include "station/wire/discovery.h"
#include "station/wire/listener.h"
#include "tests/board.h"

constexpr station::Milliseconds kSoon{20000};

constexpr size_t kPartition = 1 << 18;

class ServiceTest : public board::BoardTest {
protected:
    void SetUp() override {
        BoardTest::SetUp();
        for (const char *flash : {"/flash/mtd2", "/flash/mtd3", "/flash/mtd5", "/flash/mtd6"})
            board::writeFile(flash, std::string(kPartition, 'U'));
        board::run("ip link set eth0 up; ip addr flush dev eth0; ip addr add 192.168.1.1/24 dev eth0");
        board::inStationNetwork([&] { link_ = station::openLink("station"); });
        setenv("HURRY", "100", 1);
    }

    // Returns an Ethernet frame from the station, padded to `size` bytes.
    std::string frame(station::Mac destination, const char *etherType, size_t size = 60) const {
        return board::padded(station::bytesOf(destination) + station::bytesOf(link_->address()) + etherType, size,
                             '\x5A');
    }

    static station::Listener listen() {
        std::optional<station::Listener> listener;
        board::inStationNetwork([&] { listener.emplace(station::kDefaultAddress, station::kDefaultPort); });
        return std::move(*listener);
    }

    // Returns the service's next connection.
    static station::Session accept(const station::Listener &listener) {
        station::waitFor(listener.descriptor(), POLLIN, station::Clock::now() + kSoon);
        return listener.take().value();
    }

    // Lets the end of a session reset its connection.
    static void resetAtEnd(const station::Session &session) {
        const linger now = {1, 0};
        setsockopt(session.descriptor(), SOL_SOCKET, SO_LINGER, &now, sizeof now);
    }

    station::Session startSession() {
        station::Listener listener = listen();
        start("daemon");
        return accept(listener);
    }

    static std::string ask(station::Session &session, const std::string &command, const std::string &payload = "") {
        session.sendCommand(command);
        session.sendBytes(payload);
        return session.receiveReply(kSoon);
    }

    std::optional<station::FrameLink> link_;
};
