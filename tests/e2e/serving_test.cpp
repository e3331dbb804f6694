#include <gtest/gtest.h>
#include <sys/stat.h>
#include <utime.h>

#include <ctime>
#include <string>

#include "e2e/server_process.h"

namespace {

TEST(Serving, DatesInUtcTheListingAndFoldersAsFiles)
{
    Site site({{"www/save/one.json", "1"}, {"www/save/two.json", "1"}, {"www/save/three.json", "1"},
               {"www/x.html", "x"}});
    const utimbuf modified{1700000000, 1700000000};
    utime((site.folder / "www/x.html").c_str(), &modified);
    setenv("TZ", "XYZ-5:30", 1); // the server's local time runs 5 h 30 min ahead of UTC
    const bool started = site.start();
    unsetenv("TZ");
    ASSERT_TRUE(started);

    // Dates are UTC whatever the server's own zone.
    const time_t before = time(nullptr);
    const std::string dated = round_trip(site.port, "GET /x.html HTTP/1.1\r\n");
    const time_t after = time(nullptr);
    EXPECT_NE(dated.find("\r\nLast-Modified: Tue, 14 Nov 2023 22:13:20 GMT\r\n"), std::string::npos) << dated;
    tm date{};
    const size_t date_at = dated.find("\r\nDate: ");
    ASSERT_NE(date_at, std::string::npos) << dated;
    ASSERT_NE(strptime(dated.c_str() + date_at + 8, "%a, %d %b %Y %H:%M:%S GMT", &date), nullptr) << dated;
    EXPECT_TRUE(before <= timegm(&date) && timegm(&date) <= after) << dated;

    // The listing comes in the order the system reads the folder (the iterator reads with readdir).
    std::string names;
    for (const auto &entry : std::filesystem::directory_iterator(site.folder / "www/save"))
        names += entry.path().filename().string() + "\n";
    EXPECT_EQ(site.get("GET /save HTTP/1.1\r\n\r\n"), ok_answer("text/plain; charset=UTF-8", names, false));

    // A folder asked for by another name than "/save" is answered as a file of zero bytes.
    struct stat folder_status;
    stat((site.folder / "www/save").c_str(), &folder_status);
    const std::string zeros(static_cast<size_t>(folder_status.st_size), '\0');
    for (const char *request : {"GET /save/ HTTP/1.1\r\n", "GET /%73ave HTTP/1.1\r\n"})
        EXPECT_EQ(site.get(request), ok_answer("text/plain; charset=UTF-8", zeros)) << request;
}

TEST(Serving, ClientsThatSayNothingAreLeftAndTheNextIsServed)
{
    Site site({{"www/index.html", "main"}});
    ASSERT_TRUE(site.start());

    close(connect_to(site.port));
    int silent = connect_to(site.port);
    shutdown(silent, SHUT_WR);
    EXPECT_EQ(recv(silent, nullptr, 0, 0), 0);
    close(silent);
    EXPECT_EQ(site.get("GET /index.html HTTP/1.1\r\n\r\n"), ok_answer("text/html; charset=UTF-8", "main"));
}

// The server sets no address reuse and closes every connection first, so its port stays taken
// for a while after it ends: a restart then says so and exits with status 0.
TEST(Serving, ARestartOnTheSamePortFailsToBindAndExitsZero)
{
    Site site({{"www/index.html", "main"}});
    ASSERT_TRUE(site.start());
    for (int i = 0; i < 3; i++)
        ASSERT_EQ(site.get("GET / HTTP/1.1\r\n"), ok_answer("text/html; charset=UTF-8", "main"));
    site.server.reset();
    // The system keeps closed connections only while its table of them has room (a benchmark run
    // just before can fill it); without them the port is free again at once.
    if (bound_port(site.port) != 0)
        GTEST_SKIP() << "the system kept no closed connection of the server's port";

    ServerProcess again(site.folder.path() / "www", site.folder.path());
    const int status = again.wait_exit();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status << ": " << again.errors();
    const std::string console = again.console();
    EXPECT_NE(console.find("Bind fail. Address and port already in use, or you may try root user or use sudo.\n"),
              std::string::npos);
    EXPECT_EQ(console.find("Listening on"), std::string::npos);
}

} // namespace
