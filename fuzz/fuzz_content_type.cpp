// content_type_for_path on arbitrary names: always one of the table's texts, the one that a plain
// lookup of the text from the last dot on gives.
#include <cstdint>
#include <cstring>
#include <map>
#include <string>

#include "fuzz_check.h"
#include "server/content_type.h"

namespace {

const std::map<std::string, std::string> TYPES = {
    {".html", "text/html; charset=UTF-8"},
    {".htm", "text/html; charset=UTF-8"},
    {".xhtml", "application/xhtml+xml; charset=UTF-8"},
    {".xht", "application/xhtml+xml; charset=UTF-8"},
    {".jpg", "image/jpeg"},
    {".jpeg", "image/jpeg"},
    {".gif", "image/gif"},
    {".png", "image/png"},
    {".css", "text/css"},
    {".js", "text/javascript"},
    {".xml", "text/xml; charset=UTF-8"},
    {".xsl", "text/xml; charset=UTF-8"},
    {".au", "audio/basic"},
    {".wav", "audio/wav"},
    {".avi", "video/x-msvideo"},
    {".mov", "video/quicktime"},
    {".qt", "video/quicktime"},
    {".mpeg", "video/mpeg"},
    {".mpe", "video/mpeg"},
    {".vrml", "model/vrml"},
    {".wrl", "model/vrml"},
    {".midi", "audio/midi"},
    {".mid", "audio/midi"},
    {".mp3", "audio/mpeg"},
    {".ogg", "application/ogg"},
    {".pac", "application/x-ns-proxy-autoconfig"},
    {".json", "application/json"},
};
const std::string DEFAULT_TYPE = "text/plain; charset=UTF-8";

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string input(reinterpret_cast<const char *>(data), size);
    const std::string name = input.c_str();

    const char *type = content_type_for_path(name.c_str());
    FUZZ_CHECK(type != nullptr);
    const size_t dot = name.rfind('.');
    const auto row = dot == std::string::npos ? TYPES.end() : TYPES.find(name.substr(dot));
    FUZZ_CHECK(type == (row == TYPES.end() ? DEFAULT_TYPE : row->second));
    // Constant texts: the same name gives the very same text again.
    FUZZ_CHECK(content_type_for_path(name.c_str()) == type);
    return 0;
}
