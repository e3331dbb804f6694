// LAN addresses (range tests at their bounds, the walk of an interface list) and the pairing code built from them.
#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "pairing/pairing.h"

namespace {

TEST(LanAddress, RangesAtTheirBounds) {
    const struct { const char *text; int reserved, link_local, is_private, qualifies; } cases[] = {
        {"0.0.0.0", 1, 0, 0, 0}, {"0.0.0.1", 0, 0, 0, 1}, {"126.255.255.255", 0, 0, 0, 1}, {"127.0.0.0", 1, 0, 0, 0},
        {"127.255.255.255", 1, 0, 0, 0}, {"128.0.0.0", 0, 0, 0, 1}, {"223.255.255.255", 0, 0, 0, 1},
        {"224.0.0.0", 1, 0, 0, 0}, {"255.255.255.255", 1, 0, 0, 0}, {"169.253.255.255", 0, 0, 0, 1},
        {"169.254.0.0", 0, 1, 0, 0}, {"169.254.255.255", 0, 1, 0, 0}, {"169.255.0.0", 0, 0, 0, 1},
        {"9.255.255.255", 0, 0, 0, 1}, {"10.0.0.0", 0, 0, 1, 1}, {"10.255.255.255", 0, 0, 1, 1}, {"11.0.0.0", 0, 0, 0, 1},
        {"172.15.255.255", 0, 0, 0, 1}, {"172.16.0.0", 0, 0, 1, 1}, {"172.31.255.255", 0, 0, 1, 1},
        {"172.32.0.0", 0, 0, 0, 1}, {"192.167.255.255", 0, 0, 0, 1}, {"192.168.0.0", 0, 0, 1, 1},
        {"192.168.255.255", 0, 0, 1, 1}, {"192.169.0.0", 0, 0, 0, 1}, {"203.0.113.9", 0, 0, 0, 1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        ASSERT_EQ(lan_address_is_ipv4_text(c.text), 1);
        const uint32_t value = lan_address_value(c.text);
        EXPECT_EQ(value, ntohl(inet_addr(c.text)));
        EXPECT_EQ(lan_address_is_reserved(value), c.reserved);
        EXPECT_EQ(lan_address_is_link_local(value), c.link_local);
        EXPECT_EQ(lan_address_is_private(value), c.is_private);
        EXPECT_EQ(lan_address_qualifies(c.text), c.qualifies);
    }
    for (const char *text : {"", "localhost", "192.168.1", "192.168.1.256", "1.2.3.4.5", " 10.0.0.5", "10.0.0.5 ",
                             "::1", "fe80::1", "0x0a.0.0.5"}) {
        SCOPED_TRACE(text);
        EXPECT_EQ(lan_address_is_ipv4_text(text), 0);
        EXPECT_EQ(lan_address_value(text), 0u);
        EXPECT_EQ(lan_address_qualifies(text), 0);
    }
}

/// A slot table as start-up fills it: heap texts from slot 0 (a null leaves an empty slot), the rest empty.
struct Slots {
    std::array<char *, LAN_ADDRESS_SLOT_COUNT> slot{};
    explicit Slots(const std::vector<const char *> &texts = {}) {
        for (size_t i = 0; i < texts.size(); ++i)
            slot[i] = texts[i] != nullptr ? strdup(texts[i]) : nullptr;
    }
    ~Slots() { std::for_each(slot.begin(), slot.end(), free); }
    std::vector<std::string> filled() const {
        std::vector<std::string> texts;
        std::copy_if(slot.begin(), slot.end(), std::back_inserter(texts), [](const char *text) { return text != nullptr; });
        return texts;
    }
};

/// A hand-built interface list of (family, address) entries, linked in order; a null address leaves ifa_addr null.
struct InterfaceList {
    std::vector<sockaddr_storage> addresses;
    std::vector<ifaddrs> entries;
    explicit InterfaceList(const std::vector<std::pair<int, const char *>> &items)
        : addresses(items.size()), entries(items.size()) {
        for (size_t i = 0; i < items.size(); ++i) {
            auto [family, text] = items[i];
            sockaddr_storage &address = addresses[i];
            address.ss_family = static_cast<sa_family_t>(family);
            if (text != nullptr && (family == AF_INET || family == AF_INET6))
                inet_pton(family, text, family == AF_INET ? static_cast<void *>(&reinterpret_cast<sockaddr_in &>(address).sin_addr)
                                                          : &reinterpret_cast<sockaddr_in6 &>(address).sin6_addr);
            entries[i].ifa_next = i + 1 < items.size() ? &entries[i + 1] : nullptr;
            entries[i].ifa_name = const_cast<char *>("eth0");
            entries[i].ifa_addr = text != nullptr ? reinterpret_cast<sockaddr *>(&address) : nullptr;
        }
    }
};

TEST(LanAddress, WalkKeepsListOrderAndSkipsOtherFamilies) {
    InterfaceList list({{AF_INET, "127.0.0.1"}, {AF_INET6, "::1"}, {AF_PACKET, ""}, {AF_INET, nullptr}, {AF_INET, "10.0.0.5"},
                        {AF_INET6, "fe80::1"}, {AF_INET, "192.168.1.20"}, {AF_INET, "169.254.3.7"}, {AF_INET, "255.255.255.255"}});
    Slots slots;
    EXPECT_EQ(lan_address_collect_list(list.entries.data(), slots.slot.data()), 5);
    EXPECT_EQ(slots.filled(),
              (std::vector<std::string>{"127.0.0.1", "10.0.0.5", "192.168.1.20", "169.254.3.7", "255.255.255.255"}));
    for (int i = 0; i < 5; ++i)  // each text is a zero-filled 16-byte block
        EXPECT_EQ(std::string(slots.slot[i], LAN_ADDRESS_TEXT_SIZE).find_first_not_of('\0', strlen(slots.slot[i])), std::string::npos);
    EXPECT_EQ(lan_address_collect_list(nullptr, slots.slot.data() + 5), 0);
}

TEST(LanAddress, WalkFillsAtMostThirtySlots) {
    std::deque<std::string> texts;  // a deque keeps the texts in place as it grows
    std::vector<std::pair<int, const char *>> items;
    for (int i = 1; i <= 40; ++i)
        items.insert(items.end(), {{AF_INET, texts.emplace_back("10.0.0." + std::to_string(i)).c_str()}, {AF_INET6, "fd00::1"}});
    Slots slots;
    EXPECT_EQ(lan_address_collect_list(InterfaceList(items).entries.data(), slots.slot.data()), LAN_ADDRESS_SLOT_COUNT);
    EXPECT_EQ(slots.filled(), std::vector<std::string>(texts.begin(), texts.begin() + LAN_ADDRESS_SLOT_COUNT));
}

TEST(LanAddress, ThisMachinesAddresses) {
    Slots slots;
    ASSERT_EQ(lan_address_collect(slots.slot.data()), 0);
    const std::vector<std::string> texts = slots.filled();
    EXPECT_NE(std::find(texts.begin(), texts.end(), "127.0.0.1"), texts.end());
    for (const std::string &text : texts)
        EXPECT_EQ(lan_address_is_ipv4_text(text.c_str()), 1) << text;
    testing::internal::CaptureStdout();
    char *host = lan_address_first_non_loopback();  // lists the interfaces it passes
    EXPECT_NE(testing::internal::GetCapturedStdout().find("ifa->ifa_name: lo\n"), std::string::npos);
    EXPECT_TRUE(host == nullptr || (lan_address_is_ipv4_text(host) == 1 && strcmp(host, "127.0.0.1") != 0)) << host;
    free(host);
}

/// The text of a heap string, which it frees.
std::string take(char *text) {
    std::string copy = text;
    free(text);
    return copy;
}

TEST(PairingCode, MarkerPortAndAddresses) {
    const std::pair<int32_t, const char *> ports[] = {{80, "0050"}, {1010, "03f2"}, {8080, "1f90"}, {70000, "11170"}, {-1, "ffffffff"}};
    const struct { const char *name; std::vector<const char *> slots; const char *part; } addresses[] = {
        {"none", {}, ""},
        {"loopback only", {"127.0.0.1"}, ""},
        {"one", {"192.168.1.20"}, "c0a80114"},
        {"two in order", {"10.0.0.5", "192.168.1.20"}, "0a000005c0a80114"},
        {"skipped without a gap", {"127.0.0.1", "10.0.0.5", "169.254.3.7", "192.168.1.20"}, "0a000005c0a80114"},
        {"public and top unicast", {"203.0.113.9", "224.0.0.1", "223.255.255.255"}, "cb007109dfffffff"},
        {"empty slot ends the walk", {"192.168.1.20", nullptr, "10.0.0.5"}, "c0a80114"},
    };
    for (const auto &[port, port_part] : ports)
        for (const auto &a : addresses) {
            SCOPED_TRACE(std::to_string(port) + ", " + a.name);
            Slots slots(a.slots);
            ServerSettings settings{port, SETTINGS_DEFAULT_BUFFER_SIZE, "index.html", "./"};
            EXPECT_EQ(take(pairing_code_build(&settings, slots.slot.data())), std::string(PAIRING_MARKER) + port_part + a.part);
            EXPECT_EQ(take(pairing_address_hex(slots.slot.data(), LAN_ADDRESS_SLOT_COUNT)), a.part);
        }
}

TEST(PairingCode, ThirtyAddressesFitAndCountBoundsTheWalk) {
    Slots slots;
    for (int i = 0; i < LAN_ADDRESS_SLOT_COUNT; ++i)
        slots.slot[i] = strdup(("10.0.1." + std::to_string(i + 1)).c_str());
    ServerSettings settings{-1, SETTINGS_DEFAULT_BUFFER_SIZE, "index.html", "./"};
    const std::string code = take(pairing_code_build(&settings, slots.slot.data()));
    EXPECT_EQ(code.size(), 20u + 8u + 30u * 8u);
    EXPECT_EQ(code.substr(code.size() - 8), "0a00011e");
    EXPECT_EQ(take(pairing_address_hex(slots.slot.data(), 2)), "0a0001010a000102");
    EXPECT_EQ(take(pairing_address_hex(slots.slot.data(), 0)), "");
}

} // namespace
