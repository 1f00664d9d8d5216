#include "server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <chrono>
#include <cstring>

#include "binolog.h"
#include "littleendian.h"

#ifndef BINOCULAR_SERVER_ADDRESS
#error "BINOCULAR_SERVER_ADDRESS must be defined by the build (src/CMakeLists.txt)"
#endif

const char* const Server::kListenAddress = BINOCULAR_SERVER_ADDRESS;

namespace {

constexpr std::chrono::microseconds kRetryPause(1000000);
constexpr int kBacklog = 10;

}  // namespace

Server::Server(const std::string& address, int listenPort) : ip(address), port(listenPort)
{
    init();
    setServerSocket(ip, port);
    setThread();
}

Server::~Server() { uninit(); }

void Server::init()
{
    isConnected = false;
    socketReady = false;
    serverSocket.reset();
    std::atomic_store(&clientSocket, std::shared_ptr<SocketFd>());
}

void Server::setServerSocket(const std::string& address, int listenPort)
{
    // Close-on-exec: a program the host starts must not inherit the port.
    serverSocket.reset(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!serverSocket.isValid()) {
        BINO_ERROR("[BINOLIB] server socket create failed.");
        return;
    }
    const int reuse = 1;
    ::setsockopt(serverSocket.get(), SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);

    // A text that is not a dotted IPv4 address counts as a failed bind;
    // inet_addr would turn it into 255.255.255.255, which binds but is
    // unreachable, so the mistake would go unnoticed.
    sockaddr_in local = {};
    local.sin_family = AF_INET;
    local.sin_port = htons(static_cast<uint16_t>(listenPort));
    const bool valid =
        ::inet_pton(AF_INET, address.c_str(), &local.sin_addr) == 1 && listenPort >= 0 && listenPort <= 65535;
    if (!valid || ::bind(serverSocket.get(), reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) {
        BINO_ERROR("[BINOLIB] server bind %s:%d failed.", address.c_str(), listenPort);
    }
    if (::listen(serverSocket.get(), kBacklog) != 0) {
        BINO_ERROR("[BINOLIB] socket listen failed.");
    }
    // Also after a failed listen: the listen thread then keeps retrying and
    // logging, which is how the failure stays visible.
    socketReady = true;
}

void Server::setThread()
{
    if (!socketReady) {
        return;
    }
    listenThread = std::make_unique<StoppableThread>();
    listenThread->start([this] { listenFun(); }, [this] { serverSocket.shutdownBoth(); });
    recvThread = std::make_unique<StoppableThread>();
    recvThread->start([this] { recvFun(); },
                      [this] {
                          if (std::shared_ptr<SocketFd> client = std::atomic_load(&clientSocket)) {
                              client->shutdownBoth();
                          }
                      });
}

void Server::uninit()
{
    // The listen thread goes first, so no viewer is accepted after the
    // receive thread's wake-up has shut the current one down.
    if (listenThread) {
        listenThread->stop();
        listenThread.reset();
    }
    if (recvThread) {
        recvThread->stop();
        recvThread.reset();
    }
    std::atomic_store(&clientSocket, std::shared_ptr<SocketFd>());
    isConnected = false;
}

void Server::listenFun()
{
    while (!listenThread->stopping()) {
        if (isConnected) {
            listenThread->sleepFor(kRetryPause);
            continue;
        }
        const int fd = ::accept4(serverSocket.get(), nullptr, nullptr, SOCK_CLOEXEC);
        if (fd == -1) {
            if (listenThread->stopping()) {
                break;  // woken by uninit(), not a failure
            }
            isConnected = false;
            BINO_ERROR("[BINOLIB] server socket accept failed");
            listenThread->sleepFor(kRetryPause);
            continue;
        }
        // Published before the flag, so whoever sees the flag finds the socket.
        std::atomic_store(&clientSocket, std::make_shared<SocketFd>(fd));
        isConnected = true;
    }
}

void Server::recvFun()
{
    char buffer[255];
    while (!recvThread->stopping()) {
        std::shared_ptr<SocketFd> client = std::atomic_load(&clientSocket);
        if (!isConnected || !client) {
            recvThread->sleepFor(kRetryPause);
            continue;
        }
        std::memset(buffer, 0, sizeof buffer);
        const ssize_t received = ::recv(client->get(), buffer, sizeof buffer, MSG_NOSIGNAL);
        // 0 is the viewer's orderly close, or uninit() shutting the socket
        // down; any error just tries again (a reset reads as 0 next time).
        if (received == 0 && !recvThread->stopping()) {
            dropClient(std::move(client));
        }
    }
}

void Server::write(const void* data, int len, ServerDataType type)
{
    std::shared_ptr<SocketFd> client = std::atomic_load(&clientSocket);
    if (!isConnected || !client || len < 0 || (data == nullptr && len > 0)) {
        return;
    }
    le::store32(packetHead, PACKET_HEAD);
    le::store32(packetHead + 4, static_cast<uint32_t>(len));
    le::store32(packetHead + 8, type);
    le::store32(packetHead + streampacket::kHeadBytes, PACKET_TAIL);

    // Three blocking sends; a partial send is not resumed (the viewer
    // resynchronises on the next head marker). MSG_NOSIGNAL: a vanished
    // viewer gives EPIPE, never SIGPIPE to the host process.
    const int fd = client->get();
    const ssize_t head = ::send(fd, packetHead, streampacket::kHeadBytes, MSG_NOSIGNAL);
    const ssize_t payload = ::send(fd, data, static_cast<size_t>(len), MSG_NOSIGNAL);
    const ssize_t tail = ::send(fd, packetHead + streampacket::kHeadBytes, streampacket::kTailBytes, MSG_NOSIGNAL);

    // Only a 32-bit sum of exactly -1 counts as a disconnection; any other
    // failure is left to the receive thread, which sees the viewer's close.
    const uint32_t sum = static_cast<uint32_t>(head) + static_cast<uint32_t>(payload) + static_cast<uint32_t>(tail);
    if (sum == UINT32_MAX) {
        dropClient(std::move(client));
    }
}

int Server::listeningPort() const
{
    sockaddr_in local = {};
    socklen_t length = sizeof local;
    if (!serverSocket.isValid() ||
        ::getsockname(serverSocket.get(), reinterpret_cast<sockaddr*>(&local), &length) != 0) {
        return -1;
    }
    return ntohs(local.sin_port);
}

bool Server::dropClient(std::shared_ptr<SocketFd> expected)
{
    if (!std::atomic_compare_exchange_strong(&clientSocket, &expected, std::shared_ptr<SocketFd>())) {
        return false;
    }
    isConnected = false;
    BINO_INFO("[BINOLIB] client disconnected.");
    return true;
}
