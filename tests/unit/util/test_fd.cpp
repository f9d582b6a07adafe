// kd_unique_fd: the descriptor is closed exactly when its last owner goes.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>
#include <utility>

#include "util/kd_fd.h"

namespace {

bool is_open(int fd)
{
    return fcntl(fd, F_GETFD) != -1;
}

TEST(UniqueFd, ClosesTheDescriptorAtTheEndOfItsScope)
{
    int raw = open("/dev/null", O_RDONLY);
    ASSERT_GE(raw, 0);
    {
        kd_unique_fd fd(raw);
        EXPECT_TRUE(static_cast<bool>(fd));
        EXPECT_EQ(fd.get(), raw);
        EXPECT_TRUE(is_open(raw));
    }
    EXPECT_FALSE(is_open(raw));
}

TEST(UniqueFd, ReleasedDescriptorStaysOpen)
{
    int raw = open("/dev/null", O_RDONLY);
    ASSERT_GE(raw, 0);
    {
        kd_unique_fd fd(raw);
        EXPECT_EQ(fd.release(), raw);
        EXPECT_FALSE(static_cast<bool>(fd));
    }
    EXPECT_TRUE(is_open(raw));
    close(raw);
}

TEST(UniqueFd, MovedDescriptorIsClosedOnceByItsNewOwner)
{
    int raw = open("/dev/null", O_RDONLY);
    ASSERT_GE(raw, 0);
    {
        kd_unique_fd outer;
        {
            kd_unique_fd inner(raw);
            kd_unique_fd moved(std::move(inner));
            EXPECT_EQ(inner.get(), -1);
            outer.fd = moved.release();
        }
        EXPECT_TRUE(is_open(raw));
    }
    EXPECT_FALSE(is_open(raw));
}

TEST(UniqueFd, EmptyOwnerClosesNothing)
{
    kd_unique_fd fd;
    EXPECT_FALSE(static_cast<bool>(fd));
    EXPECT_EQ(fd.release(), -1);
}

} // namespace
