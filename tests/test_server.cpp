// The debug stream server against viewers made of plain loopback sockets, on
// ports the system picks.

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
    // A viewer socket the server has accepted; every recv gives up after 10 s.
    SocketFd connected()
    {
        SocketFd viewer(socket(AF_INET, SOCK_STREAM, 0));
        const timeval timeout{10, 0};
        setsockopt(viewer.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
        const sockaddr_in address{
            AF_INET, htons(static_cast<uint16_t>(server.listeningPort())), {htonl(INADDR_LOOPBACK)}, {}};
        EXPECT_EQ(connect(viewer.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        EXPECT_TRUE(waitUntil([&] { return server.isConnected.load(); }));
        return viewer;
    }
};

// A viewer that stops reading holds the writer back (40 MiB cannot fit in
// the socket buffers); when it then vanishes mid-packet, the writer gets
// errors instead of SIGPIPE and finishes. The next viewer gets a 640 x 480
// frame as a type-0 packet of 12 + 614400 + 4 bytes, then a type-3 packet of
// 12 + 921600 + 4 bytes, byte for byte.
TEST_F(ServerTest, AVanishedViewerNeverStopsTheServerAndTheNextGetsExactPackets)
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
    ASSERT_TRUE(waitUntil([&] { return log.contains("[BINOLIB] client disconnected."); }));

    SocketFd next = connected();
    const Bytes pair = pattern(2 * 640 * 480, 1);
    const Bytes disparity = pattern(3 * 640 * 480, 2);
    std::thread sender([&] {
        write(pair, STEREO_PAIR);
        write(disparity, DISPARITY_COLOR);
    });
    EXPECT_TRUE(readBytes(next, 12 + 614400 + 4) == streamPacket(0, pair));
    EXPECT_TRUE(readBytes(next, 12 + 921600 + 4) == streamPacket(3, disparity));
    sender.join();
}

// A port already taken never stops the module: the server still starts and stops.
TEST_F(ServerTest, APortAlreadyTakenLeavesTheServerRunning)
{
    Server failed("127.0.0.1", server.listeningPort());
    EXPECT_TRUE(failed.socketReady);
    EXPECT_EQ(log.count("server bind"), 1u);
}

}  // namespace
