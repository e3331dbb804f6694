// varnok-link: the port read as the server reads it (and the file left alone), the offered addresses,
// and the printed symbols read back from the half blocks and scanned with zbar.
#include <gtest/gtest.h>
#include <zbar.h>

#include <cstdlib>
#include <cstring>
#include <iomanip>
#include <sstream>
#include <string>
#include <vector>

#include "link/link.h"
#include "pairing/pairing.h"
#include "qr/qr.h"
#include "settings/settings.h"
#include "support/temp_folder.h"

namespace {

/// Everything `print` writes to a stream.
template <typename Print> std::string printed(Print print) {
    char *buffer = nullptr;
    size_t length = 0;
    FILE *out = open_memstream(&buffer, &length);
    print(out);
    fclose(out);
    std::string text(buffer, length);
    free(buffer);
    return text;
}

/// A slot table as lan_address_collect leaves it: heap texts, then empty slots.
struct Slots {
    explicit Slots(const std::vector<std::string> &texts) {
        for (size_t i = 0; i < texts.size(); ++i) slot[i] = strdup(texts[i].c_str());
    }
    ~Slots() { for (char *s : slot) free(s); }
    char *slot[LAN_ADDRESS_SLOT_COUNT] = {};
};

/// The port settings_load gives the server for `json` (its defaults on -1), in a folder of its own.
int32_t server_port(const std::string *json) {
    TempFolder folder;
    if (json) folder.write("package.json", *json);
    WorkingFolder inside(folder.path());
    ServerSettings settings;
    testing::internal::CaptureStdout();
    const int result = settings_load(&settings);
    testing::internal::GetCapturedStdout();
    const int32_t port = result > -1 ? settings.port : SETTINGS_DEFAULT_PORT;
    if (result > -1) settings_release();
    return port;
}

TEST(LinkPort, ReadsThePortAsTheServerDoesAndNeverWrites) {
    const std::string nul_first("\0{}", 3);
    // json (null: no file), the setting, where it came from, whether the member is a number.
    const struct { const char *json; int32_t setting; LinkPortSource source; bool number = true; } cases[] = {
        {nullptr, 1010, LINK_PORT_NO_FILE},
        {"", 1010, LINK_PORT_EMPTY},
        {"   \n", 1010, LINK_PORT_NOT_JSON},
        {"{\"varnok\": {\"port\": 80", 1010, LINK_PORT_NOT_JSON},
        {"{}", 1010, LINK_PORT_NO_SETTINGS},
        {"{\"varnok\": 8080}", 1010, LINK_PORT_NO_SETTINGS},
        {"{\"varnok\": {\"main-file\": \"a.html\"}}", 1010, LINK_PORT_NO_PORT},
        {"{\"varnok\": {\"port\": 8080}}", 8080, LINK_PORT_FROM_FILE},
        {"{\"VARNOK\": {\"Port\": 80}} trailing words", 80, LINK_PORT_FROM_FILE},
        {"{\"varnok\": {\"port\": 1, \"port\": 2}}", 1, LINK_PORT_FROM_FILE},
        {"{\"other\": {\"port\": 9}, \"varnok\": {\"port\": 8080.9}}", 8080, LINK_PORT_FROM_FILE},
        {"{\"varnok\": {\"port\": 70000}}", 70000, LINK_PORT_FROM_FILE},
        {"{\"varnok\": {\"port\": -1}}", -1, LINK_PORT_FROM_FILE},
        {"{\"varnok\": {\"port\": 1e12}}", 2147483647, LINK_PORT_FROM_FILE},
        {"{\"varnok\": {\"port\": \"8080\"}}", 0, LINK_PORT_FROM_FILE, false},
        {"{\"varnok\": {\"port\": true}}", 1, LINK_PORT_FROM_FILE, false},
        {"{\"varnok\": {\"port\": null}}", 0, LINK_PORT_FROM_FILE, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.json ? c.json : "(no file)");
        const std::string json = c.json ? c.json : "";
        TempFolder folder;
        if (c.json) folder.write("package.json", json);
        LinkPort port;
        {
            WorkingFolder inside(folder.path());
            port = link_port_read();
        }
        EXPECT_EQ(port.setting, c.setting);
        EXPECT_EQ(port.source, c.source);
        EXPECT_EQ(port.is_number, c.number);
        EXPECT_EQ(port.setting, server_port(c.json ? &json : nullptr));
        EXPECT_EQ(std::filesystem::exists(folder / "package.json"), c.json != nullptr);
        if (c.json) EXPECT_EQ(folder.read("package.json"), json);
    }
    TempFolder folder;
    folder.write("package.json", nul_first);
    WorkingFolder inside(folder.path());
    EXPECT_EQ(link_port_read().source, LINK_PORT_EMPTY);
    std::filesystem::remove(folder / "package.json");
    std::filesystem::create_directory(folder / "package.json");
    EXPECT_EQ(link_port_read().source, LINK_PORT_UNREADABLE);
}

TEST(LinkPort, BindsTheLowSixteenBits) {
    const struct { int32_t setting; uint16_t bound; } cases[] = {
        {1, 1}, {80, 80}, {1010, 1010}, {8080, 8080}, {65535, 65535}, {70000, 4464}, {0, 0}, {-1, 65535}, {65536, 0}};
    for (const auto &c : cases) EXPECT_EQ(link_bound_port(c.setting), c.bound) << c.setting;
}

/// The picture printed after a URL line, one string of '#' (dark) and ' ' (light) per module row.
/// Fails the test on a cell without both colours set, or on anything but black and white.
std::vector<std::string> read_picture(std::istringstream &lines) {
    std::vector<std::string> rows;
    std::string line;
    while (lines.peek() == '\033' && std::getline(lines, line)) {
        std::string top, bottom;
        int fg = -1, bg = -1;
        for (size_t i = 0; i < line.size();) {
            if (line.compare(i, 2, "\033[") == 0) {
                const size_t end = line.find('m', i);
                const std::string sgr = line.substr(i + 2, end - i - 2);
                if (sgr == "0") fg = bg = -1;
                else EXPECT_EQ(sscanf(sgr.c_str(), "38;5;%d;48;5;%d", &fg, &bg), 2) << sgr;
                i = end + 1;
            } else {
                EXPECT_EQ(line.compare(i, 3, "\xe2\x96\x80"), 0) << "not a half block at " << i;
                EXPECT_TRUE((fg == 16 || fg == 231) && (bg == 16 || bg == 231)) << fg << " " << bg;
                top += fg == 16 ? '#' : ' ';
                bottom += bg == 16 ? '#' : ' ';
                i += 3;
            }
        }
        EXPECT_TRUE(line.ends_with("\033[0m")) << "colours left on after the line";
        rows.push_back(top);
        rows.push_back(bottom);
    }
    return rows;
}

/// What zbar reads from the picture, 3 px a module; "" if nothing.
std::string zbar_read(const std::vector<std::string> &rows) {
    const int scale = 3, width = static_cast<int>(rows.at(0).size()) * scale, height = static_cast<int>(rows.size()) * scale;
    std::vector<unsigned char> pixels(width * height);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) pixels[y * width + x] = rows[y / scale][x / scale] == '#' ? 0 : 255;
    zbar::ImageScanner scanner;
    scanner.set_config(zbar::ZBAR_NONE, zbar::ZBAR_CFG_ENABLE, 0);
    scanner.set_config(zbar::ZBAR_QRCODE, zbar::ZBAR_CFG_ENABLE, 1);
    zbar::Image image(width, height, "Y800", pixels.data(), pixels.size());
    return scanner.scan(image) > 0 ? image.symbol_begin()->get_data() : "";
}

/// Checks one printed symbol of `url`: the grid unmirrored inside a 4-module light zone, size, zbar.
void check_symbol(const std::vector<std::string> &rows, const std::string &url) {
    ASSERT_EQ(qr_encode_quiet(url.c_str()), 1);
    const int quiet = 4, size = qr_symbol.size, side = size + 2 * quiet;
    ASSERT_EQ(rows.size(), static_cast<size_t>(side + 1));  // an odd side: the last half line is light
    for (int y = 0; y <= side; ++y) {
        ASSERT_EQ(rows[y].size(), static_cast<size_t>(side));
        for (int x = 0; x < side; ++x) {
            const int mx = x - quiet, my = y - quiet;
            const bool dark = mx >= 0 && my >= 0 && mx < size && my < size && qr_symbol.modules[mx][my];
            ASSERT_EQ(rows[y][x] == '#', dark) << "module " << mx << "," << my;
        }
    }
    // Any IPv4 URL fits an 80 x 24 terminal with its URL line.
    EXPECT_LE(side, 80);
    EXPECT_LE((side + 1) / 2 + 1, 24);
    EXPECT_EQ(zbar_read(rows), url);
}

const std::vector<std::vector<std::string>> ADDRESS_SETS = {
    {},
    {"127.0.0.1"},
    {"192.168.1.20"},
    {"127.0.0.1", "10.0.0.5", "169.254.3.7", "192.168.1.20"},
    {"10.1.0.1", "10.1.0.2", "172.16.0.1", "172.31.255.254", "192.168.0.1", "192.168.255.254", "203.0.113.9", "223.255.255.255"},
    {"0.0.0.0", "169.254.255.255", "224.0.0.1", "255.255.255.255", "198.51.100.7", "127.255.255.255"},
};
const int32_t PORTS[] = {1, 80, 1010, 8080, 65535, 70000, 0, -1};

TEST(LinkPrint, EveryAddressSetAndPortPrintsReadableLinks) {
    for (const auto &set : ADDRESS_SETS)
        for (const int32_t setting : PORTS) {
            SCOPED_TRACE(::testing::PrintToString(set) + " port " + std::to_string(setting));
            Slots slots(set);
            std::vector<std::string> urls;
            const uint16_t bound = link_bound_port(setting);
            for (const std::string &address : set)
                if (lan_address_qualifies(address.c_str()))
                    urls.push_back("http://" + address + ":" + std::to_string(bound) + "/");
            std::istringstream lines(printed([&](FILE *out) {
                link_print_all(out, {setting, LINK_PORT_FROM_FILE, true}, slots.slot, LAN_ADDRESS_SLOT_COUNT);
            }));
            std::string line;
            if (bound == 0 || urls.empty()) {
                std::getline(lines, line);
                EXPECT_NE(line.find(bound == 0 ? "no link can be known" : "the same network"), std::string::npos) << line;
                EXPECT_FALSE(std::getline(lines, line)) << "more than one line";
                continue;
            }
            for (size_t i = 0; i < urls.size(); ++i) {
                if (i > 0) EXPECT_TRUE(std::getline(lines, line) && line.empty());
                ASSERT_TRUE(std::getline(lines, line));
                EXPECT_EQ(line, urls[i]);
                check_symbol(read_picture(lines), urls[i]);
            }
            EXPECT_FALSE(std::getline(lines, line)) << "more after the last symbol: " << line;
        }
}

TEST(LinkPrint, OfferedAddressesMatchThePairingCode) {
    for (const auto &set : ADDRESS_SETS) {
        Slots slots(set);
        const char *offered[LAN_ADDRESS_SLOT_COUNT];
        const int count = link_offered_addresses(slots.slot, LAN_ADDRESS_SLOT_COUNT, offered);
        std::string hex;
        for (int i = 0; i < count; ++i) hex += (std::ostringstream() << std::hex << std::setfill('0') << std::setw(8)
                                                << lan_address_value(offered[i])).str();
        char *code = pairing_address_hex(slots.slot, LAN_ADDRESS_SLOT_COUNT);
        EXPECT_EQ(hex, code);
        free(code);
    }
}

TEST(LinkPrint, SettingsNotesAndTheQuietEncoder) {
    Slots slots({"192.0.2.1"});
    const struct { LinkPort port; const char *note; } cases[] = {
        {{1010, LINK_PORT_NO_FILE, true}, "package.json: not found"},
        {{1010, LINK_PORT_NOT_JSON, true}, "package.json: not valid JSON; the default port 1010 applies."},
        {{0, LINK_PORT_FROM_FILE, false}, "package.json: the port setting is not a number, so the server takes it as 0."},
        {{8080, LINK_PORT_FROM_FILE, true}, "http://192.0.2.1:8080/"},
    };
    for (const auto &c : cases) {
        const std::string output = printed([&](FILE *out) { link_print_all(out, c.port, slots.slot, 30); });
        EXPECT_EQ(output.rfind(c.note, 0), 0u) << output.substr(0, 80);
    }
    // The quiet entry prints nothing and builds the grid the pairing code's entry builds.
    testing::internal::CaptureStdout();
    ASSERT_EQ(qr_encode("http://192.0.2.1:8080/", 0), 1);
    const QrSymbol loud = qr_symbol;
    ASSERT_EQ(qr_encode_quiet("http://192.0.2.1:8080/"), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), ",22,2");
    EXPECT_EQ(memcmp(loud.modules, qr_symbol.modules, sizeof loud.modules), 0);
}

} // namespace
