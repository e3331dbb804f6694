/* What both reference loops share: the listening socket and the path of a request line.
 * Each loop is one file that includes this one; nothing here is linked separately. */
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#define LOOP_BACKLOG 100
#define LOOP_RECEIVE_SIZE 1000
#define LOOP_PATH_SIZE 1024

/* Listens on 127.0.0.1:port with the server's backlog and says so the way the server does. */
static int loop_listen(int port)
{
    struct sockaddr_in address;
    memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_port = htons((unsigned short)port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int listener = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (listener < 0 || bind(listener, (struct sockaddr *)&address, sizeof address) < 0 ||
        listen(listener, LOOP_BACKLOG) < 0) {
        perror("listen");
        exit(1);
    }
    setvbuf(stdout, NULL, _IOLBF, 0);
    printf("Listening on 127.0.0.1:%d\n", port);
    return listener;
}

/* Copies the second token of the request line into `path`; "/" names index.html.
 * Returns 0, or -1 when the bytes hold no such token. */
static int loop_request_path(const char *bytes, size_t length, char *path, size_t capacity)
{
    const char *end = bytes + length;
    const char *start = memchr(bytes, ' ', length);
    if (start == NULL)
        return -1;
    start++;
    const char *stop = start;
    while (stop < end && *stop != ' ' && *stop != '\r' && *stop != '\n')
        stop++;
    size_t size = (size_t)(stop - start);
    if (size == 0 || size >= capacity)
        return -1;
    memcpy(path, start, size);
    path[size] = '\0';
    if (strcmp(path, "/") == 0)
        snprintf(path, capacity, "/index.html");
    return 0;
}

/* The media type of the few kinds of file the benchmark serves. */
static const char *loop_content_type(const char *path)
{
    const char *dot = strrchr(path, '.');
    if (dot == NULL)
        return "text/plain; charset=UTF-8";
    if (strcmp(dot, ".html") == 0)
        return "text/html; charset=UTF-8";
    if (strcmp(dot, ".js") == 0)
        return "text/javascript";
    if (strcmp(dot, ".png") == 0)
        return "image/png";
    return "text/plain; charset=UTF-8";
}

/* The not-found page, byte for byte the size of the server's. */
static const char LOOP_NOT_FOUND_TEMPLATE[] =
    "<!DOCTYPE html>\t\t<html>\t\t\t\t<head>\t\t<meta charset=\"UTF-8\">\t\t"
    "<meta name=\"apple-mobile-web-app-capable\" content=\"yes\">\t\t"
    "<meta name=\"apple-mobile-web-app-status-bar-style\" content=\"black-translucent\">\t\t"
    "<meta name=\"viewport\" content=\"user-scalable=no\">\t\t"
    "<link rel=\"icon\" href=\"icon/icon.png\" type=\"image/png\">\t\t"
    "<link rel=\"apple-touch-icon\" href=\"icon/icon.png\">\t\t<title>%s</title>\t\t</head>\t\t\t\t"
    "<body>\t\t<h1>%s</h1><br><br>%s v%s by <a href=\"%s\" target=\"_blank\">%s</a>\t\t</body>\t\t"
    "</html>\t\t";

static int loop_format_not_found(char *page, size_t capacity)
{
    return snprintf(page, capacity, LOOP_NOT_FOUND_TEMPLATE, "404 Not Found", "404 Not Found",
                    "Varnok HTTP Server", "0.7.1", "https://varnok.example/", "Varnok");
}

/* Formats the header the server sends into `block`; a negative `modified` leaves out
 * Last-Modified. Returns the header's length. */
static int loop_format_header(char *block, size_t capacity, int status, const char *type,
                              long length, time_t modified)
{
    char date[100];
    time_t now = time(NULL);
    strftime(date, sizeof date, "%a, %d %b %Y %H:%M:%S GMT", gmtime(&now));
    int at = snprintf(block, capacity, "HTTP/1.1 %d %s\r\nServer: Varnok HTTP Server 0.7.1.1\r\n"
                      "Date: %s\r\nContent-Type: %s\r\nContent-Length: %ld\r\n",
                      status, status == 200 ? "OK" : "Not Found", date, type, length);
    if (modified >= 0) {
        strftime(date, sizeof date, "%a, %d %b %Y %H:%M:%S GMT", gmtime(&modified));
        at += snprintf(block + at, capacity - (size_t)at, "Last-Modified: %s\r\n", date);
    }
    at += snprintf(block + at, capacity - (size_t)at, "Connection: close\r\n\r\n");
    return at;
}
