// Pairing code: marker, port and offered addresses as one run of lower-case hexadecimal digits.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "pairing/pairing.h"

namespace {

// "%04x" of any 32-bit port: up to eight digits and the NUL.
constexpr size_t PORT_TEXT_SIZE = 9;
constexpr int ADDRESS_HEX_DIGITS = 8;

static_assert(std::char_traits<char>::length(PAIRING_MARKER) + PORT_TEXT_SIZE - 1 + LAN_ADDRESS_SLOT_COUNT * ADDRESS_HEX_DIGITS < PAIRING_CODE_SIZE,
              "the longest pairing code fits its block");

// The parts of the last code built are kept with it for the life of the process; a second
// build (only tests make one) replaces them.
char *kept_address_hex = nullptr;
char *kept_port_text = nullptr;

void keep_parts(char *address_hex, char *port_text)
{
    free(kept_address_hex);
    free(kept_port_text);
    kept_address_hex = address_hex;
    kept_port_text = port_text;
}

} // namespace

char *pairing_address_hex(char *const *slots, int32_t count)
{
    const size_t slot_count = count > 0 ? static_cast<size_t>(count) : 0;
    char *hex = static_cast<char *>(calloc(slot_count * ADDRESS_HEX_DIGITS + 1, 1));
    size_t position = 0;
    for (size_t i = 0; i < slot_count && slots[i] != nullptr; ++i) {
        if (!lan_address_qualifies(slots[i]))
            continue;
        snprintf(hex + position, ADDRESS_HEX_DIGITS + 1, "%08x", lan_address_value(slots[i]));
        position += ADDRESS_HEX_DIGITS;
    }
    return hex;
}

char *pairing_code_build(const ServerSettings *settings, char *const *slots)
{
    char *address_hex = pairing_address_hex(slots, LAN_ADDRESS_SLOT_COUNT);
    const char *marker = PAIRING_MARKER;
    char *port_text = static_cast<char *>(calloc(PORT_TEXT_SIZE, 1));
    snprintf(port_text, PORT_TEXT_SIZE, "%04x", static_cast<uint32_t>(settings->port));
    char *code = static_cast<char *>(calloc(PAIRING_CODE_SIZE, 1));
    snprintf(code, PAIRING_CODE_SIZE, "%s%s%s", marker, port_text, address_hex);
    keep_parts(address_hex, port_text);
    return code;
}
