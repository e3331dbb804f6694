// split_request_line on arbitrary received bytes, then url_decode of the path as the server does.
// The received bytes are a block of their own size, so a read past them is AddressSanitizer's.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_check.h"
#include "server/request.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::vector<char> received(size + 1, '\0');
    std::copy_n(data, size, received.begin());
    // Where strtok finds the three tokens: past leading delimiters, up to the next one. The server
    // ends on purpose when one is missing, so those lines are skipped.
    std::string token[3];
    const char *at = received.data();
    for (int i = 0; i < 3; i++) {
        const char *delimiter = i < 2 ? " " : "\n";
        at += strspn(at, delimiter);
        if (*at == '\0') return -1;
        token[i].assign(at, strcspn(at, delimiter));
        at += token[i].size() + (at[token[i].size()] != '\0');
    }
    // Room for any token: one too long for the server's own fixed buffers ends it on purpose too.
    std::vector<char> method(received.size()), path(received.size()), version(received.size());
    split_request_line(received.data(), method.data(), method.size(), path.data(), path.size(), version.data(),
                       version.size());
    FUZZ_CHECK(token[0] == method.data() && token[1] == path.data() && token[2] == version.data());
    FUZZ_CHECK(fuzz_take(url_decode(path.data())).size() <= token[1].size());
    return 0;
}
