// Varnok HTTP Server: start-up sequence and the accept loop.
//
// One thread, one connection at a time, one request per connection: a file (200), the
// not-found page (404) or the listing of the save folder.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "pairing/pairing.h"
#include "server/content_type.h"
#include "server/file_io.h"
#include "server/product.h"
#include "server/request.h"
#include "server/response.h"
#include "server/save_list.h"
#include "settings/settings.h"

namespace {

constexpr int LISTEN_BACKLOG = 100;
constexpr size_t ROOT_BLOCK_SIZE = 100;
constexpr size_t PATH_SIZE = 1024;
constexpr size_t TEXT_SETTING_BLOCK_SIZE = 255;
constexpr size_t LISTING_BLOCK_SIZE = 1000;

// What start-up prepares for the serving loop; it lives for the whole process.
struct Server {
    int listener;
    const char *main_file;
    char document_root[ROOT_BLOCK_SIZE];
    char *receive_area;     // never cleared between requests; ends in a zero byte no receive reaches
    size_t receive_capacity;
    char *method;           // method and version are sized to hold any token of the receive area
    char *version;
    size_t token_capacity;
    char request_path[PATH_SIZE];
};

// Blocks start-up reserves and keeps for the life of the process.
char *lan_addresses[LAN_ADDRESS_SLOT_COUNT];
char *pairing_code;
char *spare_block;
char *unused_text_blocks[2];
char *composed_root;

// A text setting given by package.json as a non-string has no text: print it the way the C
// library prints a null text, and end the process where the server would have to use it.
const char *printable(const char *text)
{
    return text != nullptr ? text : "(null)";
}

const char *usable(const char *text)
{
    if (text == nullptr)
        abort();
    return text;
}

void print_banner()
{
    printf("%s v%s\nBuilt on: %s\nCheck update from the official website: %s (%s)\n", PRODUCT_NAME,
           PRODUCT_VERSION, __DATE__, MAKER_NAME, MAKER_URL.data());
    printf("\n");
}

void reserve_unused_text_blocks()
{
    for (char *&block : unused_text_blocks) {
        block = static_cast<char *>(malloc(TEXT_SETTING_BLOCK_SIZE));
        memset(block, 0, 8);
    }
}

void show_pairing_code(const ServerSettings &settings)
{
    lan_address_collect(lan_addresses);
    pairing_code = pairing_code_build(&settings, lan_addresses);
    printf("QR: %s", pairing_code);
    qr_print_terminal(pairing_code); // the encoder adds ",LEN,VERSION" to the same line
}

void print_settings_table(const ServerSettings &settings)
{
    printf("\t\tUse\t\tDefault\n");
    printf("       port\t%d\t\t%d\n", settings.port, SETTINGS_DEFAULT_PORT);
    printf("buffer-size\t%d\t\t%d\n", settings.buffer_size, SETTINGS_DEFAULT_BUFFER_SIZE);
    printf("  main-file\t%s\t%s\n", printable(settings.main_file), SETTINGS_DEFAULT_MAIN_FILE);
    printf("    rootdir\t%s\t\t%s\n", printable(settings.rootdir), SETTINGS_DEFAULT_ROOTDIR);
    printf("\n");
}

// A buffer-size below zero holds nothing: every receive then reads no bytes.
size_t buffer_bytes(int32_t buffer_size)
{
    return buffer_size > 0 ? static_cast<size_t>(buffer_size) : 0;
}

// The receive area is `buffer-size` raised to a multiple of 16, plus one zero byte that keeps
// the request-line split inside the area whatever a receive leaves unterminated.
void reserve_receive_area(Server &server, int32_t buffer_size)
{
    server.receive_capacity = buffer_bytes(buffer_size);
    const size_t reserved = (server.receive_capacity + 15) / 16 * 16 + 1;
    server.receive_area = static_cast<char *>(calloc(reserved, 1));
    server.token_capacity = reserved;
    server.method = static_cast<char *>(calloc(reserved, 1));
    server.version = static_cast<char *>(calloc(reserved, 1));
}

// The program's folder (the invocation path up to its last "/") followed by rootdir, which is
// appended as it is: a rootdir starting with "/" still lands under the program's folder.
char *compose_root(const char *invocation_path, const char *rootdir)
{
    const char *last_slash = strrchr(invocation_path, '/');
    const auto prefix_length = static_cast<int32_t>(last_slash ? last_slash - invocation_path + 1 : 0);
    const size_t needed = static_cast<size_t>(prefix_length) + strlen(rootdir) + 1;
    char *root = static_cast<char *>(calloc(std::max(ROOT_BLOCK_SIZE, needed), 1));
    memcpy(root, invocation_path, static_cast<size_t>(prefix_length));
    strcat(root, rootdir);
    return root;
}

uint16_t to_network_port(uint32_t port)
{
    return static_cast<uint16_t>(((port << 8) | (port >> 8)) & 0xFFFF);
}

// A root of 100 characters or more ends the process here, in the checked copy.
void make_document_root(Server &server, const char *root)
{
    memset(server.document_root, 0, sizeof server.document_root);
    text_copy_bounded(server.document_root, sizeof server.document_root, root);
    const size_t length = strlen(server.document_root);
    if (length > 0 && server.document_root[length - 1] == '/')
        server.document_root[length - 1] = '\0';
}

// The header is sent with MSG_MORE so that it leaves in one segment with the body that follows.
void send_header(int connection, const char *header)
{
    send(connection, header, strlen(header), MSG_MORE);
}

void answer_not_found(int connection)
{
    // Page and header are kept: each not-found answer holds on to its two blocks.
    char *page = build_not_found_page();
    const size_t page_length = strlen(page);
    char *header = build_response_header(404, nullptr, "*.html", NO_TIME, static_cast<int64_t>(page_length));
    send_header(connection, header);
    send(connection, page, page_length, 0);
}

// One "%s\n" line per entry in directory order; the block grows past 1000 bytes when needed.
void answer_save_listing(int connection, const char *folder)
{
    SaveList *list = save_list_create();
    save_list_read(folder, list);
    size_t needed = 1;
    for (const SaveEntry *entry = list ? list->next : nullptr; entry; entry = entry->next)
        needed += strlen(entry->name) + 1;
    char *body = static_cast<char *>(calloc(std::max(LISTING_BLOCK_SIZE, needed), 1));
    int32_t length = 0;
    for (const SaveEntry *entry = list ? list->next : nullptr; entry; entry = entry->next)
        length += sprintf(body + length, "%s\n", entry->name);
    save_list_free(list);

    char *header = build_response_header(200, nullptr, content_type_for_path("*.txt"), NO_TIME, length);
    send_header(connection, header);
    free(header);
    send(connection, body, static_cast<size_t>(length), 0);
    free(body);
}

void answer_file(int connection, const char *request_path, const char *full_path, const struct stat &status)
{
    char *header = build_response_header(200, nullptr, content_type_for_path(request_path),
                                         status.st_mtime, status.st_size);
    send_header(connection, header);
    free(header);
    const auto size = static_cast<size_t>(status.st_size);
    char *body = static_cast<char *>(malloc(size));
    if (body == nullptr)
        return;
    // A file that cannot be opened gets no body; its block is kept.
    if (read_file_into(full_path, size, body) > -1) {
        send(connection, body, size, 0);
        free(body);
    }
}

void answer_request(int connection, Server &server)
{
    char *path = server.request_path;
    split_request_line(server.receive_area, server.method, server.token_capacity, path, PATH_SIZE,
                       server.version, server.token_capacity);
    if (path[0] == '\0')
        text_append_bounded(path, PATH_SIZE, "/");

    char full_path[PATH_SIZE] = {};
    text_copy_bounded(full_path, PATH_SIZE, server.document_root);
    if (strcmp(path, "/") == 0) {
        // "/" becomes "/" plus the main file, which is not percent-decoded.
        text_append_bounded(path, PATH_SIZE, usable(server.main_file));
        text_append_bounded(full_path, PATH_SIZE, path);
    } else {
        char *decoded = url_decode(path); // kept: one block per request
        text_append_bounded(full_path, PATH_SIZE, decoded);
    }

    struct stat status;
    if (stat(full_path, &status) == -1)
        answer_not_found(connection);
    else if (strcmp(path, "/save") == 0) // the path as received, not decoded
        answer_save_listing(connection, full_path);
    else
        answer_file(connection, path, full_path, status);
}

void serve_one_connection(Server &server)
{
    sockaddr_in peer{};
    socklen_t peer_length = sizeof peer;
    const int connection = accept(server.listener, reinterpret_cast<sockaddr *>(&peer), &peer_length);
    if (connection >= 0) {
        char peer_text[INET_ADDRSTRLEN];
        inet_ntop(AF_INET, &peer.sin_addr, peer_text, sizeof peer_text);
        // One receive only: a request line arriving later, or bytes past buffer-size, are not read.
        const auto received = static_cast<int32_t>(recv(connection, server.receive_area, server.receive_capacity, 0));
        if (received > 0)
            answer_request(connection, server);
    }
    close(connection);
}

// Socket, bind and listen; -1 after a failure, when the process is to end with status 0.
int open_listener(int32_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = to_network_port(static_cast<uint32_t>(port) & 0xFFFF);
    address.sin_addr.s_addr = INADDR_ANY;

    const int listener = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (listener < 0) {
        close(listener);
        return -1;
    }
    if (bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof address) < 0) {
        printf("Bind fail. Address and port already in use, or you may try root user or use sudo.\n");
        close(listener);
        return -1;
    }
    if (listen(listener, LISTEN_BACKLOG) < 0) {
        close(listener);
        return -1;
    }
    return listener;
}

} // namespace

int main(int, char **argv)
{
    // Line by line, so the start-up screen reaches a pipe or a log as it reaches a terminal.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    print_banner();

    ServerSettings settings;
    settings_set_defaults(&settings);
    reserve_unused_text_blocks();
    ServerSettings loaded;
    if (settings_load(&loaded) > -1)
        settings = loaded;
    spare_block = static_cast<char *>(calloc(buffer_bytes(settings.buffer_size), 1));

    show_pairing_code(settings);
    print_settings_table(settings);

    static Server server;
    server.main_file = settings.main_file;
    reserve_receive_area(server, settings.buffer_size);
    composed_root = compose_root(argv[0], usable(settings.rootdir));

    server.listener = open_listener(settings.port);
    if (server.listener < 0)
        return 0;
    printf("Listening on 0.0.0.0:%d\n", settings.port);
    make_document_root(server, composed_root);

    for (;;)
        serve_one_connection(server);
}
