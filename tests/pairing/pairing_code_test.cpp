// Pairing code: port part, address part and their composition behind the marker.
#include <array>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "pairing/pairing.h"

namespace {

/// A slot table as start-up fills it: heap texts from slot 0, the rest empty.
struct Slots {
    std::array<char *, LAN_ADDRESS_SLOT_COUNT> slot{};
    explicit Slots(const std::vector<const char *> &texts)
    {
        for (size_t i = 0; i < texts.size(); ++i)
            if (texts[i] != nullptr)
                slot[i] = strdup(texts[i]);
    }
    ~Slots()
    {
        for (char *text : slot)
            free(text);
    }
};

std::string take(char *text)
{
    std::string copy = text;
    free(text);
    return copy;
}

struct PortCase {
    int32_t port;
    const char *part;
};

constexpr PortCase PORT_CASES[] = {
    {80, "0050"}, {1010, "03f2"}, {8080, "1f90"}, {70000, "11170"}, {-1, "ffffffff"},
};

struct AddressCase {
    const char *name;
    std::vector<const char *> slots;
    const char *part;
};

const AddressCase ADDRESS_CASES[] = {
    {"none", {}, ""},
    {"loopback only", {"127.0.0.1"}, ""},
    {"one", {"192.168.1.20"}, "c0a80114"},
    {"two in order", {"10.0.0.5", "192.168.1.20"}, "0a000005c0a80114"},
    {"skipped without a gap", {"127.0.0.1", "10.0.0.5", "169.254.3.7", "192.168.1.20"}, "0a000005c0a80114"},
    {"public and top unicast", {"203.0.113.9", "224.0.0.1", "223.255.255.255"}, "cb007109dfffffff"},
    {"empty slot ends the walk", {"192.168.1.20", nullptr, "10.0.0.5"}, "c0a80114"},
};

TEST(PairingCode, MarkerPortAndAddresses)
{
    for (const PortCase &p : PORT_CASES) {
        for (const AddressCase &a : ADDRESS_CASES) {
            SCOPED_TRACE(std::to_string(p.port) + ", " + a.name);
            Slots slots(a.slots);
            ServerSettings settings{p.port, SETTINGS_DEFAULT_BUFFER_SIZE, "index.html", "./"};
            EXPECT_EQ(take(pairing_code_build(&settings, slots.slot.data())),
                      std::string(PAIRING_MARKER) + p.part + a.part);
            EXPECT_EQ(take(pairing_address_hex(slots.slot.data(), LAN_ADDRESS_SLOT_COUNT)), a.part);
        }
    }
}

TEST(PairingCode, ThirtyAddressesFitAndCountBoundsTheWalk)
{
    std::vector<std::string> texts;
    for (int i = 1; i <= LAN_ADDRESS_SLOT_COUNT; ++i)
        texts.push_back("10.0.1." + std::to_string(i));
    std::vector<const char *> pointers;
    for (const std::string &text : texts)
        pointers.push_back(text.c_str());
    Slots slots(pointers);
    ServerSettings settings{-1, SETTINGS_DEFAULT_BUFFER_SIZE, "index.html", "./"};
    const std::string code = take(pairing_code_build(&settings, slots.slot.data()));
    EXPECT_EQ(code.size(), 20u + 8u + 30u * 8u);
    EXPECT_EQ(code.substr(code.size() - 8), "0a00011e");
    EXPECT_EQ(take(pairing_address_hex(slots.slot.data(), 2)), "0a0001010a000102");
    EXPECT_EQ(take(pairing_address_hex(slots.slot.data(), 0)), "");
}

} // namespace
