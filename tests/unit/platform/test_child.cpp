// Workers' job input: a job in two parts, the second sent later through the
// input child_spawn left open, and a second part sent to a worker that has
// gone, which fails without raising SIGPIPE in the daemon.
#include "platform/child.h"

#include <climits>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// A worker from a shell script, removed again when the test ends.
class child_test : public ::testing::Test {
protected:
    std::string path = "/tmp/kelp-test-worker-" + std::to_string(getpid());

    void SetUp() override { signal(SIGCHLD, SIG_DFL); } // the exit is waited for here

    void TearDown() override { unlink(path.c_str()); }

    void script(const char *body)
    {
        FILE *f = fopen(path.c_str(), "w");
        ASSERT_NE(f, nullptr);
        fprintf(f, "#!/bin/sh\n%s\n", body);
        fclose(f);
        chmod(path.c_str(), 0755);
    }

    // Everything the worker wrote to its result pipe, once it has ended.
    static std::string drain(int fd)
    {
        fcntl(fd, F_SETFL, 0);
        std::string out;
        char buf[256];
        for (ssize_t n; (n = read(fd, buf, sizeof buf)) > 0;)
            out.append(buf, static_cast<size_t>(n));
        close(fd);
        return out;
    }
};

TEST_F(child_test, TheRestOfAJobFollowsItsFirstPartOnTheSameInput)
{
    script("cat >&3");
    int rfd = -1, more = -1;
    pid_t pid = child_spawn(path.c_str(), "who\n", 4, &rfd, &more);
    ASSERT_GT(pid, 0);
    ASSERT_GE(more, 0);
    EXPECT_TRUE(child_send_rest(more, "what\n", 5));
    EXPECT_EQ(drain(rfd), "who\nwhat\n");
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(child_test, WithoutMoreTheInputEndsAfterTheJob)
{
    script("cat >&3");
    int rfd = -1;
    pid_t pid = child_spawn(path.c_str(), "whole job", 9, &rfd);
    ASSERT_GT(pid, 0);
    EXPECT_EQ(drain(rfd), "whole job");
    ASSERT_EQ(waitpid(pid, nullptr, 0), pid);
}

TEST_F(child_test, TheRestSentToAWorkerThatHasGoneFailsWithoutSigpipe)
{
    script("exit 0");
    int rfd = -1, more = -1;
    pid_t pid = child_spawn(path.c_str(), "who", 3, &rfd, &more);
    ASSERT_GT(pid, 0);
    ASSERT_EQ(waitpid(pid, nullptr, 0), pid);
    // SIGPIPE at its default would end this process here.
    EXPECT_FALSE(child_send_rest(more, "what", 4));
    sigset_t pending;
    sigpending(&pending);
    EXPECT_FALSE(sigismember(&pending, SIGPIPE));
    close(rfd);
}

TEST_F(child_test, ARestLongerThanAPipeHoldsIsRefused)
{
    script("cat >/dev/null");
    int rfd = -1, more = -1;
    pid_t pid = child_spawn(path.c_str(), "who", 3, &rfd, &more);
    ASSERT_GT(pid, 0);
    std::string rest(PIPE_BUF + 1, 'x');
    EXPECT_FALSE(child_send_rest(more, rest.data(), rest.size()));
    EXPECT_EQ(drain(rfd), "");
    ASSERT_EQ(waitpid(pid, nullptr, 0), pid);
}

} // namespace
