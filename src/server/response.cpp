#include "server/response.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "server/product.h"

namespace {

constexpr size_t HEADER_BLOCK_SIZE = 4096;
constexpr size_t PAGE_BLOCK_SIZE = 1000;
constexpr size_t DATE_AREA_SIZE = 100;
// Room for every line but the caller's extra line and content type, with their decorations.
constexpr size_t HEADER_FIXED_ROOM = 512;

constexpr char PAGE_TEMPLATE[] =
    "<!DOCTYPE html>\t\t"
    "<html>\t\t\t\t"
    "<head>\t\t"
    "<meta charset=\"UTF-8\">\t\t"
    "<meta name=\"apple-mobile-web-app-capable\" content=\"yes\">\t\t"
    "<meta name=\"apple-mobile-web-app-status-bar-style\" content=\"black-translucent\">\t\t"
    "<meta name=\"viewport\" content=\"user-scalable=no\">\t\t"
    "<link rel=\"icon\" href=\"icon/icon.png\" type=\"image/png\">\t\t"
    "<link rel=\"apple-touch-icon\" href=\"icon/icon.png\">\t\t"
    "<title>%s</title>\t\t"
    "</head>\t\t\t\t"
    "<body>\t\t"
    "<h1>%s</h1><br><br>%s v%s by <a href=\"%s\" target=\"_blank\">%s</a>\t\t"
    "</body>\t\t"
    "</html>\t\t";
constexpr const char *PAGE_TITLE = "404 Not Found";

static_assert(sizeof PAGE_TEMPLATE - 1 == 480);
// The formatted page is 523 characters plus the maker's address; it must fit its block.
static_assert(523 + MAKER_URL.size() < PAGE_BLOCK_SIZE);

const char *reason_text(int32_t status)
{
    switch (status) {
    case 200:
        return "OK";
    case 404:
        return "Not Found";
    default:
        return "Unknown";
    }
}

// HTTP date of `seconds` in UTC; a time the library cannot convert gives an empty text.
void format_http_date(char *area, int64_t seconds)
{
    const time_t value = static_cast<time_t>(seconds);
    const struct tm *calendar = gmtime(&value);
    area[0] = '\0';
    if (calendar != nullptr)
        strftime(area, DATE_AREA_SIZE, "%a, %d %b %Y %H:%M:%S GMT", calendar);
}

} // namespace

char *build_response_header(int32_t status, const char *extra_line, const char *content_type,
                            int64_t last_modified, int64_t content_length)
{
    size_t capacity = HEADER_BLOCK_SIZE;
    size_t caller_text = (extra_line ? strlen(extra_line) : 0) + (content_type ? strlen(content_type) : 0);
    if (caller_text + HEADER_FIXED_ROOM > capacity)
        capacity = caller_text + HEADER_FIXED_ROOM;
    char *block = static_cast<char *>(malloc(capacity));
    char date[DATE_AREA_SIZE];
    int32_t at = 0;

    at += snprintf(block + at, capacity - at, "%s %d %s\r\n", "HTTP/1.1", status, reason_text(status));
    at += snprintf(block + at, capacity - at, "Server: %s %s\r\n", PRODUCT_NAME, PRODUCT_SERVER_VERSION);
    format_http_date(date, time(nullptr));
    at += snprintf(block + at, capacity - at, "Date: %s\r\n", date);
    if (extra_line != nullptr)
        at += snprintf(block + at, capacity - at, "%s\r\n", extra_line);
    if (content_type != nullptr)
        at += snprintf(block + at, capacity - at, "Content-Type: %s\r\n", content_type);
    at += snprintf(block + at, capacity - at, "Content-Length: %ld\r\n", static_cast<long>(content_length));
    if (last_modified != NO_TIME) {
        format_http_date(date, last_modified);
        at += snprintf(block + at, capacity - at, "Last-Modified: %s\r\n", date);
    }
    at += snprintf(block + at, capacity - at, "Connection: close\r\n");
    snprintf(block + at, capacity - at, "\r\n");
    return block;
}

char *build_not_found_page()
{
    char *page = static_cast<char *>(malloc(PAGE_BLOCK_SIZE));
    snprintf(page, PAGE_BLOCK_SIZE, PAGE_TEMPLATE, PAGE_TITLE, PAGE_TITLE, PRODUCT_NAME, PRODUCT_VERSION,
             MAKER_URL.data(), MAKER_NAME);
    return page;
}
