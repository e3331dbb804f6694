// content_type_for_path on arbitrary names: the type is decided by the text from the last dot on
// alone, byte for byte. The table's extensions are all lower case, and none is another one with
// something after it (a query string, say).
#include <algorithm>
#include <cctype>
#include <cstdint>
#include <string>

#include "fuzz_check.h"
#include "server/content_type.h"

static const std::string DEFAULT_TYPE = "text/plain; charset=UTF-8";
static std::string type_of(const std::string &name) { return content_type_for_path(name.c_str()); }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string name = std::string(reinterpret_cast<const char *>(data), size).c_str();
    const size_t dot = name.rfind('.');
    std::string upper = name;
    std::transform(upper.begin(), upper.end(), upper.begin(), [](unsigned char c) { return toupper(c); });
    FUZZ_CHECK(type_of(name) == (dot == std::string::npos ? DEFAULT_TYPE : type_of(name.substr(dot))));
    FUZZ_CHECK(dot == std::string::npos || type_of("/v1.2/" + name) == type_of(name));
    FUZZ_CHECK(upper == name || type_of(upper) == DEFAULT_TYPE);
    FUZZ_CHECK(type_of(name + "?v=2") == DEFAULT_TYPE);
    return 0;
}
