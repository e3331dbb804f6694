// qr_encode on arbitrary bytes: a short text always fits, an accepted one is a symbol of version
// 1 to 4, and zbar reads it back as the text. Read-back is asserted for printable ASCII, which zbar
// returns unchanged, of at most 255 bytes: past that a segment's 8-bit length wraps and the symbol
// holds the wrapped stream instead. Writes outside QrSymbol are AddressSanitizer's.
// fuzz/run closes standard output, where the encoder prints ",LEN,VERSION".
#include <zbar.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_check.h"
#include "qr/qr.h"

// What zbar reads from a picture of the grid (4 px a module, 4-module quiet zone).
static std::string read_back() {
    const int scale = 4, quiet = 4, side = (qr_symbol.size + 2 * quiet) * scale;
    const auto size = static_cast<unsigned>(qr_symbol.size); // the quiet zone's negative places wrap past it
    auto dark = [size](unsigned x, unsigned y) { return x < size && y < size && qr_symbol.modules[x][y]; };
    std::vector<uint8_t> pixels(static_cast<size_t>(side * side));
    for (int p = 0; p < side * side; p++)
        pixels[static_cast<size_t>(p)] = dark(p % side / scale - quiet, p / side / scale - quiet) ? 0 : 255;
    static zbar::ImageScanner scanner;
    zbar::Image image(static_cast<unsigned>(side), static_cast<unsigned>(side), "Y800", pixels.data(), pixels.size());
    return scanner.scan(image) > 0 ? image.symbol_begin()->get_data() : "";
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string text = std::string(reinterpret_cast<const char *>(data), size).c_str();
    const int accepted = qr_encode(text.c_str(), 0);
    // Whatever the modes, 29 bytes fit version 4: at most 14 header bits and 8 bits a byte, of 640.
    FUZZ_CHECK(accepted == 1 || (accepted == 0 && (text.empty() || text.size() > 29)));
    FUZZ_CHECK(!accepted || (qr_symbol.version <= QR_MAX_VERSION && qr_symbol.size == qr_symbol.version * 4 + 17));
    const bool printable = std::ranges::all_of(text, [](char c) { return c >= 0x20 && c <= 0x7E; });
    FUZZ_CHECK(!accepted || text.size() > 255 || !printable || read_back() == text);
    return 0;
}
