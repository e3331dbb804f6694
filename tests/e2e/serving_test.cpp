#include <gtest/gtest.h>
#include <sys/stat.h>

#include <regex>
#include <string>

#include "e2e/server_process.h"
#include "support/not_found_page.h"

namespace {

const std::string NOT_FOUND = "HTTP/1.1 404 Not Found\r\nServer: Varnok HTTP Server 0.7.1.1\r\nDate: *\r\n"
                              "Content-Type: *.html\r\nContent-Length: 546\r\nConnection: close\r\n\r\n" + NOT_FOUND_PAGE;

// The answer with its two clock-dependent values blanked out.
std::string without_times(const std::string &answer)
{
    static const std::regex TIMES("(Date|Last-Modified): [A-Z][a-z]{2}, \\d\\d [A-Z][a-z]{2} \\d{4} \\d\\d:\\d\\d:\\d\\d GMT");
    return std::regex_replace(answer, TIMES, "$1: *");
}

std::string ok_answer(const std::string &type, const std::string &body, bool modified = true)
{
    return "HTTP/1.1 200 OK\r\nServer: Varnok HTTP Server 0.7.1.1\r\nDate: *\r\nContent-Type: " + type +
           "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" + (modified ? "Last-Modified: *\r\n" : "") +
           "Connection: close\r\n\r\n" + body;
}

// A game folder `www` (where the program's link sits) inside a private folder that also holds
// the working folder's package.json and a file outside the document root.
class Serving : public testing::Test {
protected:
    void start(const std::string &settings)
    {
        folder_.write("package.json", settings);
        server_.emplace(folder_.path() / "www", folder_.path());
        ASSERT_TRUE(server_->wait_listening()) << server_->console() << server_->errors();
    }
    std::string get(const std::string &request) { return without_times(round_trip(port_, request)); }

    TempFolder folder_;
    int port_ = free_port();
    std::optional<ServerProcess> server_;
};

TEST_F(Serving, AnswersFilesTheListingAndNotFound)
{
    folder_.write("www/index.html", "<h1>hi</h1>\n");
    folder_.write("www/a b.html", "space");
    folder_.write("www/x.html", "x");
    folder_.write("www/page.html", "page");
    folder_.write("www/save/one.json", "1");
    folder_.write("www/save/two.json", "2");
    folder_.write("secret.txt", "outside");
    start(settings_json(port_));

    struct Case {
        const char *request;
        std::string answer;
    } cases[] = {
        {"GET /index.html HTTP/1.1\r\nHost: x\r\n\r\n", ok_answer("text/html; charset=UTF-8", "<h1>hi</h1>\n")},
        {"GET / HTTP/1.1\r\n\r\n", ok_answer("text/html; charset=UTF-8", "<h1>hi</h1>\n")},
        {"GET /missing.html HTTP/1.1\r\n\r\n", NOT_FOUND},
        {"GET /a%20b.html HTTP/1.1\r\n", ok_answer("text/html; charset=UTF-8", "space")},
        {"GET /x.html%00.png HTTP/1.1\r\n", ok_answer("image/png", "x")},
        {"GET /page.ht%6Dl HTTP/1.1\r\n", ok_answer("text/plain; charset=UTF-8", "page")},
        {"GET /index.html?v=2 HTTP/1.1\r\n", NOT_FOUND},
        {"GET /../secret.txt HTTP/1.1\r\n", ok_answer("text/plain; charset=UTF-8", "outside")},
        {"GET /%2e%2e/secret.txt HTTP/1.1\r\n", ok_answer("text/plain; charset=UTF-8", "outside")},
        {"DELETE /x.html HTTP/9\r\n", ok_answer("text/html; charset=UTF-8", "x")},
    };
    for (const Case &c : cases)
        EXPECT_EQ(get(c.request), c.answer) << c.request;

    const std::string listing = get("GET /save HTTP/1.1\r\n\r\n");
    EXPECT_TRUE(listing == ok_answer("text/plain; charset=UTF-8", "one.json\ntwo.json\n", false) ||
                listing == ok_answer("text/plain; charset=UTF-8", "two.json\none.json\n", false))
        << listing;

    // A folder asked for by another name than "/save" is answered as a file of zero bytes.
    struct stat folder_status;
    stat((folder_ / "www/save").c_str(), &folder_status);
    const std::string zeros(static_cast<size_t>(folder_status.st_size), '\0');
    for (const char *request : {"GET /save/ HTTP/1.1\r\n", "GET /%73ave HTTP/1.1\r\n"})
        EXPECT_EQ(get(request), ok_answer("text/plain; charset=UTF-8", zeros)) << request;
}

TEST_F(Serving, ClientsThatSayNothingAndTheNeverClearedReceiveArea)
{
    folder_.write("www/index.html", "main");
    folder_.write("www/x.html", "x");
    start(settings_json(port_));

    close(connect_to(port_));
    int silent = connect_to(port_);
    shutdown(silent, SHUT_WR);
    EXPECT_EQ(recv(silent, nullptr, 0, 0), 0);
    close(silent);
    EXPECT_EQ(get("GET /index.html HTTP/1.1\r\n\r\n"), ok_answer("text/html; charset=UTF-8", "main"));
    // "GET /x.html " has no version of its own; it takes "HTTP/1.1\r" left by the request before.
    EXPECT_EQ(get("GET /x.html "), ok_answer("text/html; charset=UTF-8", "x"));
}

TEST_F(Serving, MissingMainFileIsNotFound)
{
    start(settings_json(port_, 1000, "start.html"));
    EXPECT_EQ(get("GET / HTTP/1.1\r\n"), NOT_FOUND);
}

TEST_F(Serving, ReadsOnlyBufferSizeBytes)
{
    folder_.write("www/index.html", "main");
    start(settings_json(port_, 24));
    EXPECT_EQ(get("GET /index.html HTTP/1.1\r\nHost: example\r\n\r\n"), ok_answer("text/html; charset=UTF-8", "main"));
    EXPECT_EQ(get("GET /index.html HTTP/1.1\r\n" + std::string(5000, 'h')), ok_answer("text/html; charset=UTF-8", "main"));
}

TEST_F(Serving, BufferSizeZeroOrBelowAnswersNobody)
{
    for (int buffer_size : {0, -1}) {
        const int port = free_port();
        TempFolder folder;
        folder.write("www/index.html", "main");
        folder.write("package.json", settings_json(port, buffer_size));
        ServerProcess server(folder.path() / "www", folder.path());
        ASSERT_TRUE(server.wait_listening()) << buffer_size << server.errors();
        EXPECT_EQ(round_trip(port, "GET / HTTP/1.1\r\n\r\n"), "");
        EXPECT_EQ(round_trip(port, "GET / HTTP/1.1\r\n\r\n"), "");
    }
}

TEST_F(Serving, RootdirIsAlwaysUnderTheProgramsFolder)
{
    struct Case {
        const char *rootdir, *file;
    } cases[] = {{"/site", "www/site/index.html"}, {"site//", "www/site/index.html"}, {"../", "index.html"}};
    for (const Case &c : cases) {
        // A port of its own each: the one before is held in TIME_WAIT by the server's closes.
        const int port = free_port();
        TempFolder folder;
        folder.write(c.file, c.rootdir);
        folder.write("package.json", settings_json(port, 1000, "index.html", c.rootdir));
        ServerProcess server(folder.path() / "www", folder.path());
        ASSERT_TRUE(server.wait_listening()) << c.rootdir;
        EXPECT_EQ(without_times(round_trip(port, "GET / HTTP/1.1\r\n")), ok_answer("text/html; charset=UTF-8", c.rootdir));
    }
}

TEST_F(Serving, AMissingTokenEndsTheProcess)
{
    start(settings_json(port_));
    round_trip(port_, "GET /\r\n\r\n");
    const int status = server_->wait_exit();
    ASSERT_TRUE(WIFSIGNALED(status)) << status;
    EXPECT_EQ(WTERMSIG(status), SIGABRT);
}

TEST_F(Serving, AnOverlongPathEndsTheProcess)
{
    start(settings_json(port_, 4000));
    round_trip(port_, "GET /" + std::string(1100, 'a') + " HTTP/1.1\r\n");
    const int status = server_->wait_exit();
    ASSERT_TRUE(WIFSIGNALED(status)) << status;
    EXPECT_EQ(WTERMSIG(status), SIGABRT);
}

TEST_F(Serving, BindFailureSaysSoAndExitsZero)
{
    int holder = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port_));
    ASSERT_EQ(bind(holder, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    ASSERT_EQ(listen(holder, 1), 0);

    folder_.write("package.json", settings_json(port_));
    ServerProcess server(folder_.path() / "www", folder_.path());
    const int status = server.wait_exit();
    close(holder);
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), 0) << server.errors();
    const std::string console = server.console();
    EXPECT_NE(console.find("Bind fail. Address and port already in use, or you may try root user or use sudo.\n"),
              std::string::npos);
    EXPECT_EQ(console.find("Listening on"), std::string::npos);
}

} // namespace
