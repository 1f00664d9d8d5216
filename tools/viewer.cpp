// viewer: the ground-side viewer of a camera pair's debug stream. See usage()
// in vieweroptions.cpp for the options.

#include <netdb.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <opencv2/highgui.hpp>

#include "packetparser.h"
#include "socketfd.h"
#include "streamview.h"
#include "vieweroptions.h"

namespace {

using Clock = std::chrono::steady_clock;

volatile sig_atomic_t g_stop = 0;

void requestStop(int) { g_stop = 1; }

void installSignalHandlers()
{
    struct sigaction action = {};
    action.sa_handler = requestStop;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

// A connected socket, or an invalid one if the module is not listening.
SocketFd connectTo(const viewer::Options& options)
{
    addrinfo hints = {};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(options.host.c_str(), std::to_string(options.port).c_str(), &hints, &found) != 0) {
        return SocketFd();
    }
    SocketFd connection;
    for (const addrinfo* candidate = found; candidate != nullptr; candidate = candidate->ai_next) {
        SocketFd attempt(socket(candidate->ai_family, candidate->ai_socktype | SOCK_CLOEXEC, candidate->ai_protocol));
        if (attempt.isValid() && connect(attempt.get(), candidate->ai_addr, candidate->ai_addrlen) == 0) {
            connection = std::move(attempt);
            break;
        }
    }
    freeaddrinfo(found);
    return connection;
}

class Viewer {
public:
    explicit Viewer(const viewer::Options& options)
        : m_options(options), m_view(cv::Size(options.cols, options.rows)), m_lastStatus(Clock::now())
    {
        const char* display = std::getenv("DISPLAY");
        m_window = options.window && display != nullptr && *display != '\0';
        m_title = "viewer " + options.host + ":" + std::to_string(options.port);
        if (m_window) {
            cv::namedWindow(m_title, cv::WINDOW_AUTOSIZE);
            cv::imshow(m_title, m_view.render());
        }
    }

    bool finished() const { return g_stop || m_quit; }

    // Connects again and again until stopped; one connection at a time.
    void run()
    {
        bool announced = false;
        while (!finished()) {
            SocketFd connection = connectTo(m_options);
            if (!connection.isValid()) {
                if (!announced) {
                    std::printf("waiting for %s:%d\n", m_options.host.c_str(), m_options.port);
                    std::fflush(stdout);
                    announced = true;
                }
                idle(std::chrono::seconds(1));
                continue;
            }
            announced = false;
            std::printf("connected to %s:%d\n", m_options.host.c_str(), m_options.port);
            std::fflush(stdout);
            m_parser.reset();
            m_view.dropPair();
            receive(connection);
            if (!finished()) {
                std::printf("disconnected from %s:%d, connecting again\n", m_options.host.c_str(), m_options.port);
                std::fflush(stdout);
            }
        }
        printStatus();
    }

private:
    // Until the module closes the connection or the viewer is stopped.
    void receive(const SocketFd& connection)
    {
        std::vector<unsigned char> chunk(1 << 16);
        PacketParser::Packet packet;
        while (!finished()) {
            pollfd ready{connection.get(), POLLIN, 0};
            const int events = poll(&ready, 1, 100);
            if (events > 0) {
                const ssize_t n = recv(connection.get(), chunk.data(), chunk.size(), 0);
                if (n == 0 || (n < 0 && errno != EINTR && errno != EAGAIN)) {
                    return;
                }
                if (n > 0) {
                    m_parser.feed(chunk.data(), static_cast<size_t>(n));
                }
                while (!finished() && m_parser.next(packet)) {
                    handle(packet);
                }
            }
            tick();
        }
    }

    void handle(const PacketParser::Packet& packet)
    {
        switch (m_view.take(packet)) {
            case StreamView::Taken::WrongSize:
                ++m_wrongSize;
                m_lastWrongLength = packet.payload.size();
                return;
            case StreamView::Taken::Frame:
                ++m_framesThisSecond;
                frameDone();
                return;
            case StreamView::Taken::Disparity:
                show();
                return;
            default:
                return;
        }
    }

    void frameDone()
    {
        const uint64_t frame = m_view.frames;
        const bool snapshot = !m_options.snapshotDir.empty() &&
                              (m_options.snapshotEvery == 0 ? frame == 1 : frame % m_options.snapshotEvery == 0);
        std::string error;
        if (snapshot && !m_view.writeSnapshot(m_options.snapshotDir, error)) {
            std::fprintf(stderr, "viewer: %s\n", error.c_str());
        }
        show();
        if (m_options.frames > 0 && frame >= m_options.frames) {
            m_quit = true;
        }
    }

    void show()
    {
        if (m_window) {
            cv::imshow(m_title, m_view.render());
        }
    }

    // Window events, the once-a-second status line.
    void tick()
    {
        if (m_window) {
            const int key = cv::waitKey(1);
            if (key == 'q' || key == 27 || cv::getWindowProperty(m_title, cv::WND_PROP_VISIBLE) < 1) {
                m_quit = true;
            }
        }
        const auto now = Clock::now();
        if (now - m_lastStatus >= std::chrono::seconds(1)) {
            const double seconds = std::chrono::duration<double>(now - m_lastStatus).count();
            m_rate = static_cast<double>(m_framesThisSecond) / seconds;
            m_framesThisSecond = 0;
            m_lastStatus = now;
            printStatus();
        }
    }

    void idle(std::chrono::milliseconds duration)
    {
        const auto end = Clock::now() + duration;
        while (!finished() && Clock::now() < end) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            tick();
        }
    }

    void printStatus()
    {
        if (m_view.frames == 0) {
            std::printf("no frames yet");
        } else {
            std::printf("distance %.2f m, %.1f frames/s, %llu frames", static_cast<double>(m_view.distanceM), m_rate,
                        static_cast<unsigned long long>(m_view.frames));
        }
        std::printf(", %llu bytes skipped", static_cast<unsigned long long>(m_parser.skippedBytes()));
        if (m_wrongSize > 0) {
            std::printf(", %llu packets do not fit --size %dx%d (last payload %zu bytes)",
                        static_cast<unsigned long long>(m_wrongSize), m_options.cols, m_options.rows,
                        m_lastWrongLength);
        }
        std::printf("\n");
        std::fflush(stdout);
    }

    viewer::Options m_options;
    StreamView m_view;
    PacketParser m_parser;
    bool m_window = false;
    std::string m_title;
    bool m_quit = false;
    Clock::time_point m_lastStatus;
    uint64_t m_framesThisSecond = 0;
    double m_rate = 0.0;
    uint64_t m_wrongSize = 0;
    size_t m_lastWrongLength = 0;
};

}  // namespace

int main(int argc, char** argv)
{
    viewer::Options options;
    std::string error;
    switch (viewer::parseOptions(std::vector<std::string>(argv + 1, argv + argc), options, error)) {
        case viewer::ParseResult::Help:
            std::fputs(viewer::usage().c_str(), stdout);
            return 0;
        case viewer::ParseResult::Error:
            std::fprintf(stderr, "viewer: %s\nTry 'viewer --help'.\n", error.c_str());
            return 2;
        case viewer::ParseResult::Run:
            break;
    }
    installSignalHandlers();
    Viewer(options).run();
    return 0;
}
