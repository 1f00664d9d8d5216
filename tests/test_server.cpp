// The debug stream server against viewers made of plain loopback sockets, on
// ports the system picks. A viewer's close is only seen if SocketFd::reset()
// closes, so the socket owner is exercised throughout.

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <atomic>
#include <thread>
#include <vector>

#include "server.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<unsigned char>;
using testsupport::streamPacket;
using testsupport::waitUntil;

// A viewer socket connected to 127.0.0.1:port; every recv gives up after 10 s.
SocketFd connectViewer(int port)
{
    SocketFd viewer(socket(AF_INET, SOCK_STREAM, 0));
    const timeval timeout{10, 0};
    setsockopt(viewer.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    EXPECT_EQ(connect(viewer.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    return viewer;
}

// Up to `count` bytes; fewer only if the peer closed or 10 s passed.
Bytes readBytes(const SocketFd& viewer, size_t count)
{
    Bytes bytes(count);
    size_t done = 0;
    for (ssize_t n = 1; done < count && n > 0; done += n > 0 ? static_cast<size_t>(n) : 0) {
        n = recv(viewer.get(), bytes.data() + done, count - done, 0);
    }
    bytes.resize(done);
    return bytes;
}

Bytes pattern(size_t size, unsigned seed)
{
    Bytes bytes(size);
    for (size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<unsigned char>((i * 131 + seed) >> 3);
    }
    return bytes;
}

class ServerTest : public ::testing::Test {
protected:
    testsupport::ScratchRoot root;
    testsupport::LogCapture log;
    Server server{"127.0.0.1", 0};

    void write(const Bytes& payload, ServerDataType type)
    {
        server.write(payload.data(), static_cast<int>(payload.size()), type);
    }
    SocketFd connected()
    {
        SocketFd viewer = connectViewer(server.listeningPort());
        EXPECT_TRUE(waitUntil([&] { return server.isConnected.load(); }));
        return viewer;
    }
    size_t disconnections() const { return log.count("[BINOLIB] client disconnected."); }
};

// Without a viewer write sends nothing and changes nothing. A 640 x 480 frame
// reaches the viewer as a type-0 packet of 12 + 614400 + 4 bytes, then a
// type-3 packet of 12 + 921600 + 4 bytes, byte for byte, while a second
// viewer waits in the backlog; the first's close is logged once and the
// second is then served.
TEST_F(ServerTest, OneViewerAtATimeGetsEachFrameAsTwoPackets)
{
    write(pattern(100, 3), STEREO_PAIR);
    EXPECT_EQ(Bytes(std::begin(server.packetHead), std::end(server.packetHead)), Bytes(16, 0));

    SocketFd first = connected();
    SocketFd second = connectViewer(server.listeningPort());
    const Bytes pair = pattern(2 * 640 * 480, 1);
    Bytes disparity = pattern(3 * 640 * 480, 2);
    const float distance = 7.25f;
    std::copy_n(reinterpret_cast<const unsigned char*>(&distance), 4, disparity.begin());
    std::thread worker([&] {
        write(pair, STEREO_PAIR);
        write(disparity, DISPARITY_COLOR);
    });
    EXPECT_TRUE(readBytes(first, 12 + 614400 + 4) == streamPacket(0, pair));
    const Bytes packet = readBytes(first, 12 + 921600 + 4);
    worker.join();
    EXPECT_TRUE(packet == streamPacket(3, disparity));
    EXPECT_EQ(Bytes(packet.begin() + 12, packet.begin() + 16), (Bytes{0x00, 0x00, 0xE8, 0x40}));  // 7.25f
    char byte = 0;
    EXPECT_EQ(recv(second.get(), &byte, 1, MSG_DONTWAIT), -1);

    first.reset();
    ASSERT_TRUE(waitUntil([&] { return disconnections() == 1; }));
    ASSERT_TRUE(waitUntil([&] { return server.isConnected.load(); }));
    write(pattern(64, 5), STEREO_PAIR);
    EXPECT_TRUE(readBytes(second, 80) == streamPacket(0, pattern(64, 5)));
    EXPECT_EQ(disconnections(), 1u);
}

// A viewer that stops reading holds the writer back (40 MiB cannot fit in
// the socket buffers); when it then vanishes mid-packet, the writer gets
// errors instead of SIGPIPE, finishes, and the next viewer is served.
TEST_F(ServerTest, AStalledThenVanishedViewerNeverStopsTheServer)
{
    constexpr int kWrites = 40;
    SocketFd stalled = connected();
    std::atomic<int> writesDone{0};
    std::thread worker([&] {
        for (const Bytes big = pattern(1 << 20, 6); writesDone < kWrites; ++writesDone) {
            write(big, STEREO_PAIR);
        }
    });
    EXPECT_EQ(readBytes(stalled, 1012).size(), 1012u);
    EXPECT_LT(writesDone.load(), kWrites);
    stalled.reset();  // unread data: the viewer's side resets the connection
    EXPECT_TRUE(waitUntil([&] { return writesDone.load() == kWrites; }));
    worker.join();
    ASSERT_TRUE(waitUntil([&] { return disconnections() == 1; }));

    SocketFd next = connected();
    write(pattern(32, 7), DISPARITY_COLOR);
    EXPECT_TRUE(readBytes(next, 48) == streamPacket(3, pattern(32, 7)));
}

// A failed bind is logged at ERROR with the address and port, once, and the
// server still starts and stops.
TEST_F(ServerTest, BindFailuresAreLoggedAndTheServerGoesOn)
{
    const std::pair<const char*, int> cases[] = {
        {"127.0.0.1", server.listeningPort()}, {"256.1.2.3", 0}, {"127.0.0.1", 70000}};
    for (const auto& [address, port] : cases) {
        SCOPED_TRACE(address);
        log.clear();
        Server failed(address, port);
        EXPECT_TRUE(failed.socketReady);
        const std::vector<binolog::Record> records = log.records();
        ASSERT_FALSE(records.empty());
        EXPECT_EQ(records[0].message,
                  "[BINOLIB] server bind " + std::string(address) + ":" + std::to_string(port) + " failed.");
        EXPECT_EQ(records[0].level, binolog::ERROR);
        EXPECT_EQ(log.count("server bind"), 1u);
    }
}

}  // namespace
