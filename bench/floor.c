/* The floor: the cheapest loop that makes the server's system calls for one connection.
 * Accept, one receive, then a header and a body already held in memory in two sends, close.
 * Every regular file of the folder is read, and its header formatted, once at start.
 *
 * Usage: floor PORT FOLDER */
#include <dirent.h>
#include <sys/stat.h>

#include "loop_common.h"

#define FLOOR_MAX_FILES 64

struct HeldAnswer {
    char path[LOOP_PATH_SIZE];
    char header[4096];
    size_t header_length;
    char *body;
    size_t body_length;
};

static struct HeldAnswer held[FLOOR_MAX_FILES];
static int held_count;
static struct HeldAnswer not_found;

static void hold_file(const char *folder, const char *name)
{
    char file_path[2 * LOOP_PATH_SIZE];
    snprintf(file_path, sizeof file_path, "%s/%s", folder, name);
    struct stat status;
    if (held_count == FLOOR_MAX_FILES || stat(file_path, &status) != 0 || !S_ISREG(status.st_mode))
        return;
    FILE *file = fopen(file_path, "rb");
    if (file == NULL)
        return;
    struct HeldAnswer *answer = &held[held_count++];
    snprintf(answer->path, sizeof answer->path, "/%s", name);
    answer->body_length = (size_t)status.st_size;
    answer->body = malloc(answer->body_length + 1);
    answer->body_length = fread(answer->body, 1, answer->body_length, file);
    fclose(file);
    answer->header_length = (size_t)loop_format_header(answer->header, sizeof answer->header, 200,
                                                       loop_content_type(name), (long)answer->body_length,
                                                       status.st_mtime);
}

static void hold_folder(const char *folder)
{
    DIR *dir = opendir(folder);
    if (dir == NULL) {
        perror(folder);
        exit(1);
    }
    for (struct dirent *entry; (entry = readdir(dir)) != NULL;)
        if (entry->d_name[0] != '.')
            hold_file(folder, entry->d_name);
    closedir(dir);

    static char page[1000];
    not_found.body = page;
    not_found.body_length = (size_t)loop_format_not_found(page, sizeof page);
    not_found.header_length = (size_t)loop_format_header(not_found.header, sizeof not_found.header, 404,
                                                         "*.html", (long)not_found.body_length, -1);
}

static const struct HeldAnswer *answer_for(const char *path)
{
    for (int i = 0; i < held_count; i++)
        if (strcmp(held[i].path, path) == 0)
            return &held[i];
    return &not_found;
}

int main(int argc, char **argv)
{
    if (argc != 3) {
        fprintf(stderr, "usage: floor PORT FOLDER\n");
        return 2;
    }
    hold_folder(argv[2]);
    int listener = loop_listen(atoi(argv[1]));
    static char receive_area[LOOP_RECEIVE_SIZE];
    char path[LOOP_PATH_SIZE];
    for (;;) {
        int connection = accept(listener, NULL, NULL);
        if (connection < 0)
            continue;
        ssize_t received = recv(connection, receive_area, sizeof receive_area, 0);
        if (received > 0 && loop_request_path(receive_area, (size_t)received, path, sizeof path) == 0) {
            const struct HeldAnswer *answer = answer_for(path);
            /* MSG_MORE as the server does: header and body leave together, no wait between them. */
            send(connection, answer->header, answer->header_length, MSG_MORE);
            send(connection, answer->body, answer->body_length, 0);
        }
        close(connection);
    }
}
