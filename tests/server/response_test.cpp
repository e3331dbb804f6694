#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>
#include <string>

#include "server/content_type.h"
#include "server/response.h"
#include "support/not_found_page.h"

namespace {

std::string header(int32_t status, const char *extra, const char *type, int64_t modified, int64_t length)
{
    char *block = build_response_header(status, extra, type, modified, length);
    std::string text = block;
    free(block);
    return text;
}

const std::string DATE = "Date: [A-Z][a-z]{2}, \\d{2} [A-Z][a-z]{2} \\d{4} \\d{2}:\\d{2}:\\d{2} GMT\r\n";

TEST(ResponseHeader, ComposesItsLinesInOrder)
{
    struct Case {
        int32_t status;
        const char *extra, *type;
        int64_t modified, length;
        std::string expected; // a pattern; the Date line is filled in
    } cases[] = {
        {200, nullptr, "text/html; charset=UTF-8", 0, 1234,
         "HTTP/1.1 200 OK\r\nServer: Varnok HTTP Server 0\\.7\\.1\\.1\r\n" + DATE +
             "Content-Type: text/html; charset=UTF-8\r\nContent-Length: 1234\r\n"
             "Last-Modified: Thu, 01 Jan 1970 00:00:00 GMT\r\nConnection: close\r\n\r\n"},
        {404, nullptr, "*.html", -1, 546,
         "HTTP/1.1 404 Not Found\r\nServer: .*\r\n" + DATE +
             "Content-Type: \\*\\.html\r\nContent-Length: 546\r\nConnection: close\r\n\r\n"},
        {500, "X-Extra: 1", nullptr, -2, 0,
         "HTTP/1.1 500 Unknown\r\nServer: .*\r\n" + DATE +
             "X-Extra: 1\r\nContent-Length: 0\r\nLast-Modified: Wed, 31 Dec 1969 23:59:58 GMT\r\n"
             "Connection: close\r\n\r\n"},
    };
    for (const Case &c : cases)
        EXPECT_TRUE(std::regex_match(header(c.status, c.extra, c.type, c.modified, c.length), std::regex(c.expected)))
            << header(c.status, c.extra, c.type, c.modified, c.length);
}

TEST(ResponseHeader, HoldsALongCallerTextWhole)
{
    const std::string type(5000, 't');
    EXPECT_NE(header(200, nullptr, type.c_str(), -1, 1).find("Content-Type: " + type + "\r\n"), std::string::npos);
}

TEST(NotFoundPage, IsTheFixedPageWithTheMakersAddress)
{
    char *page = build_not_found_page();
    EXPECT_EQ(page, NOT_FOUND_PAGE);
    EXPECT_EQ(NOT_FOUND_PAGE.size(), 523u + std::string("https://varnok.example/").size());
    free(page);
}

TEST(ContentType, ByTheLastDotOfTheWholeText)
{
    const char *const PLAIN = "text/plain; charset=UTF-8";
    struct Case {
        const char *name, *type;
    } cases[] = {
        {"/index.html", "text/html; charset=UTF-8"}, {"/a.htm", "text/html; charset=UTF-8"},
        {"/a.xht", "application/xhtml+xml; charset=UTF-8"}, {"/a.jpeg", "image/jpeg"},
        {"/a.gif", "image/gif"}, {"/a.png", "image/png"}, {"/a.css", "text/css"},
        {"/game.js", "text/javascript"}, {"/a.xsl", "text/xml; charset=UTF-8"}, {"/a.au", "audio/basic"},
        {"/a.wav", "audio/wav"}, {"/a.avi", "video/x-msvideo"}, {"/a.qt", "video/quicktime"},
        {"/a.mpe", "video/mpeg"}, {"/a.wrl", "model/vrml"}, {"/a.mid", "audio/midi"},
        {"/a.mp3", "audio/mpeg"}, {"/a.ogg", "application/ogg"},
        {"/a.pac", "application/x-ns-proxy-autoconfig"}, {"/data.json", "application/json"},
        {"*.txt", PLAIN}, {"/INDEX.HTML", PLAIN}, {"/photo.JPG", PLAIN}, {"/index.html?v=2", PLAIN},
        {"/archive.tar.gz", PLAIN}, {"/notes", PLAIN}, {"/v1.2/readme", PLAIN}, {"/page.ht%6Dl", PLAIN},
        {"/module.wasm", PLAIN}, {"/picture.svg", PLAIN}, {"/file.", PLAIN}, {"/x.html%00.png", "image/png"},
    };
    for (const Case &c : cases)
        EXPECT_STREQ(content_type_for_path(c.name), c.type) << c.name;
}

} // namespace
