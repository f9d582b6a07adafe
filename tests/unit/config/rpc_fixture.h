// Shared test scaffolding: the event loop of the platform with a watchdog,
// and XML helpers.
#pragma once
#include <functional>
#include <mxml.h>
#include <string>
#include <gtest/gtest.h>
#include "platform/csock.h"
#include "platform/slab.h"
#include "platform/timeout.h"

struct LoopTest : ::testing::Test {
    size_t live0 = 0;
    void SetUp() override
    {
        live0 = slab_live_count();
        ASSERT_EQ(csock_init(), 0);
        ASSERT_EQ(timeout_init(), 0);
    }
    void TearDown() override
    {
        timeout_exit();
        csock_exit();
        EXPECT_EQ(slab_live_count(), live0);
    }
    // Runs the loop until cond holds; false when the watchdog fired first.
    static bool pump_until(const std::function<bool()> &cond, uint32_t seconds = 10)
    {
        static bool expired;
        expired = false;
        int wd = timeout_add([](void *, int) { expired = true; }, seconds, nullptr);
        while (!cond() && !expired)
            csock_select();
        timeout_del(wd);
        return cond();
    }
};

inline std::string render(mxml_node_t *x)
{
    char *t = mxmlSaveAllocString(x, MXML_NO_CALLBACK);
    std::string s = t ? t : "";
    free(t);
    return s;
}
