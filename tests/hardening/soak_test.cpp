// 100 000 requests to one server process: every answer right, and its resident memory grown
// only by the blocks it keeps on purpose. Not part of ctest: `make test-hardening` runs it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>

#include "e2e/server_process.h"

namespace {

struct Ask {
    const char *path;
    std::string body; // what the answer ends with: the not-found page, or the file's bytes
};

long resident_kib(pid_t pid)
{
    const std::string status = file_text("/proc/" + std::to_string(pid) + "/status");
    const size_t at = status.find("\nVmRSS:");
    return at == std::string::npos ? -1 : std::stol(status.substr(at + 7));
}

// Kept per request: the decoded path of every path but "/", and for every not-found answer the
// page and the header; each as glibc's allocator spends on a block of its size.
long kept_bytes(const Ask &ask)
{
    auto chunk = [](long size) { return std::max(32L, (size + 8 + 15) & ~15L); };
    const long path = std::string(ask.path) == "/" ? 0 : chunk(static_cast<long>(strlen(ask.path)) + 1);
    return path + (ask.body == NOT_FOUND_PAGE ? chunk(1000) + chunk(4096) : 0);
}

TEST(Soak, HundredThousandRequestsGrowOnlyByTheKeptBlocks)
{
    const int requests = getenv("SOAK_REQUESTS") ? atoi(getenv("SOAK_REQUESTS")) : 100000;
    const std::string page = "<h1>game</h1>" + std::string(2000, '.'), script = std::string(30000, 's');
    Site site({{"www/index.html", page}, {"www/game.js", script}, {"www/a b.html", "space"},
               {"www/sub/inner.html", "inner"}, {"www/save/slot1.json", "{}"}});
    ASSERT_TRUE(site.start());
    const Ask mix[] = {{"/", page}, {"/index.html", page}, {"/game.js", script}, {"/save", "slot1.json\n"},
                       {"/missing.html", NOT_FOUND_PAGE}, {"/a%20b.html", "space"},
                       {"/no/such/x.png", NOT_FOUND_PAGE}, {"/sub/inner.html", "inner"}};
    auto ask = [&](int i) {
        const Ask &a = mix[i % std::size(mix)];
        const std::string answer = round_trip(site.port, std::string("GET ") + a.path + " HTTP/1.1\r\nHost: x\r\n\r\n");
        const char *status = a.body == NOT_FOUND_PAGE ? "HTTP/1.1 404 Not Found\r\n" : "HTTP/1.1 200 OK\r\n";
        return answer.starts_with(status) && answer.ends_with("\r\n\r\n" + a.body);
    };

    int failed = 0;
    for (int i = 0; i < 2000; i++) // warm-up: the allocator's first pages and the page cache
        failed += !ask(i);
    const long before = resident_kib(site.server->pid());
    long explained = 0;
    const auto started = std::chrono::steady_clock::now();
    for (int i = 0; i < requests && site.server->running(); i++) {
        failed += !ask(i);
        explained += kept_bytes(mix[i % std::size(mix)]);
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    const long after = resident_kib(site.server->pid());
    const double allowed = explained / 1024.0 * 1.01 + 1024; // heap top steps and page rounding

    printf("soak: %d requests in %.1f s, %d failed; resident %ld -> %ld KiB, grown %ld KiB; "
           "kept blocks explain %.0f KiB, allowed %.0f KiB\n",
           requests, seconds, failed, before, after, after - before, explained / 1024.0, allowed);
    EXPECT_EQ(failed, 0);
    EXPECT_GT(after, 0) << "the server ended";
    EXPECT_LE(after - before, allowed);
}

} // namespace
