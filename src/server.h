#pragma once
// The debug stream server of one camera pair: listens on a TCP port, accepts
// one viewer at a time and sends it framed packets (streampacket.h) while it
// is connected. Nothing the viewer sends is interpreted. Failures are logged
// and never stop the server; the pipeline only sees isConnected.
//
// Threads: the listen thread accepts a viewer whenever none is connected; the
// receive thread reads and discards what the viewer sends and notices its
// orderly close; write() is called by the pipeline's worker only.
//
// The connected viewer's socket is shared by all three: it is swapped in and
// out atomically, and whoever swaps it out (the receive thread on the
// viewer's close, write() on a failed packet) clears isConnected and logs the
// disconnection, exactly once per viewer. The descriptor is closed when the
// last thread using it lets go, so a send or recv never reaches a descriptor
// number that has been closed and reused elsewhere in the host process.

#include <atomic>
#include <memory>
#include <string>

#include "socketfd.h"
#include "stoppablethread.h"
#include "streampacket.h"

class Server {
public:
    /// The IPv4 address every server of this build listens on: the module
    /// computer's address on the ground link, set at configure time with
    /// BINOCULAR_SERVER_ADDRESS (default the loopback address).
    static const char* const kListenAddress;

    /// Binds to `address`:`listenPort` (0: a port the system picks) and
    /// starts both threads. A failed bind or listen is logged and the server
    /// runs all the same; a failed socket() leaves it without threads.
    Server(const std::string& address, int listenPort);
    /// Shuts the listening and the viewer's socket down, which wakes accept
    /// and recv, and joins both threads. The module never destroys its
    /// servers; tests and tools do. No write() may run concurrently.
    ~Server();

    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    void init();
    void setServerSocket(const std::string& address, int listenPort);
    /// Starts the listen thread, then the receive thread, if socketReady.
    void setThread();

    /// Sends one packet of `len` bytes of `data` if a viewer is connected;
    /// otherwise sends nothing and changes nothing. Blocks while the viewer's
    /// socket is full, so a slow viewer slows the caller. A negative `len`, or
    /// no data for a positive one, sends nothing. Worker thread only.
    void write(const void* data, int len, ServerDataType type);

    /// Stops and joins the listen thread, then the receive thread.
    void uninit();

    void listenFun();
    void recvFun();

    /// The port the listening socket is bound to; -1 without one. Any thread.
    int listeningPort() const;

    std::atomic<bool> isConnected{false};  ///< a viewer is connected; written by all three threads
    std::string ip;                        ///< dotted IPv4 address to listen on
    int port;                              ///< TCP port to listen on
    bool socketReady = false;              ///< listening socket set up; fixed before the threads start
    SocketFd serverSocket;                 ///< fixed before the threads start
    /// The connected viewer's socket, null when none. Read and written only
    /// through std::atomic_load/atomic_store/atomic_compare_exchange_strong.
    std::shared_ptr<SocketFd> clientSocket;
    std::unique_ptr<StoppableThread> listenThread;  ///< runs listenFun()
    std::unique_ptr<StoppableThread> recvThread;    ///< runs recvFun()
    /// The packet being sent: head marker, length, type (the 12-byte head),
    /// then the tail marker, little-endian. Written by write() only.
    unsigned char packetHead[streampacket::kHeadBytes + streampacket::kTailBytes] = {};

private:
    /// Clears the viewer if it is still `expected`; true (and logged) only
    /// for the thread that did.
    bool dropClient(std::shared_ptr<SocketFd> expected);
};
