// The product's own words: names, the two version texts and the maker's address.
#pragma once

#include <string_view>

constexpr const char *PRODUCT_NAME = "Varnok HTTP Server";
constexpr const char *PRODUCT_VERSION = "0.7.1";         // banner and not-found page
constexpr const char *PRODUCT_SERVER_VERSION = "0.7.1.1"; // Server header line
constexpr const char *MAKER_NAME = "Varnok";
constexpr std::string_view MAKER_URL = "https://varnok.example/";
