// varnok-link: run in the game folder before the server, prints a link per LAN address as a QR symbol.
#include <array>
#include <cstdio>
#include <cstdlib>

#include "link/link.h"
#include "pairing/pairing.h"

int main()
{
    std::array<char *, LAN_ADDRESS_SLOT_COUNT> slots{};
    if (lan_address_collect(slots.data()) != 0) {
        printf("The network interfaces cannot be listed, so no link can be given.\n");
        return 1;
    }
    link_print_all(stdout, link_port_read(), slots.data(), LAN_ADDRESS_SLOT_COUNT);
    for (char *slot : slots)
        free(slot);
    return 0;
}
