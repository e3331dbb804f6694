#include <gtest/gtest.h>

#include <regex>
#include <sstream>
#include <string>

#include "server/content_type.h"
#include "server/response.h"
#include "support/heap_text.h"
#include "support/not_found_page.h"

// The header text with its current-time Date value replaced by "<now>", once it has the HTTP date form.
static std::string header(int32_t status, const char *extra, const char *type, int64_t modified, int64_t length)
{
    const std::regex date("\r\nDate: [A-Z][a-z]{2}, \\d{2} [A-Z][a-z]{2} \\d{4} \\d{2}:\\d{2}:\\d{2} GMT\r\n");
    return std::regex_replace(taken(build_response_header(status, extra, type, modified, length)), date,
                              "\r\nDate: <now>\r\n");
}

TEST(Response, HeaderLinesInOrderAndTheFixedNotFoundPage)
{
    const std::string start = "Server: Varnok HTTP Server 0.7.1.1\r\nDate: <now>\r\n";
    EXPECT_EQ(header(200, nullptr, "text/html; charset=UTF-8", 0, 1234),
              "HTTP/1.1 200 OK\r\n" + start + "Content-Type: text/html; charset=UTF-8\r\nContent-Length: 1234\r\n"
              "Last-Modified: Thu, 01 Jan 1970 00:00:00 GMT\r\nConnection: close\r\n\r\n");
    EXPECT_EQ(header(404, nullptr, "*.html", -1, 546), "HTTP/1.1 404 Not Found\r\n" + start +
              "Content-Type: *.html\r\nContent-Length: 546\r\nConnection: close\r\n\r\n");
    EXPECT_EQ(header(500, "X-Extra: 1", nullptr, -2, 0),
              "HTTP/1.1 500 Unknown\r\n" + start + "X-Extra: 1\r\nContent-Length: 0\r\n"
              "Last-Modified: Wed, 31 Dec 1969 23:59:58 GMT\r\nConnection: close\r\n\r\n");
    const std::string type(5000, 't'); // a caller's text is not cut
    EXPECT_NE(header(200, nullptr, type.c_str(), -1, 1).find("Content-Type: " + type + "\r\n"), std::string::npos);
    EXPECT_EQ(taken(build_not_found_page()), NOT_FOUND_PAGE);
}

TEST(ContentType, ByTheLastDotOfTheWholeText)
{
    const std::pair<const char *, const char *> cases[] = { // names separated by blanks, their type
        {"/index.html /a.htm", "text/html; charset=UTF-8"}, {"/a.xhtml /a.xht", "application/xhtml+xml; charset=UTF-8"},
        {"/a.jpg /a.jpeg", "image/jpeg"}, {"/a.gif", "image/gif"}, {"/a.png /x.html%00.png", "image/png"},
        {"/a.css", "text/css"}, {"/game.js", "text/javascript"}, {"/a.xml /a.xsl", "text/xml; charset=UTF-8"},
        {"/a.au", "audio/basic"}, {"/a.wav", "audio/wav"}, {"/a.avi", "video/x-msvideo"},
        {"/a.mov /a.qt", "video/quicktime"}, {"/a.mpeg /a.mpe", "video/mpeg"}, {"/a.vrml /a.wrl", "model/vrml"},
        {"/a.midi /a.mid", "audio/midi"}, {"/a.mp3", "audio/mpeg"}, {"/a.ogg", "application/ogg"},
        {"/a.pac", "application/x-ns-proxy-autoconfig"}, {"/data.json", "application/json"},
        {"*.txt /INDEX.HTML /photo.JPG /index.html?v=2 /archive.tar.gz /notes /v1.2/readme /page.ht%6Dl "
         "/module.wasm /picture.svg /file.",
         "text/plain; charset=UTF-8"},
    };
    for (auto [names, type] : cases) {
        std::istringstream each(names);
        for (std::string name; each >> name;)
            EXPECT_STREQ(content_type_for_path(name.c_str()), type) << name;
    }
}
