// The socket owner closes exactly what it owns, once.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <utility>

#include "socketfd.h"

namespace {

bool isOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

TEST(SocketFd, MovingPassesOwnershipAndOnlyTheOwnerCloses)
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(fd, 0);
    {
        SocketFd first(fd);
        SocketFd second(std::move(first));
        EXPECT_EQ(first.get(), -1);
        SocketFd third;
        third = std::move(second);
        SocketFd& alias = third;
        third = std::move(alias);  // self-assignment keeps the descriptor
        EXPECT_EQ(third.get(), fd);
        EXPECT_TRUE(isOpen(fd));
    }
    EXPECT_FALSE(isOpen(fd));

    SocketFd released(socket(AF_INET, SOCK_STREAM, 0));
    const int kept = released.release();
    released.reset();
    EXPECT_TRUE(isOpen(kept));
    SocketFd adopted(kept);
    adopted.reset();
    EXPECT_FALSE(isOpen(kept));
    EXPECT_FALSE(adopted.isValid());
}

}  // namespace
