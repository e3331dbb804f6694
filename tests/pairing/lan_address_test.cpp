// LAN addresses: the range tests at their bounds, the filter, and the walk of an interface list.
#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "pairing/pairing.h"

namespace {

struct AddressCase {
    const char *text;
    int reserved;
    int link_local;
    int is_private;
    int qualifies;
};

constexpr AddressCase ADDRESS_CASES[] = {
    // text, reserved, link-local, private, qualifies
    {"0.0.0.0", 1, 0, 0, 0}, {"0.0.0.1", 0, 0, 0, 1}, {"126.255.255.255", 0, 0, 0, 1},
    {"127.0.0.0", 1, 0, 0, 0}, {"127.0.0.1", 1, 0, 0, 0}, {"127.255.255.255", 1, 0, 0, 0},
    {"128.0.0.0", 0, 0, 0, 1}, {"223.255.255.255", 0, 0, 0, 1}, {"224.0.0.0", 1, 0, 0, 0},
    {"224.0.0.1", 1, 0, 0, 0}, {"255.255.255.255", 1, 0, 0, 0}, {"169.253.255.255", 0, 0, 0, 1},
    {"169.254.0.0", 0, 1, 0, 0}, {"169.254.3.7", 0, 1, 0, 0}, {"169.254.255.255", 0, 1, 0, 0},
    {"169.255.0.0", 0, 0, 0, 1}, {"9.255.255.255", 0, 0, 0, 1}, {"10.0.0.0", 0, 0, 1, 1},
    {"10.255.255.255", 0, 0, 1, 1}, {"11.0.0.0", 0, 0, 0, 1}, {"172.15.255.255", 0, 0, 0, 1},
    {"172.16.0.0", 0, 0, 1, 1}, {"172.31.255.255", 0, 0, 1, 1}, {"172.32.0.0", 0, 0, 0, 1},
    {"192.167.255.255", 0, 0, 0, 1}, {"192.168.0.0", 0, 0, 1, 1}, {"192.168.1.20", 0, 0, 1, 1},
    {"192.168.255.255", 0, 0, 1, 1}, {"192.169.0.0", 0, 0, 0, 1}, {"203.0.113.9", 0, 0, 0, 1},
};

TEST(LanAddress, RangesAtTheirBounds)
{
    for (const AddressCase &c : ADDRESS_CASES) {
        SCOPED_TRACE(c.text);
        ASSERT_EQ(lan_address_is_ipv4_text(c.text), 1);
        const uint32_t value = lan_address_value(c.text);
        EXPECT_EQ(value, ntohl(inet_addr(c.text)));
        EXPECT_EQ(lan_address_is_reserved(value), c.reserved);
        EXPECT_EQ(lan_address_is_link_local(value), c.link_local);
        EXPECT_EQ(lan_address_is_private(value), c.is_private);
        EXPECT_EQ(lan_address_qualifies(c.text), c.qualifies);
    }
    EXPECT_EQ(lan_address_value("192.168.1.20"), 0xc0a80114u);
}

TEST(LanAddress, NonAddressesNeitherParseNorQualify)
{
    for (const char *text : {"", "localhost", "192.168.1", "192.168.1.256", "1.2.3.4.5", " 10.0.0.5",
                             "10.0.0.5 ", "::1", "fe80::1", "0x0a.0.0.5"}) {
        SCOPED_TRACE(text);
        EXPECT_EQ(lan_address_is_ipv4_text(text), 0);
        EXPECT_EQ(lan_address_value(text), 0u);
        EXPECT_EQ(lan_address_qualifies(text), 0);
    }
}

/// A hand-built interface list; entries are linked in the order they are added.
class InterfaceList {
public:
    void add(const char *name, int family, const char *address)
    {
        sockaddr_storage &storage = addresses_.emplace_back();
        memset(&storage, 0, sizeof storage);
        storage.ss_family = static_cast<sa_family_t>(family);
        if (address != nullptr && family == AF_INET)
            inet_pton(AF_INET, address, &reinterpret_cast<sockaddr_in &>(storage).sin_addr);
        else if (address != nullptr && family == AF_INET6)
            inet_pton(AF_INET6, address, &reinterpret_cast<sockaddr_in6 &>(storage).sin6_addr);
        ifaddrs &entry = entries_.emplace_back();
        memset(&entry, 0, sizeof entry);
        entry.ifa_name = const_cast<char *>(name);
        entry.ifa_addr = address != nullptr ? reinterpret_cast<sockaddr *>(&storage) : nullptr;
        if (entries_.size() > 1)
            entries_[entries_.size() - 2].ifa_next = &entry;
    }
    const ifaddrs *head() const { return entries_.empty() ? nullptr : &entries_.front(); }

private:
    std::deque<ifaddrs> entries_;           // a deque keeps the links valid as entries are added
    std::deque<sockaddr_storage> addresses_;
};

struct Slots {
    std::array<char *, LAN_ADDRESS_SLOT_COUNT> slot{};
    ~Slots()
    {
        for (char *text : slot)
            free(text);
    }
    std::vector<std::string> filled() const
    {
        std::vector<std::string> texts;
        for (char *text : slot)
            if (text != nullptr)
                texts.emplace_back(text);
        return texts;
    }
};

TEST(LanAddress, WalkKeepsListOrderAndSkipsOtherFamilies)
{
    InterfaceList list;
    list.add("lo", AF_INET, "127.0.0.1");
    list.add("lo", AF_INET6, "::1");
    list.add("eth0", AF_PACKET, "");
    list.add("tun0", AF_INET, nullptr);
    list.add("eth0", AF_INET, "10.0.0.5");
    list.add("wlan0", AF_INET6, "fe80::1");
    list.add("wlan0", AF_INET, "192.168.1.20");
    list.add("eth1", AF_INET, "169.254.3.7");
    list.add("eth2", AF_INET, "255.255.255.255");
    Slots slots;
    EXPECT_EQ(lan_address_collect_list(list.head(), slots.slot.data()), 5);
    EXPECT_EQ(slots.filled(),
              (std::vector<std::string>{"127.0.0.1", "10.0.0.5", "192.168.1.20", "169.254.3.7", "255.255.255.255"}));
    for (int i = 0; i < 5; ++i)  // each text is a zero-filled 16-byte block
        for (size_t b = strlen(slots.slot[i]); b < size_t{LAN_ADDRESS_TEXT_SIZE}; ++b)
            EXPECT_EQ(slots.slot[i][b], '\0') << "text " << i;
    EXPECT_EQ(lan_address_collect_list(nullptr, slots.slot.data() + 5), 0);
}

TEST(LanAddress, WalkFillsAtMostThirtySlots)
{
    std::deque<std::string> texts;
    InterfaceList list;
    for (int i = 1; i <= 40; ++i) {
        list.add("eth", AF_INET, texts.emplace_back("10.0.0." + std::to_string(i)).c_str());
        list.add("eth", AF_INET6, "fd00::1");
    }
    Slots slots;
    EXPECT_EQ(lan_address_collect_list(list.head(), slots.slot.data()), LAN_ADDRESS_SLOT_COUNT);
    EXPECT_STREQ(slots.slot[0], "10.0.0.1");
    EXPECT_STREQ(slots.slot[LAN_ADDRESS_SLOT_COUNT - 1], "10.0.0.30");
}

TEST(LanAddress, CollectsThisMachinesAddresses)
{
    Slots slots;
    ASSERT_EQ(lan_address_collect(slots.slot.data()), 0);
    const std::vector<std::string> texts = slots.filled();
    EXPECT_NE(std::find(texts.begin(), texts.end(), "127.0.0.1"), texts.end());
    for (const std::string &text : texts)
        EXPECT_EQ(lan_address_is_ipv4_text(text.c_str()), 1) << text;
}

TEST(LanAddress, FirstNonLoopbackIsAnIpv4TextOrNothing)
{
    testing::internal::CaptureStdout();
    char *host = lan_address_first_non_loopback();
    const std::string output = testing::internal::GetCapturedStdout();
    EXPECT_NE(output.find("ifa->ifa_name: lo\n"), std::string::npos);
    if (host != nullptr) {
        EXPECT_EQ(lan_address_is_ipv4_text(host), 1) << host;
        EXPECT_STRNE(host, "127.0.0.1");
    }
    free(host);
}

} // namespace
