// LAN addresses: every IPv4 address of the machine, and the filter that decides which are offered.
#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "pairing/pairing.h"

namespace {

/// An inclusive range of addresses, written as dotted quads.
struct AddressRange {
    const char *first;
    const char *last;
};

constexpr AddressRange RESERVED_RANGES[] = {
    {"0.0.0.0", "0.0.0.0"},
    {"127.0.0.0", "127.255.255.255"},
    {"224.0.0.0", "255.255.255.255"},
};
constexpr AddressRange LINK_LOCAL_RANGES[] = {
    {"169.254.0.0", "169.254.255.255"},
};
constexpr AddressRange PRIVATE_RANGES[] = {
    {"10.0.0.0", "10.255.255.255"},
    {"172.16.0.0", "172.31.255.255"},
    {"192.168.0.0", "192.168.255.255"},
};

uint32_t bound_value(const char *dotted_quad)
{
    return ntohl(inet_addr(dotted_quad));
}

template <size_t N>
int in_any_range(uint32_t value, const AddressRange (&ranges)[N])
{
    for (const AddressRange &range : ranges)
        if (value >= bound_value(range.first) && value <= bound_value(range.last))
            return 1;
    return 0;
}

int has_ipv4_address(const ifaddrs *entry)
{
    return entry->ifa_addr != nullptr && entry->ifa_addr->sa_family == AF_INET;
}

} // namespace

int lan_address_collect_list(const ifaddrs *head, char **slots)
{
    int filled = 0;
    for (const ifaddrs *entry = head; entry != nullptr; entry = entry->ifa_next) {
        if (!has_ipv4_address(entry))
            continue;
        // Beyond the table's last slot there is nowhere to keep an address: it is dropped.
        if (filled == LAN_ADDRESS_SLOT_COUNT)
            break;
        char text[LAN_ADDRESS_TEXT_SIZE] = {};
        const auto *address = reinterpret_cast<const sockaddr_in *>(entry->ifa_addr);
        inet_ntop(AF_INET, &address->sin_addr, text, sizeof text);
        slots[filled] = static_cast<char *>(calloc(1, LAN_ADDRESS_TEXT_SIZE));
        memcpy(slots[filled], text, sizeof text);
        filled++;
    }
    return filled;
}

int lan_address_collect(char **slots)
{
    ifaddrs *list = nullptr;
    if (getifaddrs(&list) == -1) {
        perror("getifaddrs() error");
        return -1;
    }
    lan_address_collect_list(list, slots);
    freeifaddrs(list);
    return 0;
}

char *lan_address_first_non_loopback()
{
    ifaddrs *list = nullptr;
    if (getifaddrs(&list) == -1) {
        perror("getifaddrs");
        return nullptr;
    }
    char *host = nullptr;
    for (const ifaddrs *entry = list; entry != nullptr && host == nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr)
            continue;
        printf("ifa->ifa_name: %s\n", entry->ifa_name);
        if (entry->ifa_addr->sa_family != AF_INET || strcmp(entry->ifa_name, "lo") == 0)
            continue;
        host = static_cast<char *>(calloc(1, NI_MAXHOST));
        if (getnameinfo(entry->ifa_addr, sizeof(sockaddr_in), host, NI_MAXHOST, nullptr, 0, NI_NUMERICHOST) != 0)
            host[0] = '\0';
    }
    freeifaddrs(list);
    return host;
}

int lan_address_is_ipv4_text(const char *text)
{
    in_addr address{};
    return inet_pton(AF_INET, text, &address) == 1 ? 1 : 0;
}

uint32_t lan_address_value(const char *text)
{
    in_addr address{};
    if (inet_pton(AF_INET, text, &address) != 1)
        return 0;
    return ntohl(address.s_addr);
}

int lan_address_is_reserved(uint32_t value)
{
    return in_any_range(value, RESERVED_RANGES);
}

int lan_address_is_link_local(uint32_t value)
{
    return in_any_range(value, LINK_LOCAL_RANGES);
}

int lan_address_is_private(uint32_t value)
{
    return in_any_range(value, PRIVATE_RANGES);
}

int lan_address_qualifies(const char *text)
{
    if (!lan_address_is_ipv4_text(text))
        return 0;
    const uint32_t value = lan_address_value(text);
    if (lan_address_is_reserved(value) || lan_address_is_link_local(value))
        return 0;
    // Public addresses are offered just like private ones: the answer is looked at, not used.
    (void)lan_address_is_private(value);
    return 1;
}
