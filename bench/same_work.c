/* The same-work loop: the floor plus what the server must do for every request, done the
 * cheapest plain way. Per request: decode the path into a fresh block, look up the file's
 * status, format the header (with the current Date) into a fresh 4096-byte block, open the
 * file and read it whole into a fresh block, send both, release everything. A missing file
 * gets the not-found page formatted into a fresh 1000-byte block. Nothing is kept.
 *
 * Usage: same-work PORT FOLDER */
#include <fcntl.h>
#include <sys/stat.h>

#include "loop_common.h"

static int hex_value(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

static char *percent_decoded(const char *path)
{
    char *decoded = malloc(strlen(path) + 1);
    char *out = decoded;
    for (const char *in = path; *in != '\0'; in++) {
        if (in[0] == '%' && hex_value(in[1]) >= 0 && hex_value(in[2]) >= 0) {
            *out++ = (char)(hex_value(in[1]) * 16 + hex_value(in[2]));
            in += 2;
        } else {
            *out++ = *in;
        }
    }
    *out = '\0';
    return decoded;
}

/* Reads the whole file into a fresh block of `size` bytes; null when it cannot be opened. */
static char *read_whole(const char *file_path, size_t size)
{
    int file = open(file_path, O_RDONLY);
    if (file < 0)
        return NULL;
    char *block = malloc(size > 0 ? size : 1);
    size_t done = 0;
    while (done < size) {
        ssize_t count = read(file, block + done, size - done);
        if (count <= 0)
            break;
        done += (size_t)count;
    }
    close(file);
    return block;
}

static void answer_not_found(int connection)
{
    char *page = malloc(1000);
    int page_length = loop_format_not_found(page, 1000);
    char *header = malloc(4096);
    int header_length = loop_format_header(header, 4096, 404, "*.html", page_length, -1);
    send(connection, header, (size_t)header_length, MSG_MORE);
    send(connection, page, (size_t)page_length, 0);
    free(header);
    free(page);
}

static void answer_file(int connection, const char *path, const char *file_path, const struct stat *status)
{
    char *header = malloc(4096);
    int header_length = loop_format_header(header, 4096, 200, loop_content_type(path), (long)status->st_size,
                                           status->st_mtime);
    send(connection, header, (size_t)header_length, MSG_MORE);
    free(header);
    size_t size = (size_t)status->st_size;
    char *body = read_whole(file_path, size);
    if (body == NULL)
        return;
    send(connection, body, size, 0);
    free(body);
}

static void answer(int connection, const char *root, const char *path)
{
    char *decoded = percent_decoded(path);
    char file_path[2 * LOOP_PATH_SIZE];
    snprintf(file_path, sizeof file_path, "%s%s", root, decoded);
    free(decoded);
    struct stat status;
    if (stat(file_path, &status) != 0)
        answer_not_found(connection);
    else
        answer_file(connection, path, file_path, &status);
}

int main(int argc, char **argv)
{
    if (argc != 3) {
        fprintf(stderr, "usage: same-work PORT FOLDER\n");
        return 2;
    }
    const char *root = argv[2];
    int listener = loop_listen(atoi(argv[1]));
    static char receive_area[LOOP_RECEIVE_SIZE];
    char path[LOOP_PATH_SIZE];
    for (;;) {
        int connection = accept(listener, NULL, NULL);
        if (connection < 0)
            continue;
        ssize_t received = recv(connection, receive_area, sizeof receive_area, 0);
        if (received > 0 && loop_request_path(receive_area, (size_t)received, path, sizeof path) == 0)
            answer(connection, root, path);
        close(connection);
    }
}
