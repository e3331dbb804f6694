// Netwatch: offers compared and described; the messages that wake the launcher, written by hand to a
// datagram socket; messages lost to a full queue. tests/serve/follow runs the launcher through real
// network changes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "netwatch/netwatch.h"

namespace {

/// An offer of `addresses`, with `beyond` in the first slot past its count.
NetOffer offer_of(std::initializer_list<const char *> addresses, const char *beyond = "")
{
    NetOffer offer{};
    for (const char *address : addresses)
        snprintf(offer.addresses[offer.count++].data(), 16, "%s", address);
    snprintf(offer.addresses[offer.count].data(), 16, "%s", beyond);
    return offer;
}

/// netwatch_describe's text for a buffer of `size` bytes, first filled with '#' (600 of them at most).
std::string described(const NetOffer &offer, int size = 600)
{
    std::string text(600, '#');
    netwatch_describe(offer, text.data(), std::min(size, 600));
    return text.substr(0, text.find('\0'));
}

TEST(NetwatchOffer, SameMeansTheSameAddressesInTheSameOrder) {
    const char *a = "192.168.1.20", *b = "10.0.0.5";
    const NetOffer two = offer_of({a, b});
    const struct { const char *what; NetOffer other; int same; } cases[] = {
        {"the same", offer_of({a, b}), 1}, {"what lies beyond the count", offer_of({a, b}, "10.9.9.9"), 1},
        {"swapped", offer_of({b, a}), 0}, {"one more", offer_of({a, b, "10.0.0.6"}), 0},
        {"one fewer", offer_of({a}), 0}, {"one differs", offer_of({a, "10.0.0.50"}), 0},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(netwatch_same(two, c.other), c.same) << c.what;
        EXPECT_EQ(netwatch_same(c.other, two), c.same) << c.what;
    }
    EXPECT_EQ(netwatch_same(offer_of({}), offer_of({}, "10.0.0.1")), 1);
}

TEST(NetwatchOffer, DescribedAsOneLineCutToItsRoom) {
    NetOffer full{};
    std::string all;
    for (full.count = 0; full.count < NETWATCH_MAX_ADDRESSES; ++full.count) {
        snprintf(full.addresses[full.count].data(), 16, "%s", ("10.0.0." + std::to_string(full.count + 100)).c_str());
        all += (full.count > 0 ? ", " : "") + std::string(full.addresses[full.count].data());
    }
    const struct { NetOffer offer; int size; std::string text; } cases[] = {
        {offer_of({}, "10.0.0.1"), 600, "no address"},
        {offer_of({"192.168.1.20", "10.0.0.5"}, "10.9.9.9"), 600, "192.168.1.20, 10.0.0.5"},
        {offer_of({"255.255.255.255", "1.2.3.4"}), 600, "255.255.255.255, 1.2.3.4"}, {full, 600, all},
        {offer_of({"192.168.1.20", "10.0.0.5"}), 15, "192.168.1.20, "}, {offer_of({"192.168.1.20"}), 1, ""},
        {offer_of({"192.168.1.20"}), 0, std::string(600, '#')}, {offer_of({"192.168.1.20"}), -1, std::string(600, '#')},
    };
    for (const auto &c : cases)
        EXPECT_EQ(described(c.offer, c.size), c.text) << c.size;
}

TEST(NetwatchOpen, TheSocketNeverBlocksNorOutlivesAnExec) {
    const int fd = netwatch_open();
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(fcntl(fd, F_GETFL) & O_NONBLOCK);
    EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);
    EXPECT_GE(netwatch_drain(fd), 0);
    close(fd);
    EXPECT_EQ(netwatch_drain(fd), -1);
}

/// An rtnetlink message of `type` whose body (an rtmsg's size) opens with `family`.
std::string message(uint16_t type, unsigned char family)
{
    std::string text(NLMSG_SPACE(sizeof(rtmsg)), '\0');
    const nlmsghdr header{static_cast<uint32_t>(text.size()), type, 0, 0, 0};
    memcpy(text.data(), &header, sizeof header);
    text[NLMSG_HDRLEN] = static_cast<char>(family);
    return text;
}

TEST(NetwatchDrain, WakesForIpv4AddressesRoutesLinksAndDatagramsCutShort) {
    const std::string four = message(RTM_NEWADDR, AF_INET), six = message(RTM_NEWROUTE, AF_INET6);
    std::string overlong = message(RTM_NEWADDR, AF_INET), cut = six;
    overlong[0] = 0x7f;   // its length runs past the datagram
    cut.resize(40000);    // more than drain reads at once
    const struct { const char *what; std::vector<std::string> datagrams; int woken; } cases[] = {
        {"nothing", {}, 0}, {"a neighbour", {message(RTM_NEWNEIGH, AF_INET)}, 0},
        {"an IPv4 address added", {four}, 1}, {"two wake-ups, both read", {four, four}, 1},
        {"an IPv4 address removed", {message(RTM_DELADDR, AF_INET)}, 1},
        {"an IPv4 route added", {message(RTM_NEWROUTE, AF_INET)}, 1},
        {"an IPv4 route removed", {message(RTM_DELROUTE, AF_INET)}, 1},
        {"a link added", {message(RTM_NEWLINK, AF_UNSPEC)}, 1},
        {"a link removed", {message(RTM_DELLINK, AF_UNSPEC)}, 1},
        {"IPv6 addresses and routes", {message(RTM_NEWADDR, AF_INET6), message(RTM_DELADDR, AF_INET6), six}, 0},
        {"an IPv4 address behind an IPv6 route", {six + four}, 1},
        {"an IPv6 route, then an IPv4 address", {six, four}, 1},
        {"a length past the datagram", {overlong}, 0}, {"a datagram cut short", {cut}, 1},
    };
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, pair), 0);
    for (const auto &c : cases) {
        for (const std::string &datagram : c.datagrams)
            ASSERT_EQ(send(pair[1], datagram.data(), datagram.size(), 0), static_cast<ssize_t>(datagram.size()));
        EXPECT_EQ(netwatch_drain(pair[0]), c.woken) << c.what;
        EXPECT_EQ(netwatch_drain(pair[0]), 0) << c.what << ": left unread";
    }
    close(pair[0]), close(pair[1]);
}

TEST(NetwatchDrain, WakesWhenTheKernelLostMessages) {
    const int fd = netwatch_open(), least = 1;
    ASSERT_EQ(setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &least, sizeof least), 0);
    // Malformed requests: the kernel's error answers, none of which may change the offer, overflow the queue.
    std::string request = message(RTM_GETLINK, AF_UNSPEC);
    request[6] = NLM_F_REQUEST;   // nlmsg_flags
    for (int i = 0; i < 20; ++i)
        ASSERT_EQ(send(fd, request.data(), request.size(), 0), static_cast<ssize_t>(request.size()));
    EXPECT_EQ(netwatch_drain(fd), 1);
    EXPECT_EQ(netwatch_drain(fd), 0);
    close(fd);
}

} // namespace
