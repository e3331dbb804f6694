// qr_encode on arbitrary bytes: it refuses what needs a version above 4, and every symbol it
// accepts reads back through zbar as the text (checked for printable ASCII, which zbar returns
// unchanged). Writes outside QrSymbol are AddressSanitizer's to catch.
#include <zbar.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_check.h"
#include "qr/qr.h"

using namespace zbar; // zbar.h puts its C interface in this namespace under C++

namespace {

// Whatever the segmentation, a text this short fits version 4 (at most 14 header bits and 8 data
// bits per byte, against 640 data bits), and one this long cannot (187 digits fill version 4).
constexpr size_t ALWAYS_FITS = 29;
constexpr size_t NEVER_FITS = 188;

zbar_image_scanner_t *scanner;

/// The text zbar reads from a picture of the grid (4 px a module, 4-module quiet zone).
std::string decode_symbol()
{
    const int scale = 4, quiet = 4, side = (qr_symbol.size + 2 * quiet) * scale;
    std::vector<unsigned char> pixels(static_cast<size_t>(side * side), 255);
    for (int py = 0; py < side; ++py)
        for (int px = 0; px < side; ++px) {
            const int x = px / scale - quiet, y = py / scale - quiet;
            if (x >= 0 && y >= 0 && x < qr_symbol.size && y < qr_symbol.size && qr_symbol.modules[x][y])
                pixels[static_cast<size_t>(py * side + px)] = 0;
        }
    zbar_image_t *image = zbar_image_create();
    zbar_image_set_format(image, zbar_fourcc('Y', '8', '0', '0'));
    zbar_image_set_size(image, static_cast<unsigned>(side), static_cast<unsigned>(side));
    zbar_image_set_data(image, pixels.data(), pixels.size(), nullptr);
    std::string text;
    if (zbar_scan_image(scanner, image) > 0) {
        const zbar_symbol_t *symbol = zbar_image_first_symbol(image);
        text.assign(zbar_symbol_get_data(symbol), zbar_symbol_get_data_length(symbol));
    }
    zbar_image_destroy(image);
    return text;
}

bool printable_ascii(const std::string &text)
{
    for (char c : text)
        if (c < 0x20 || c > 0x7E)
            return false;
    return true;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz_silence_stdout();
    scanner = zbar_image_scanner_create();
    zbar_image_scanner_set_config(scanner, ZBAR_NONE, ZBAR_CFG_ENABLE, 0);
    zbar_image_scanner_set_config(scanner, ZBAR_QRCODE, ZBAR_CFG_ENABLE, 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string input(reinterpret_cast<const char *>(data), size);
    const std::string text = input.c_str();

    const int accepted = qr_encode(text.c_str(), 0);
    if (text.empty() || text.size() >= NEVER_FITS) {
        FUZZ_CHECK(accepted == 0);
        return 0;
    }
    if (text.size() <= ALWAYS_FITS)
        FUZZ_CHECK(accepted == 1);
    if (!accepted)
        return 0;
    FUZZ_CHECK(qr_symbol.version >= 1 && qr_symbol.version <= QR_MAX_VERSION);
    FUZZ_CHECK(qr_symbol.size == qr_symbol.version * 4 + 17);
    for (int x = 0; x < qr_symbol.size; ++x)
        for (int y = 0; y < qr_symbol.size; ++y)
            FUZZ_CHECK(qr_symbol.modules[x][y] <= 1);
    if (printable_ascii(text))
        FUZZ_CHECK(decode_symbol() == text);
    return 0;
}
