// LAN addresses (range tests at their bounds, the walk of an interface list), the pairing code built
// from them, and its QR drawing on the terminal.
#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "pairing/pairing.h"
#include "qr/qr.h"
#include "support/heap_text.h"

namespace {

const std::string LIGHT = "\033[37;47m__\033[m", DARK = "\033[30;40m..\033[m";

/// What `print` writes to standard output; it must return 0.
std::string printed(const std::function<int()> &print) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(print(), 0);
    return testing::internal::GetCapturedStdout();
}

// The encoder's record lives for the process: this test needs one in which nothing was encoded before. ctest
// runs every test in a process of its own, and a run of the whole program starts with it.
TEST(QrTerminal, FailedFirstEncodingDrawsTheBareRing) {
    EXPECT_EQ(printed([] { return qr_print_terminal(""); }), ",0\n" + LIGHT + LIGHT + "\n" + LIGHT + LIGHT + "\n\n");
}

TEST(QrTerminal, DrawsTheSymbolReflectedInsideALightRing) {
    const char *code = "5641524e4f4b5152303103f2c0a80102";
    const std::string output = printed([code] { return qr_print_terminal(code); });
    ASSERT_EQ(qr_symbol.size, 25);
    // Line r, cell c shows modules[r - 1][c - 1]: the symbol reflected in its main diagonal.
    std::string drawing;
    for (int r = 0; r < 27; ++r, drawing += "\n")
        for (int c = 0; c < 27; ++c)
            drawing += r > 0 && c > 0 && r < 26 && c < 26 && qr_symbol.modules[r - 1][c - 1] ? DARK : LIGHT;
    EXPECT_EQ(output, ",32,2\n" + drawing + "\n");
    EXPECT_EQ(printed([] { return qr_print_terminal(""); }), ",0\n" + drawing + "\n");  // a refusal redraws the last symbol
}

TEST(LanAddress, RangesAtTheirBounds) {
    // The first and last address of every range, and the neighbours just outside them.
    const std::set<std::string> reserved = {"0.0.0.0", "127.0.0.0", "127.255.255.255", "224.0.0.0", "255.255.255.255"},
        link_local = {"169.254.0.0", "169.254.255.255"},
        is_private = {"10.0.0.0", "10.255.255.255", "172.16.0.0", "172.31.255.255", "192.168.0.0", "192.168.255.255"},
        outside = {"0.0.0.1", "126.255.255.255", "128.0.0.0", "223.255.255.255", "169.253.255.255", "169.255.0.0",
                   "9.255.255.255", "11.0.0.0", "172.15.255.255", "172.32.0.0", "192.167.255.255", "192.169.0.0"};
    for (const std::set<std::string> *group : {&reserved, &link_local, &is_private, &outside})
        for (const std::string &text : *group) {
            SCOPED_TRACE(text);
            const uint32_t value = lan_address_value(text.c_str());  // public ones qualify too
            EXPECT_EQ(std::tuple(lan_address_is_reserved(value), lan_address_is_link_local(value), lan_address_is_private(value),
                                 lan_address_qualifies(text.c_str())),
                      std::tuple(group == &reserved, group == &link_local, group == &is_private, group == &outside || group == &is_private));
        }
    for (const char *text : {"", "localhost", "192.168.1", "192.168.1.256", "1.2.3.4.5", " 10.0.0.5", "::1", "0x0a.0.0.5"})
        EXPECT_EQ(lan_address_is_ipv4_text(text) + lan_address_value(text) + lan_address_qualifies(text), 0u) << text;
}

/// A slot table as start-up fills it: heap texts from slot 0 (a null leaves an empty slot), the rest empty.
struct Slots {
    std::array<char *, LAN_ADDRESS_SLOT_COUNT> slot{};
    explicit Slots(const std::vector<const char *> &texts = {}) {
        std::transform(texts.begin(), texts.end(), slot.begin(), [](const char *t) { return t ? strdup(t) : nullptr; });
    }
    ~Slots() { std::for_each(slot.begin(), slot.end(), free); }
};

TEST(LanAddress, WalkKeepsListOrderSkipsOtherFamiliesAndFillsThirtySlots) {
    // A hand-built interface list; an empty text leaves the entry without an address.
    std::vector<std::pair<int, std::string>> items = {{AF_INET, "127.0.0.1"}, {AF_INET6, "-"}, {AF_PACKET, "-"}, {AF_INET, ""},
                                                      {AF_INET, "169.254.3.7"}, {AF_INET6, "-"}, {AF_INET, "255.255.255.255"}};
    std::vector<std::string> expected = {"127.0.0.1", "169.254.3.7", "255.255.255.255"};  // then the first 27 of 40
    for (int i = 1; i <= 40; ++i) items.push_back({AF_INET, "10.0.0." + std::to_string(i)});
    for (int i = 1; i <= 27; ++i) expected.push_back("10.0.0." + std::to_string(i));
    std::vector<sockaddr_in> addresses(items.size());
    std::vector<ifaddrs> entries(items.size());
    for (size_t i = 0; i < items.size(); ++i) {
        addresses[i].sin_family = static_cast<sa_family_t>(items[i].first);
        inet_pton(AF_INET, items[i].second.c_str(), &addresses[i].sin_addr);
        entries[i].ifa_next = i + 1 < items.size() ? &entries[i + 1] : nullptr;
        entries[i].ifa_addr = items[i].second.empty() ? nullptr : reinterpret_cast<sockaddr *>(&addresses[i]);
    }
    Slots slots;
    EXPECT_EQ(lan_address_collect_list(entries.data(), slots.slot.data()), LAN_ADDRESS_SLOT_COUNT);
    const std::vector<std::string> collected(slots.slot.begin(), std::find(slots.slot.begin(), slots.slot.end(), nullptr));
    EXPECT_EQ(collected, expected);
    for (size_t i = 0; i < collected.size(); ++i)  // each a zero-filled 16-byte block
        EXPECT_EQ(std::string(slots.slot[i], LAN_ADDRESS_TEXT_SIZE).find_first_not_of('\0', collected[i].size()), std::string::npos);
}

TEST(PairingCode, MarkerPortAndAddresses) {
    const std::pair<int32_t, const char *> ports[] = {{80, "0050"}, {1010, "03f2"}, {8080, "1f90"}, {70000, "11170"}, {-1, "ffffffff"}};
    const struct { const char *name; std::vector<const char *> slots; const char *part; } addresses[] = {
        {"none", {}, ""}, {"loopback only", {"127.0.0.1"}, ""}, {"one", {"192.168.1.20"}, "c0a80114"},
        {"skipped without a gap", {"127.0.0.1", "10.0.0.5", "169.254.3.7", "192.168.1.20"}, "0a000005c0a80114"},
        {"public and top unicast", {"203.0.113.9", "224.0.0.1", "223.255.255.255"}, "cb007109dfffffff"},
        {"empty slot ends the walk", {"192.168.1.20", nullptr, "10.0.0.5"}, "c0a80114"},
    };
    for (const auto &[port, port_part] : ports)
        for (const auto &a : addresses) {
            SCOPED_TRACE(std::to_string(port) + ", " + a.name);
            Slots slots(a.slots);
            ServerSettings settings{port, SETTINGS_DEFAULT_BUFFER_SIZE, "index.html", "./"};
            EXPECT_EQ(taken(pairing_code_build(&settings, slots.slot.data())), std::string("5641524e4f4b51523031") + port_part + a.part);
            EXPECT_EQ(taken(pairing_address_hex(slots.slot.data(), LAN_ADDRESS_SLOT_COUNT)), a.part);
        }
    // All thirty slots are read, and the count bounds the walk.
    Slots full;
    for (int i = 0; i < LAN_ADDRESS_SLOT_COUNT; ++i) full.slot[i] = strdup(("10.0.1." + std::to_string(i + 1)).c_str());
    ServerSettings settings{-1, SETTINGS_DEFAULT_BUFFER_SIZE, "index.html", "./"};
    const std::string code = taken(pairing_code_build(&settings, full.slot.data()));
    EXPECT_EQ(code.size(), 20u + 8u + 30u * 8u);
    EXPECT_EQ(code.substr(code.size() - 8), "0a00011e");
    EXPECT_EQ(taken(pairing_address_hex(full.slot.data(), 2)), "0a0001010a000102");
    EXPECT_EQ(taken(pairing_address_hex(full.slot.data(), 0)), "");
}

} // namespace
