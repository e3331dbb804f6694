// Netwatch: notices through rtnetlink when the addresses the server offers may have changed, and reads them.
#pragma once

#include <array>

constexpr int NETWATCH_MAX_ADDRESSES = 30;

/// The addresses the server would offer, in the links' order (the default route's interface first).
struct NetOffer {
    int count;
    std::array<std::array<char, 16>, NETWATCH_MAX_ADDRESSES> addresses;   // dotted quads
};

/// A non-blocking, close-on-exec rtnetlink socket subscribed to IPv4 address, IPv4 route and link changes; or -1.
int netwatch_open();
/// Reads every message waiting on `fd`: 1 when one of them may change the offer (any IPv4 address or
/// IPv4 route message, a link message, or a lost message: ENOBUFS), 0 when none does or nothing waited, -1 on error.
int netwatch_drain(int fd);
/// Fills `offer` with the addresses the server would offer now, in the links' order; 0, or -1.
int netwatch_offer(NetOffer *offer);
/// 1 when the two offers hold the same addresses in the same order.
int netwatch_same(const NetOffer &a, const NetOffer &b);
/// The offer as one line for a person: "192.168.1.20, 10.0.0.5" ("no address" when empty), into `text` of `size` bytes.
void netwatch_describe(const NetOffer &offer, char *text, int size);
