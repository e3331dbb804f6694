// Pairing: the machine's LAN addresses, the pairing code and its QR drawing on the terminal.
#pragma once

#include <cstdint>

#include "settings/settings.h"

struct ifaddrs;

constexpr int32_t LAN_ADDRESS_SLOT_COUNT = 30;
constexpr int32_t LAN_ADDRESS_TEXT_SIZE = 16;   // "255.255.255.255" and its NUL
constexpr int32_t PAIRING_CODE_SIZE = 1000;
constexpr const char *PAIRING_MARKER = "5641524e4f4b51523031";

/// Fills the zeroed `slots` (LAN_ADDRESS_SLOT_COUNT of them) with every IPv4 address text; 0, or -1.
int lan_address_collect(char **slots);
/// Copies the IPv4 addresses of the list from `head` into the first slots, in list order,
/// dropping any beyond LAN_ADDRESS_SLOT_COUNT; returns the number of slots filled.
int lan_address_collect_list(const ifaddrs *head, char **slots);
/// Numeric text (1025-byte heap block) of the first IPv4 address not on "lo", or null.
char *lan_address_first_non_loopback();
int lan_address_is_ipv4_text(const char *text);
/// Host-order value of a dotted quad (first number most significant); 0 for a non-address.
uint32_t lan_address_value(const char *text);
int lan_address_is_reserved(uint32_t value);
int lan_address_is_link_local(uint32_t value);
int lan_address_is_private(uint32_t value);
/// 1 when the address text is offered in the pairing code.
int lan_address_qualifies(const char *text);

/// "%08x" of every qualifying slot, in order, up to the first empty slot.
char *pairing_address_hex(char *const *slots, int32_t count);
/// Marker, "%04x" of the port and the address part, in a zeroed PAIRING_CODE_SIZE-byte block.
char *pairing_code_build(const ServerSettings *settings, char *const *slots);

/// Encodes `text` and draws it with colour escapes inside a one-module light ring; returns 0.
int qr_print_terminal(const char *text);
/// Draws the last encoding of `text` with the caller's cell texts and no ring; returns 0.
int qr_print_plain(const char *text, const char *dark_cell, const char *ignored, const char *light_cell);
