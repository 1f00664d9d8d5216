// The debug stream server against viewers made of plain loopback sockets: the
// bytes on the wire, one viewer at a time, viewers that vanish or stall, and
// bind failures. Each server listens on a port the system picks.

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <thread>
#include <vector>

#include "server.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<unsigned char>;

bool waitUntil(const std::function<bool()>& condition)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

// A viewer socket connected to 127.0.0.1:port; every recv gives up after 10 s.
SocketFd connectViewer(int port, int receiveBufferBytes = 0)
{
    SocketFd viewer(socket(AF_INET, SOCK_STREAM, 0));
    const timeval timeout{10, 0};
    setsockopt(viewer.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    if (receiveBufferBytes > 0) {
        setsockopt(viewer.get(), SOL_SOCKET, SO_RCVBUF, &receiveBufferBytes, sizeof receiveBufferBytes);
    }
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
    while (done < count) {
        const ssize_t n = recv(viewer.get(), bytes.data() + done, count - done, 0);
        if (n <= 0) {
            break;
        }
        done += static_cast<size_t>(n);
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
    int port = server.listeningPort();

    void write(const Bytes& payload, ServerDataType type)
    {
        server.write(payload.data(), static_cast<int>(payload.size()), type);
    }
    SocketFd connected(int receiveBufferBytes = 0)
    {
        SocketFd viewer = connectViewer(port, receiveBufferBytes);
        EXPECT_TRUE(waitUntil([&] { return server.isConnected.load(); }));
        return viewer;
    }
};

// Given a 640 x 480 frame, when the pair and the disparity are written, then
// the viewer reads a type-0 packet of 12 + 614400 + 4 bytes, then a type-3
// packet of 12 + 921600 + 4 bytes, byte for byte, the distance in front.
TEST_F(ServerTest, AFrameIsAPairPacketThenADisparityPacket)
{
    ASSERT_GT(port, 0);
    SocketFd viewer = connected();
    const Bytes pair = pattern(2 * 640 * 480, 1);
    Bytes disparity = pattern(3 * 640 * 480, 2);
    const float distance = 7.25f;  // 0x40E80000
    const Bytes distanceBytes = {0x00, 0x00, 0xE8, 0x40};
    std::copy(distanceBytes.begin(), distanceBytes.end(), disparity.begin());
    std::thread worker([&] {
        write(pair, STEREO_PAIR);
        write(disparity, DISPARITY_COLOR);
    });
    const Bytes first = readBytes(viewer, 12 + 614400 + 4);
    const Bytes second = readBytes(viewer, 12 + 921600 + 4);
    worker.join();
    EXPECT_TRUE(first == testsupport::streamPacket(0, pair));
    EXPECT_TRUE(second == testsupport::streamPacket(3, disparity));
    ASSERT_EQ(second.size(), 12u + 921600u + 4u);
    float decoded = 0;
    std::memcpy(&decoded, second.data() + 12, sizeof decoded);
    EXPECT_EQ(decoded, distance);
}

// Without a viewer write sends nothing and changes nothing: the first bytes a
// later viewer reads are the first packet written after it connected.
TEST_F(ServerTest, WithoutAViewerWriteDoesNothing)
{
    write(pattern(100, 3), STEREO_PAIR);
    EXPECT_FALSE(server.isConnected);
    EXPECT_EQ(Bytes(std::begin(server.packetHead), std::end(server.packetHead)), Bytes(16, 0));
    SocketFd viewer = connected();
    const Bytes payload = pattern(10, 4);
    write(payload, DISPARITY_COLOR);
    EXPECT_TRUE(readBytes(viewer, 26) == testsupport::streamPacket(3, payload));
}

// A second viewer waits in the backlog and gets nothing until the first
// closes; the close is logged once and the second is then served.
TEST_F(ServerTest, OneViewerAtATimeAndEachCloseLoggedOnce)
{
    SocketFd first = connected();
    SocketFd second = connectViewer(port);
    const Bytes payload = pattern(64, 5);
    write(payload, STEREO_PAIR);
    EXPECT_TRUE(readBytes(first, 80) == testsupport::streamPacket(0, payload));
    char byte = 0;
    EXPECT_EQ(recv(second.get(), &byte, 1, MSG_DONTWAIT), -1);

    first.reset();
    ASSERT_TRUE(waitUntil([&] { return log.count("[BINOLIB] client disconnected.") == 1; }));
    ASSERT_TRUE(waitUntil([&] { return server.isConnected.load(); }));
    write(payload, STEREO_PAIR);
    EXPECT_TRUE(readBytes(second, 80) == testsupport::streamPacket(0, payload));
    EXPECT_EQ(log.count("[BINOLIB] client disconnected."), 1u);
}

// A viewer that stops reading holds the writer back (40 MiB cannot fit in
// the socket buffers); when it then vanishes mid-packet, the writer gets
// errors instead of SIGPIPE, finishes, and the next viewer is served.
TEST_F(ServerTest, AStalledThenVanishedViewerNeverStopsTheServer)
{
    constexpr int kWrites = 40;
    SocketFd stalled = connected(65536);
    const Bytes big = pattern(1 << 20, 6);
    std::atomic<int> writesDone{0};
    std::thread worker([&] {
        for (int i = 0; i < kWrites; ++i) {
            write(big, STEREO_PAIR);
            ++writesDone;
        }
    });
    EXPECT_EQ(readBytes(stalled, 12 + 1000).size(), 1012u);
    EXPECT_LT(writesDone.load(), kWrites);
    stalled.reset();  // unread data: the viewer's side resets the connection
    EXPECT_TRUE(waitUntil([&] { return writesDone.load() == kWrites; }));
    worker.join();
    ASSERT_TRUE(waitUntil([&] { return log.count("[BINOLIB] client disconnected.") == 1; }));

    SocketFd next = connected();
    const Bytes payload = pattern(32, 7);
    write(payload, DISPARITY_COLOR);
    EXPECT_TRUE(readBytes(next, 48) == testsupport::streamPacket(3, payload));
}

// A failed bind is logged with the address and port, and the server still
// starts and stops cleanly.
TEST(ServerSetup, BindFailuresAreLoggedAndTheServerGoesOn)
{
    testsupport::LogCapture log;
    Server holder("127.0.0.1", 0);
    const int taken = holder.listeningPort();
    const struct {
        const char* address;
        int port;
    } cases[] = {{"127.0.0.1", taken}, {"256.1.2.3", 0}, {"127.0.0.1", 70000}};
    for (const auto& bad : cases) {
        const std::string expected =
            "[BINOLIB] server bind " + std::string(bad.address) + ":" + std::to_string(bad.port) + " failed.";
        SCOPED_TRACE(expected);
        log.clear();
        Server server(bad.address, bad.port);
        EXPECT_TRUE(server.socketReady);
        const std::vector<binolog::Record> records = log.records();
        const auto line = std::find_if(records.begin(), records.end(),
                                       [&](const binolog::Record& record) { return record.message == expected; });
        ASSERT_NE(line, records.end());
        EXPECT_EQ(line->level, binolog::ERROR);
        EXPECT_EQ(log.count("server bind"), 1u);
    }
    EXPECT_EQ(holder.listeningPort(), taken);
}

}  // namespace
