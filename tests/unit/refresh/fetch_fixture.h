// Helpers of the tests of the fetching children: real children started by
// the fetch module (fake_fetcher, whose URL picks a scripted or hostile
// behaviour, or kelp-fetch itself), the loop turned until the outcomes have
// come, and the outcomes as plain values.
#pragma once
#include "feed/kd_node.h"
#include "platform/csock.h"
#include "platform/slab.h"
#include "platform/timeout.h"
#include "refresh/kd_fetch.h"
#include "refresh/kd_fetch_spare.h"
#include "refresh/kd_fetch_wire.h"
#include "tests/unit/log_capture.h"
#include "tests/unit/refresh/descriptors.h"
#include "util/kd_log.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <sys/stat.h>
#include <cstdlib>
#include <dirent.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace kelp_test {

// What the poll's second half was handed.
struct fetch_outcome {
    const kd_node *feed;
    std::string url;
    int code;
    std::string body;
    bool has_body;
    std::string content_type, location, content_encoding;
};

inline std::vector<fetch_outcome> &outcomes()
{
    static std::vector<fetch_outcome> v;
    return v;
}

inline std::string or_none(const char *s) { return s ? s : "(none)"; }

inline void record_outcome(kd_node *feed, const char *url, int code, httpcli_buffer *resp, http_result *res)
{
    outcomes().push_back({feed, url, code, resp->start ? std::string(resp->start, resp->len) : "",
                          resp->start != nullptr, or_none(res->content_type), or_none(res->location),
                          or_none(res->content_encoding)});
    kd_log(LOG_INFO, "outcome of %s: %d", url, code);
}

// Children of this process (every thread's), by pid.
inline std::vector<pid_t> my_children()
{
    std::vector<pid_t> pids;
    DIR *d = opendir("/proc/self/task");
    for (dirent *t; d && (t = readdir(d));) {
        std::string path = std::string("/proc/self/task/") + t->d_name + "/children";
        if (FILE *f = fopen(path.c_str(), "r")) {
            for (int pid; fscanf(f, "%d", &pid) == 1;)
                pids.push_back(pid);
            fclose(f);
        }
    }
    if (d)
        closedir(d);
    return pids;
}

// The children that run fetches: every child but the spare.
inline std::vector<pid_t> fetchers()
{
    std::vector<pid_t> pids = my_children();
    std::erase(pids, kd_spare_pid());
    return pids;
}

inline size_t open_descriptors()
{
    size_t n = 0;
    DIR *d = opendir("/proc/self/fd");
    while (d && readdir(d))
        n++;
    if (d)
        closedir(d);
    return n;
}

// A program the fetch module can start: itself, or under an emulator (cross
// builds) a script that runs it there, since the kernel cannot.
inline std::string launchable(const char *program)
{
    std::string emulator = KELP_TEST_EMULATOR;
    if (emulator.empty())
        return program;
    std::string base = program;
    std::string script = "/tmp/kelp-emulated-" + std::to_string(getpid()) + "-" + base.substr(base.rfind('/') + 1);
    FILE *f = fopen(script.c_str(), "w");
    if (f) {
        fprintf(f, "#!/bin/sh\nexec %s %s \"$@\"\n", emulator.c_str(), program);
        fclose(f);
        chmod(script.c_str(), 0755);
    }
    return script;
}

class fetch_test : public ::testing::Test {
protected:
    kd_node feeds[8] = {};
    size_t baseline = 0;
    kd_fetch_hooks hooks = kd_fetch_default_hooks();
    std::string fake = launchable(KELP_FAKE_FETCHER);

    void SetUp() override
    {
        ASSERT_EQ(csock_init(), 0);
        ASSERT_EQ(timeout_init(), 0);
        // As in the daemon: the kernel reaps the children.
        signal(SIGCHLD, SIG_IGN);
        verbosity = 4;
        outcomes().clear();
        captured_log().clear();
        hooks.deadline_ms = 30000;
        hooks.program = fake.c_str();
        kd_fetch_set_hooks(&hooks);
        baseline = slab_live_count();
    }

    void TearDown() override
    {
        kd_fetch_cancel_all();
        await_no_children(); // the next test counts its own
        signal(SIGCHLD, SIG_DFL); // death tests wait for their children
        kd_fetch_set_hooks(nullptr);
        if (fake != KELP_FAKE_FETCHER)
            unlink(fake.c_str());
        timeout_exit();
        csock_exit();
        EXPECT_EQ(slab_live_count(), baseline);
        verbosity = 0;
    }

    // Settings changed after SetUp take effect here.
    void apply() { kd_fetch_set_hooks(&hooks); }

    // The fake child's URL says what it does.
    void start(int i, const char *url = "serve")
    {
        kd_fetch_start(&feeds[i], url, httpcli_ctx{nullptr, 0, 3, 3.0f}, record_outcome);
    }

    // Turns the loop until `n` outcomes have come; a bound of a minute keeps
    // a broken child from hanging the test (a failure, not a measurement).
    void await(size_t n)
    {
        auto until = std::chrono::steady_clock::now() + std::chrono::minutes(1);
        while (outcomes().size() < n && std::chrono::steady_clock::now() < until)
            csock_select();
        ASSERT_EQ(outcomes().size(), n);
    }

    // Turns the loop until cond() holds, a minute at most; a tick keeps the
    // loop turning when nothing else is due.
    template <class Cond>
    void turn_until(Cond cond)
    {
        int tick = timeout_add_ms([](void *, int) {}, 10, nullptr, 1);
        auto until = std::chrono::steady_clock::now() + std::chrono::minutes(1);
        while (!cond() && std::chrono::steady_clock::now() < until)
            csock_select();
        timeout_del(tick);
        ASSERT_TRUE(cond());
    }

    // Turns the loop for `ms` milliseconds, whatever comes meanwhile.
    void turn_for(uint32_t ms)
    {
        bool over = false;
        timeout_add_ms([](void *p, int) { *static_cast<bool *>(p) = true; }, ms, &over);
        turn_until([&] { return over; });
    }

    // The single outcome of a fetch run to its end.
    fetch_outcome fetch_once(const char *url = "serve")
    {
        start(0, url);
        await(1);
        return outcomes().empty() ? fetch_outcome{} : outcomes()[0];
    }

    // Waits until every child has gone (the kernel reaps them).
    static void await_no_children()
    {
        auto until = std::chrono::steady_clock::now() + std::chrono::minutes(1);
        while (!my_children().empty() && std::chrono::steady_clock::now() < until)
            usleep(1000);
        EXPECT_TRUE(my_children().empty());
    }
};

} // namespace kelp_test
