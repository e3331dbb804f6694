#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>

#include "server/request.h"
#include "support/heap_text.h"

// "method|path|version" as the split leaves them in destinations of the accept loop's sizes.
static std::string split(std::string bytes)
{
    char method[10], path[1024], version[32];
    split_request_line(bytes.data(), method, sizeof method, path, sizeof path, version, sizeof version);
    return std::string(method) + "|" + path + "|" + version;
}

TEST(SplitRequestLine, CutsThreeTokensAsStrtokDoesAndEndsTheProcessOnAMissingOrOverlongOne)
{
    const std::pair<const char *, const char *> cases[] = {
        {"GET /index.html HTTP/1.1\r\nHost: x\r\n", "GET|/index.html|HTTP/1.1\r"},
        {"GET  /a.html  HTTP/1.1\r\n", "GET|/a.html| HTTP/1.1\r"}, {"  POST\t/x y z\n", "POST\t/x|y|z"},
        {"GET /x\r\nHost: y\r\n", "GET|/x\r\nHost:|y\r"},       {"GET / HTTP/1.0", "GET|/|HTTP/1.0"},
    };
    for (auto [bytes, tokens] : cases)
        EXPECT_EQ(split(bytes), tokens);

    const std::string longest_path = "/" + std::string(1022, 'a');
    EXPECT_EQ(split("GET " + longest_path + " HTTP/1.1\r\n"), "GET|" + longest_path + "|HTTP/1.1\r");
    EXPECT_DEATH(split("GET " + longest_path + "a HTTP/1.1\r\n"), "");
    EXPECT_DEATH(split("GET /\r\n"), "");
}

TEST(TextCodecsAndUtilities, PercentCodingFindTrimAndReplace)
{
    const std::pair<const char *, const char *> cases[] = {
        {"/a+b.html", "/a+b.html"}, {"/a%2Bb.html", "/a+b.html"}, {"/a%20b.html", "/a b.html"}, {"/%zz", "/%zz"},
        {"/100%", "/100%"},         {"/%4", "/%4"},               {"/%41%62c", "/Abc"},         {"%%41", "%A"},
        {"/%e4%bd%a0.html", "/\xe4\xbd\xa0.html"},                {"/x.html%00.png", "/x.html"}, {"", ""},
    };
    for (auto [in, out] : cases)
        EXPECT_EQ(taken(url_decode(in)), out) << in;

    EXPECT_EQ(find_text("hello world", "world"), 6);
    EXPECT_EQ(find_text("hello", "x"), -1);
    const std::pair<const char *, const char *> trims[] = {
        {" \t a b \t ", "a b"}, {"\r\nx\r\n", "\r\nx\r\n"}, {" \t ", ""}, {"x", "x"}};
    for (auto [in, out] : trims) {
        std::string text = in;
        EXPECT_EQ(trim_blanks(text.data()), static_cast<int32_t>(strlen(out)));
        EXPECT_STREQ(text.c_str(), out);
    }

    // Needle, replacement, text, result: a text that grows is rebuilt from the end, one that shrinks from the
    // front; occurrences do not overlap; a failed partial match restarts the scan at its last byte only, so the
    // needle "aab" is missed in "aaab"; no replacement removes; no needle changes nothing.
    const std::tuple<const char *, const char *, const char *, const char *> replacements[] = {
        {"a", "xyz", "banana", "bxyznxyznxyz"}, {"ana", "_", "banana", "b_na"}, {"ab", "cd", "abab", "cdcd"},
        {"ab", "X", "aab", "aX"}, {"aab", "X", "aaab", "aaab"}, {"o", nullptr, "foo boo", "f b"},
        {"", "x", "same", "same"}, {nullptr, "x", "same", "same"}};
    for (auto [needle, replacement, text, result] : replacements)
        EXPECT_EQ(taken(replace_all(needle, replacement, const_cast<char *>(text), -1)), result) << text;
    EXPECT_EQ(replace_all("a", "b", nullptr, -1), nullptr);

    char text[10] = "a-b-c";
    EXPECT_EQ(replace_all("-", "==", text, 8), text); // in place, just within the capacity
    EXPECT_STREQ(text, "a==b==c");
    EXPECT_EQ(replace_all("==", "===", text, 9), nullptr); // "a===b===c" needs 10 bytes
    EXPECT_EQ(std::string(text, 7), std::string("a\0\0b\0\0c", 7)); // the marks stay
}
