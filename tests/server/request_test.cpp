#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "server/request.h"

namespace {

struct HeapText {
    char *text;
    ~HeapText() { free(text); }
    std::string str() const { return text ? std::string(text) : std::string("<null>"); }
};

struct Tokens {
    std::string method, path, version;
};

// Splits `bytes` as they would stand at the start of a receive area that already holds `stale`.
Tokens split(const std::string &bytes, std::string stale = "")
{
    stale.resize(std::max(stale.size(), bytes.size()) + 1, '\0');
    stale.replace(0, bytes.size(), bytes);
    char method[64], path[1024], version[64];
    split_request_line(stale.data(), method, sizeof method, path, sizeof path, version, sizeof version);
    return {method, path, version};
}

TEST(SplitRequestLine, CutsThreeTokensAsStrtokDoes)
{
    struct Case {
        const char *bytes, *method, *path, *version;
    } cases[] = {
        {"GET /index.html HTTP/1.1\r\nHost: x\r\n", "GET", "/index.html", "HTTP/1.1\r"},
        {"GET  /a.html  HTTP/1.1\r\n", "GET", "/a.html", " HTTP/1.1\r"},
        {"  POST /x y z\n", "POST", "/x", "y z"},
        {"GET / HTTP/1.0", "GET", "/", "HTTP/1.0"},
    };
    for (const Case &c : cases) {
        Tokens t = split(c.bytes);
        EXPECT_EQ(t.method, c.method) << c.bytes;
        EXPECT_EQ(t.path, c.path) << c.bytes;
        EXPECT_EQ(t.version, c.version) << c.bytes;
    }
}

TEST(SplitRequestLine, TakesAMissingTokenFromWhatTheAreaStillHolds)
{
    // The earlier split left zero bytes where its delimiters stood; "GET /b " runs into "html".
    std::string area = "GET /a.html HTTP/1.1\r\n";
    char method[64], path[64], version[64];
    split_request_line(area.data(), method, sizeof method, path, sizeof path, version, sizeof version);
    Tokens t = split("GET /b ", area);
    EXPECT_EQ(t.path, "/b");
    EXPECT_EQ(t.version, "html");
    EXPECT_DEATH(split("GET /b", area), ""); // "/b.html" ends at a zero byte: no third token
}

TEST(SplitRequestLineDeathTest, EndsTheProcessOnAMissingTokenOrAnOverlongPath)
{
    EXPECT_DEATH(split("GET /\r\n"), "");
    EXPECT_DEATH(split("GET"), "");
    EXPECT_DEATH(split("GET /" + std::string(1023, 'a') + " HTTP/1.1\r\n"), "");
    EXPECT_EQ(split("GET /" + std::string(1022, 'a') + " HTTP/1.1\r\n").path.size(), 1023u);
}

TEST(UrlCodec, DecodesEscapesAndLeavesEverythingElse)
{
    struct Case {
        const char *in, *out;
    } cases[] = {
        {"/a+b.html", "/a+b.html"},   {"/a%2Bb.html", "/a+b.html"},       {"/a%20b.html", "/a b.html"},
        {"/%zz", "/%zz"},             {"/100%", "/100%"},                  {"/%4", "/%4"},
        {"/%41%62c", "/Abc"},         {"/%e4%bd%a0.html", "/\xe4\xbd\xa0.html"}, {"%%41", "%A"},
        {"/x.html%00.png", "/x.html"}, {"", ""},
    };
    for (const Case &c : cases)
        EXPECT_EQ(HeapText{url_decode(c.in)}.str(), c.out) << c.in;
}

TEST(UrlCodec, EncodesAndRoundTrips)
{
    EXPECT_EQ(HeapText{url_encode("a b/c+d.txt")}.str(), "a%20b%2Fc+d.txt");
    EXPECT_EQ(HeapText{url_encode("\xe9-_.~")}.str(), "%E9-_.~");
    std::string all;
    for (int c = 1; c < 256; c++)
        all += static_cast<char>(c);
    HeapText encoded{url_encode(all.c_str())};
    EXPECT_EQ(HeapText{url_decode(encoded.text)}.str(), all);
}

TEST(TextUtilities, FindTextAndTrimBlanks)
{
    EXPECT_EQ(find_text("hello world", "world"), 6);
    EXPECT_EQ(find_text("hello", "x"), -1);
    EXPECT_EQ(find_text("hello", ""), 0);

    struct Case {
        const char *in, *out;
    } cases[] = {{" \t a b \t ", "a b"}, {"\r\nx\r\n", "\r\nx\r\n"}, {" \t ", ""}, {"", ""}, {"x", "x"}};
    for (const Case &c : cases) {
        std::string text = c.in;
        EXPECT_EQ(trim_blanks(text.data()), static_cast<int32_t>(strlen(c.out)));
        EXPECT_STREQ(text.c_str(), c.out);
    }
}

TEST(TextUtilities, ReplaceAllOnACopy)
{
    struct Case {
        const char *needle, *replacement, *text, *result;
    } cases[] = {
        {"a", "xyz", "banana", "bxyznxyznxyz"},   // grows: rebuilt from the end
        {"ana", "_", "banana", "b_na"},           // shrinks; the scan does not overlap occurrences
        {"aab", "X", "aaab", "aaab"},             // a match inside a failed partial match is missed
        {"o", nullptr, "foo boo", "f b"},         // null replacement removes
        {"", "x", "same", "same"},
        {nullptr, "x", "same", "same"},
        {"zz", "x", "none", "none"},
        {"ab", "cd", "abab", "cdcd"},
    };
    for (const Case &c : cases) {
        HeapText text{replace_all(c.needle, c.replacement, const_cast<char *>(c.text), -1)};
        EXPECT_EQ(text.str(), c.result) << c.text;
    }
    EXPECT_EQ(replace_all("a", "b", nullptr, -1), nullptr);
}

TEST(TextUtilities, ReplaceAllInPlaceWithinCapacity)
{
    char roomy[16] = "a-b-c";
    EXPECT_EQ(replace_all("-", "==", roomy, sizeof roomy), roomy);
    EXPECT_STREQ(roomy, "a==b==c");

    char tight[8] = "a-b-c";
    EXPECT_EQ(replace_all("-", "===", tight, sizeof tight), nullptr);
    EXPECT_EQ(std::string(tight, 5), std::string("a\0b\0c", 5)); // the marks stay
}

} // namespace
