// The bytes of a heap block that the code under test handed over; the block is released here.
#pragma once

#include <cstdlib>
#include <string>

/// The text up to its terminator, or the first `length` bytes; "<null>" for no block.
inline std::string taken(void *block, size_t length = std::string::npos)
{
    const char *bytes = static_cast<const char *>(block);
    std::string copy = bytes == nullptr ? "<null>" : length == std::string::npos ? bytes : std::string(bytes, length);
    free(block);
    return copy;
}
