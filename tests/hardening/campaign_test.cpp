// Bad requests against the real program, each with the outcome it must have: an answer, a close
// without one, or the end of the process (SIGABRT for a token that is missing or does not fit,
// SIGPIPE for an answer to a connection already reset). Random bytes are left to the fuzz targets.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <string>

#include "e2e/server_process.h"

namespace {

// How a request ends: with an answer, or with the signal that ends the process.
enum End { Answer = 0, Abort = SIGABRT, Pipe = SIGPIPE };

struct Case {
    const char *what;
    std::string request;
    End end = Answer;
    std::string answer = "";
    int buffer_size = 1000;
    std::string before = ""; // sent first: what it leaves in the never-cleared receive area is read again
    std::string main_file = "index.html", rootdir = "./"; // rootdir: always under the program's folder
};

const std::string HTML = "text/html; charset=UTF-8", TEXT = "text/plain; charset=UTF-8";
const std::string LAST = "GET /x.html HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";

// A client that resets its connection while another one holds the server: the answer it is due
// goes to a reset connection.
void send_reset_while_queued(int port, const std::string &request)
{
    const int holder = connect_to(port), client = connect_to(port);
    send(client, request.data(), request.size(), MSG_NOSIGNAL);
    const linger reset{1, 0};
    setsockopt(client, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    close(client);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    close(holder);
}

TEST(Campaign, EachBadRequestHasItsOutcome)
{
    Site site({{"www/index.html", "main"}, {"www/x.html", "x"}, {"www/site/index.html", "site"},
               {"www/a b.html", "space"}, {"www/empty.txt", ""}, {"index.html", "above"}});
    // The document root is the program's folder followed by "./", less the last "/".
    const int root_length = static_cast<int>((site.folder.path() / "www/.").string().size());
    const std::string fits(1022 - root_length, 'a'), too_long(1023 - root_length, 'a');
    const std::string escaped_path = // 1023 bytes as sent, 343 once decoded
        "/" + std::regex_replace(std::string(340, 'a'), std::regex("a"), "%61") + "aa";

    const Case cases[] = {
        {"main file", "GET / HTTP/1.1\r\n\r\n", Answer, ok_answer(HTML, "main")},
        {"whole request", "GET /index.html HTTP/1.1\r\nHost: x\r\n\r\n", Answer, ok_answer(HTML, "main")},
        {"not found", "GET /missing.html HTTP/1.1\r\n\r\n", Answer, NOT_FOUND},
        {"empty file", "GET /empty.txt HTTP/1.1\r\n", Answer, ok_answer(TEXT, "")},
        {"escaped blank", "GET /a%20b.html HTTP/1.1\r\n", Answer, ok_answer(HTML, "space")},
        {"escaped NUL before a type", "GET /x.html%00.png HTTP/1.1\r\n", Answer, ok_answer("image/png", "x")},
        {"escaped letter of the type", "GET /x.ht%6Dl HTTP/1.1\r\n", Answer, ok_answer(TEXT, "x")},
        {"out of the folder", "GET /../index.html HTTP/1.1\r\n", Answer, ok_answer(HTML, "above")},
        // Methods and versions are not looked at: a HEAD request gets the body too.
        {"HEAD", "HEAD /x.html HTTP/9\r\n", Answer, ok_answer(HTML, "x")},
        {"headers past buffer-size", "GET /x.html HTTP/1.1\r\nHost: example\r\n\r\n", Answer, ok_answer(HTML, "x"), 24},
        {"no line end", "GET /x.html HTTP/1.1 extra words", Answer, ok_answer(HTML, "x")},
        {"NUL after the version", std::string("GET /x.html HTTP/1.1\0\r\n", 23), Answer, ok_answer(HTML, "x")},
        {"NUL before the version", std::string("GET /x.html\0 HTTP/1.1\r\n", 23), Abort},
        {"a tab is no separator", "GET\t/x.html HTTP/1.1\r\n", Abort},
        {"two words", "GET /x.html\r\n\r\n", Abort},
        {"line ends only", "\r\n\r\n", Abort},
        {"only spaces, past buffer-size", std::string(1200, ' '), Abort},
        // strtok stops at the zero bytes the last split left, so the old tokens stay out of reach.
        {"one word after a whole request", "GET", Abort, "", 1000, LAST},
        {"version from the last request", "GET /y ", Answer, NOT_FOUND, 1000, LAST},
        {"method filling buffer-size", std::string(990, 'M') + " /x.html HTTP/1.1\r\n", Answer, ok_answer(HTML, "x")},
        {"method past buffer-size", std::string(995, 'M') + " /x.html HTTP/1.1\r\n", Abort},
        {"long query string", "GET /x.html?" + std::string(1000, 'q') + " HTTP/1.1\r\n", Abort},
        {"long query string, larger buffer", "GET /x.html?" + std::string(900, 'q') + " HTTP/1.1\r\n", Answer,
         NOT_FOUND, 4096},
        {"buffer-size 0 answers nobody", "GET /x.html HTTP/1.1\r\n", Answer, "", 0},
        {"buffer-size -1 answers nobody", "GET /x.html HTTP/1.1\r\n", Answer, "", -1},
        {"buffer-size 1", "GET /x.html HTTP/1.1\r\n", Abort, "", 1},
        {"escaped dot", "GET /x%2Ehtml HTTP/1.1\r\n", Answer, ok_answer(TEXT, "x")},
        {"escaped NUL", "GET /x.html%00 HTTP/1.1\r\n", Answer, ok_answer(TEXT, "x")},
        {"full path of 1023 bytes", "GET /" + fits + " HTTP/1.1\r\n", Answer, NOT_FOUND, 4096},
        {"full path of 1024 bytes", "GET /" + too_long + " HTTP/1.1\r\n", Abort, "", 4096},
        {"path of 1023 bytes, shorter decoded", "GET " + escaped_path + " HTTP/1.1\r\n", Answer, NOT_FOUND, 4096},
        {"path of 1024 bytes, shorter decoded", "GET " + escaped_path + "a HTTP/1.1\r\n", Abort, "", 4096},
        {"long main-file", "GET / HTTP/1.1\r\n", Answer, NOT_FOUND, 1000, "", std::string(980 - root_length, 'm')},
        {"main-file taken as it is, not decoded", "GET / HTTP/1.1\r\n", Answer, NOT_FOUND, 1000, "", "x%2Ehtml"},
        {"main-file past the path", "GET / HTTP/1.1\r\n", Abort, "", 1000, "", std::string(1030, 'm')},
        {"rootdir from /", "GET / HTTP/1.1\r\n", Answer, ok_answer(HTML, "site"), 1000, "", "index.html", "/site"},
        {"rootdir with //", "GET / HTTP/1.1\r\n", Answer, ok_answer(HTML, "site"), 1000, "", "index.html", "site//"},
        {"rootdir above", "GET / HTTP/1.1\r\n", Answer, ok_answer(HTML, "above"), 1000, "", "index.html", "../"},
        {"reset while queued", "GET /x.html HTTP/1.1\r\n", Pipe},
        {"reset while queued, not found", "GET /missing HTTP/1.1\r\n", Pipe},
    };
    for (const Case &c : cases) {
        ASSERT_TRUE(site.start(c.buffer_size, c.main_file, c.rootdir)) << c.what;
        if (!c.before.empty())
            site.get(c.before);
        if (c.end == Pipe)
            send_reset_while_queued(site.port, c.request);
        else // nothing at all before an abort
            EXPECT_EQ(site.get(c.request), c.answer) << c.what;
        if (c.end == Answer && c.answer.empty()) { // and not because the process ended
            EXPECT_EQ(site.get(c.request), "") << c.what;
        }
        const int status = c.end == Answer ? 0 : site.server->wait_exit(); // the signal that ended it, if any
        EXPECT_EQ(WIFSIGNALED(status) ? WTERMSIG(status) : 0, c.end) << c.what << ": wait status " << status;
        const std::string errors = site.server->errors();
        EXPECT_FALSE(std::regex_search(errors, std::regex("runtime error|Sanitizer")))
            << c.what << ": " << errors;
    }
}

} // namespace
