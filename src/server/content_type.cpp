#include "server/content_type.h"

#include <array>
#include <cstring>

namespace {

struct ContentTypeRow {
    const char *first_extension;
    const char *second_extension; // null when the row has one
    const char *media_type;
};

constexpr const char *DEFAULT_TYPE = "text/plain; charset=UTF-8";

// Tested in this order; within a row the first extension first.
constexpr std::array<ContentTypeRow, 19> CONTENT_TYPES{{
    {".html", ".htm", "text/html; charset=UTF-8"},
    {".xhtml", ".xht", "application/xhtml+xml; charset=UTF-8"},
    {".jpg", ".jpeg", "image/jpeg"},
    {".gif", nullptr, "image/gif"},
    {".png", nullptr, "image/png"},
    {".css", nullptr, "text/css"},
    {".js", nullptr, "text/javascript"},
    {".xml", ".xsl", "text/xml; charset=UTF-8"},
    {".au", nullptr, "audio/basic"},
    {".wav", nullptr, "audio/wav"},
    {".avi", nullptr, "video/x-msvideo"},
    {".mov", ".qt", "video/quicktime"},
    {".mpeg", ".mpe", "video/mpeg"},
    {".vrml", ".wrl", "model/vrml"},
    {".midi", ".mid", "audio/midi"},
    {".mp3", nullptr, "audio/mpeg"},
    {".ogg", nullptr, "application/ogg"},
    {".pac", nullptr, "application/x-ns-proxy-autoconfig"},
    {".json", nullptr, "application/json"},
}};

bool same_text(const char *a, const char *b)
{
    return b != nullptr && strcmp(a, b) == 0;
}

} // namespace

const char *content_type_for_path(const char *name)
{
    // The extension runs from the last dot of the whole text: folders and query strings included.
    const char *extension = strrchr(name, '.');
    if (extension == nullptr)
        return DEFAULT_TYPE;
    for (const ContentTypeRow &row : CONTENT_TYPES) {
        if (same_text(extension, row.first_extension) || same_text(extension, row.second_extension))
            return row.media_type;
    }
    return DEFAULT_TYPE;
}
