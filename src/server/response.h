// Response header block and the built-in not-found page.
#pragma once

#include <cstdint>

constexpr int64_t NO_TIME = -1;

/// Composes the header block: status line, Server, Date, optional extra line and Content-Type,
/// Content-Length, Last-Modified unless `last_modified` is -1, "Connection: close", empty line.
/// Returns a new heap text of at least 4096 bytes.
char *build_response_header(int32_t status, const char *extra_line, const char *content_type,
                            int64_t last_modified, int64_t content_length);

/// Formats the "404 Not Found" page into a new 1000-byte heap block.
char *build_not_found_page();
