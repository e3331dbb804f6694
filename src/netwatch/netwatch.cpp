// Netwatch: an rtnetlink socket that wakes the launcher on address, route and link changes, and the offer
// read the way the pairing code and the links read it.
#include "netwatch/netwatch.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "link/link.h"
#include "pairing/pairing.h"

static_assert(NETWATCH_MAX_ADDRESSES == LAN_ADDRESS_SLOT_COUNT);
static_assert(sizeof(NetOffer::addresses[0]) == LAN_ADDRESS_TEXT_SIZE);

namespace {

constexpr size_t RECEIVE_SIZE = 32768;   // larger than any one rtnetlink message the kernel sends
constexpr unsigned GROUPS = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE;

/// 1 when a message of `type` whose body (`size` bytes) starts at `body` may change the offer.
int message_matters(uint16_t type, const unsigned char *body, size_t size)
{
    if (type == RTM_NEWLINK || type == RTM_DELLINK)
        return 1;
    const bool address = type == RTM_NEWADDR || type == RTM_DELADDR;
    const bool route = type == RTM_NEWROUTE || type == RTM_DELROUTE;
    // ifaddrmsg and rtmsg both open with the family byte.
    return (address || route) && size > 0 && body[0] == AF_INET;
}

/// 1 when one of the messages in the `size` bytes of `buffer` may change the offer.
int datagram_matters(const unsigned char *buffer, size_t size)
{
    size_t at = 0;
    while (size - at >= NLMSG_HDRLEN) {
        nlmsghdr header;
        memcpy(&header, buffer + at, sizeof header);
        if (header.nlmsg_len < NLMSG_HDRLEN || header.nlmsg_len > size - at)
            return 0;
        if (message_matters(header.nlmsg_type, buffer + at + NLMSG_HDRLEN, header.nlmsg_len - NLMSG_HDRLEN))
            return 1;
        at += std::min<size_t>(NLMSG_ALIGN(header.nlmsg_len), size - at);
    }
    return 0;
}

/// What one read from the socket brought.
enum Received { RECEIVED_NOTHING, RECEIVED_OTHER, RECEIVED_CHANGE, RECEIVED_FAILURE };

/// Reads one datagram from `fd` without waiting and says what it brought.
Received receive_one(int fd)
{
    alignas(nlmsghdr) unsigned char buffer[RECEIVE_SIZE];
    const ssize_t size = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT | MSG_TRUNC);
    if (size < 0 && errno == EINTR)
        return RECEIVED_OTHER;
    if (size < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
        return RECEIVED_NOTHING;
    // The kernel dropped messages for a full queue: anything may have changed since.
    if (size < 0 && errno == ENOBUFS)
        return RECEIVED_CHANGE;
    if (size < 0)
        return RECEIVED_FAILURE;
    // A datagram cut short to fit the buffer is as good as lost.
    if (static_cast<size_t>(size) > sizeof buffer)
        return RECEIVED_CHANGE;
    return datagram_matters(buffer, static_cast<size_t>(size)) ? RECEIVED_CHANGE : RECEIVED_OTHER;
}

/// The offer's count within the table's bounds.
int bounded_count(const NetOffer &offer)
{
    return std::clamp(offer.count, 0, NETWATCH_MAX_ADDRESSES);
}

} // namespace

int netwatch_open()
{
    const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, NETLINK_ROUTE);
    if (fd < 0)
        return -1;
    sockaddr_nl local{};
    local.nl_family = AF_NETLINK;
    local.nl_groups = GROUPS;
    if (bind(fd, reinterpret_cast<const sockaddr *>(&local), sizeof local) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

int netwatch_drain(int fd)
{
    int changed = 0;
    for (;;) {
        const Received received = receive_one(fd);
        if (received == RECEIVED_NOTHING)
            return changed;
        if (received == RECEIVED_FAILURE)
            return -1;
        changed |= received == RECEIVED_CHANGE;
    }
}

int netwatch_offer(NetOffer *offer)
{
    std::array<char *, LAN_ADDRESS_SLOT_COUNT> slots{};
    if (lan_address_collect(slots.data()) != 0)
        return -1;
    std::array<const char *, LAN_ADDRESS_SLOT_COUNT> ordered{};
    *offer = NetOffer{};
    offer->count = link_ordered_addresses(slots.data(), LAN_ADDRESS_SLOT_COUNT, ordered.data());
    for (int i = 0; i < offer->count; ++i)
        snprintf(offer->addresses[i].data(), offer->addresses[i].size(), "%s", ordered[i]);
    for (char *slot : slots)
        free(slot);
    return 0;
}

int netwatch_same(const NetOffer &a, const NetOffer &b)
{
    if (a.count != b.count)
        return 0;
    for (int i = 0; i < bounded_count(a); ++i)
        if (strncmp(a.addresses[i].data(), b.addresses[i].data(), a.addresses[i].size()) != 0)
            return 0;
    return 1;
}

void netwatch_describe(const NetOffer &offer, char *text, int size)
{
    if (size <= 0)
        return;
    std::string line = bounded_count(offer) > 0 ? "" : "no address";
    for (int i = 0; i < bounded_count(offer); ++i) {
        line += i > 0 ? ", " : "";
        line.append(offer.addresses[i].data(), strnlen(offer.addresses[i].data(), offer.addresses[i].size()));
    }
    snprintf(text, static_cast<size_t>(size), "%s", line.c_str());
}
