// The two camera pairs' servers on their fixed ports and the build's address.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <thread>

#include "server.h"
#include "test_support.h"

namespace {

TEST(ServerPorts, FrontAndDownAcceptViewersOnTheBuildsAddress)
{
    testsupport::ScratchRoot root;
    for (int port : {streampacket::kFrontPort, streampacket::kDownPort}) {
        SCOPED_TRACE(port);
        Server server(Server::kListenAddress, port);
        ASSERT_EQ(server.listeningPort(), port);
        SocketFd viewer(socket(AF_INET, SOCK_STREAM, 0));
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = inet_addr(Server::kListenAddress);
        address.sin_port = htons(static_cast<uint16_t>(port));
        ASSERT_EQ(connect(viewer.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        for (int i = 0; i < 1000 && !server.isConnected; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        EXPECT_TRUE(server.isConnected);
    }
}

}  // namespace
