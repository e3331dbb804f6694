// The request line, percent-coding of paths, and small text utilities.
#pragma once

#include <cstddef>
#include <cstdint>

/// Copies `source` into `destination` of `capacity` bytes; aborts when it would not fit.
void text_copy_bounded(char *destination, size_t capacity, const char *source);

/// Appends `source` to the text in `destination` of `capacity` bytes; aborts when it would not fit.
void text_append_bounded(char *destination, size_t capacity, const char *source);

/// Cuts method, path and version out of `received` with strtok, in place.
/// Aborts when a token is missing or does not fit its destination.
void split_request_line(char *received, char *method, size_t method_capacity, char *path,
                        size_t path_capacity, char *version, size_t version_capacity);

/// Undoes %XX escapes ("+" stays "+"); returns a new heap text.
char *url_decode(const char *text);

/// Escapes every byte but letters, digits and "-_.~+" as %XX; returns a new heap text.
char *url_encode(const char *text);

/// Offset of the first `needle` in `haystack`, or -1.
int32_t find_text(const char *haystack, const char *needle);

/// Removes leading and trailing spaces and tabs in place; returns the new length.
int32_t trim_blanks(char *text);

/// Replaces every `needle` in `text` by `replacement`: in a new copy when `capacity` is -1,
/// otherwise in place within `capacity` bytes. Returns the text, or null.
char *replace_all(const char *needle, const char *replacement, char *text, int64_t capacity);
