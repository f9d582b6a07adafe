// Internet status from routing tables: parsing of /proc/net/route and
// /proc/net/ipv6_route texts, and agreement with the live tables.
#include "platform/dsldstat.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <fstream>
#include <linux/if_tun.h>
#include <net/if.h>
#include <net/route.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <unistd.h>

namespace {

const char kRoute4Header[] =
    "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT   \n";

std::string route4(const char *dest, const char *flags, const char *mask, const char *iface = "eth0")
{
    return std::string(iface) + "\t" + dest + "\t010200C0\t" + flags + "\t0\t0\t0\t" + mask + "\t0\t0\t0      \n";
}

const char kV6Zero[] = "00000000000000000000000000000000";

std::string route6(const char *dest, const char *plen, const char *flags, const char *iface = "eth0")
{
    return std::string(dest) + " " + plen + " " + kV6Zero + " 00 " + kV6Zero + " 00000400 00000002 00000000 " +
           flags + "     " + iface + "\n";
}

TEST(Dsldstat, Ipv4DefaultRouteIsUsable)
{
    std::string t = std::string(kRoute4Header) + route4("00000000", "0003", "00000000") +
                    route4("000200C0", "0001", "00FFFFFF");
    EXPECT_EQ(dsldstat_parse_route4(t), 1);
}

TEST(Dsldstat, Ipv4WithoutDefaultRouteIsNot)
{
    std::string t = std::string(kRoute4Header) + route4("000200C0", "0001", "00FFFFFF");
    EXPECT_EQ(dsldstat_parse_route4(t), 0);
    EXPECT_EQ(dsldstat_parse_route4(kRoute4Header), 0);
    EXPECT_EQ(dsldstat_parse_route4(""), 0);
}

TEST(Dsldstat, Ipv4DefaultMustBeUpAndNotReject)
{
    std::string head = kRoute4Header;
    EXPECT_EQ(dsldstat_parse_route4(head + route4("00000000", "0002", "00000000")), 0);  // not up
    EXPECT_EQ(dsldstat_parse_route4(head + route4("00000000", "0201", "00000000")), 0);  // unreachable
    EXPECT_EQ(dsldstat_parse_route4(head + route4("00000000", "0001", "00000000", "lo")), 1);
}

TEST(Dsldstat, Ipv4ZeroDestinationWithNonZeroMaskIsNoDefault)
{
    std::string t = std::string(kRoute4Header) + route4("00000000", "0001", "000000FF");
    EXPECT_EQ(dsldstat_parse_route4(t), 0);
}

TEST(Dsldstat, Ipv4LastLineWithoutNewline)
{
    std::string t = std::string(kRoute4Header) + "eth0\t00000000\t00000000\t0001\t0\t0\t0\t00000000\t0\t0\t0";
    EXPECT_EQ(dsldstat_parse_route4(t), 1);
}

TEST(Dsldstat, GarbageIsNoRoute)
{
    EXPECT_EQ(dsldstat_parse_route4("eth0 00000000\n\n\t\n00000000 00000000 zz 00000000\n"), 0);
    EXPECT_EQ(dsldstat_parse_route4("eth0\t00000000\t0\tXYZ1\t0\t0\t0\t00000000\n"), 0);
    EXPECT_EQ(dsldstat_parse_route6("garbage\n0 0 0\n"), 0);
}

TEST(Dsldstat, Ipv6DefaultRouteIsUsable)
{
    std::string t = route6("fd000000000000000000000000000000", "40", "00000001") +
                    route6(kV6Zero, "00", "00000003");
    EXPECT_EQ(dsldstat_parse_route6(t), 1);
}

TEST(Dsldstat, Ipv6DefaultOnAnyDeviceCounts)
{
    EXPECT_EQ(dsldstat_parse_route6(route6(kV6Zero, "00", "00000001", "lo")), 1);
}

TEST(Dsldstat, Ipv6RejectDefaultDoesNotCount)
{
    // The kernel's own unreachable entry, always listed on lo.
    std::string t = route6("00000000000000000000000000000001", "80", "80200001", "lo") +
                    route6(kV6Zero, "00", "00200200", "lo");
    EXPECT_EQ(dsldstat_parse_route6(t), 0);
}

TEST(Dsldstat, Ipv6OtherPrefixesAreNoDefault)
{
    EXPECT_EQ(dsldstat_parse_route6(route6(kV6Zero, "01", "00000001")), 0);
    EXPECT_EQ(dsldstat_parse_route6(route6("20000000000000000000000000000000", "00", "00000001")), 0);
}

std::string slurp(const char *path)
{
    std::ifstream f(path);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

TEST(Dsldstat, LiveAnswerFollowsTheKernelTables)
{
    int expected = dsldstat_parse_route4(slurp("/proc/net/route")) ||
                   dsldstat_parse_route6(slurp("/proc/net/ipv6_route"));
    EXPECT_EQ(dsldstat_internet_usable(), expected);
}

TEST(Dsldstat, InitOpensNothing)
{
    int probe = dup(0);
    close(probe);
    EXPECT_EQ(dsldstat_init(), 0);
    int again = dup(0);
    close(again);
    EXPECT_EQ(again, probe);
    dsldstat_exit();
}

// Helpers for a child in its own network namespace, which starts without any
// route; each returns false when the kernel refused.
bool link_up(const char *name)
{
    int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq ifr{};
    strncpy(ifr.ifr_name, name, IFNAMSIZ - 1);
    bool ok = s >= 0 && ioctl(s, SIOCGIFFLAGS, &ifr) == 0;
    ifr.ifr_flags |= IFF_UP;
    ok = ok && ioctl(s, SIOCSIFFLAGS, &ifr) == 0;
    close(s);
    return ok;
}

bool default_route4(unsigned long request)
{
    int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    rtentry rt{};
    for (sockaddr *a : {&rt.rt_dst, &rt.rt_genmask})
        reinterpret_cast<sockaddr_in *>(a)->sin_family = AF_INET;
    rt.rt_flags = RTF_UP;
    char dev[] = "lo";
    rt.rt_dev = dev;
    bool ok = s >= 0 && ioctl(s, request, &rt) == 0;
    close(s);
    return ok;
}

// A tunnel device that lives as long as the returned descriptor, or -1.
int tunnel(const char *name)
{
    int fd = open("/dev/net/tun", O_RDWR | O_CLOEXEC);
    ifreq ifr{};
    strncpy(ifr.ifr_name, name, IFNAMSIZ - 1);
    ifr.ifr_flags = IFF_TUN | IFF_NO_PI;
    if (fd < 0 || ioctl(fd, TUNSETIFF, &ifr) != 0 || !link_up(name))
        return -1;
    return fd;
}

bool default_route6(unsigned long request, const char *dev)
{
    int s = socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    in6_rtmsg rt{};
    rt.rtmsg_flags = RTF_UP;
    rt.rtmsg_metric = 1;
    rt.rtmsg_ifindex = static_cast<int>(if_nametoindex(dev));
    bool ok = s >= 0 && ioctl(s, request, &rt) == 0;
    close(s);
    return ok;
}

// Exit codes name the step that went wrong.
int usable_follows_the_routes()
{
    if (unshare(CLONE_NEWNET) != 0)
        return 2;
    if (dsldstat_internet_usable() != 0 || !link_up("lo") || dsldstat_internet_usable() != 0)
        return 3;
    if (!default_route4(SIOCADDRT) || dsldstat_internet_usable() != 1)
        return 4;
    if (!default_route4(SIOCDELRT) || dsldstat_internet_usable() != 0)
        return 5;
    // The kernel turns an IPv6 route through lo into a reject route.
    if (!default_route6(SIOCADDRT, "lo") || dsldstat_internet_usable() != 0)
        return 6;
    if (tunnel("kelp0") < 0 || !default_route6(SIOCADDRT, "kelp0") || dsldstat_internet_usable() != 1)
        return 7;
    if (!default_route6(SIOCDELRT, "kelp0") || dsldstat_internet_usable() != 0)
        return 8;
    return 0;
}

TEST(DsldstatDeathTest, EachCallReadsTheCurrentDefaultRoutes)
{
    // A private network namespace (the tests run as root) whose routes the test sets.
    EXPECT_EXIT(exit(usable_follows_the_routes()), ::testing::ExitedWithCode(0), "");
}

} // namespace
