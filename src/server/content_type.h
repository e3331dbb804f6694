// Media types by the last extension of a name.
#pragma once

/// The media type for `name` by the text from its last "." on (exact, case-sensitive);
/// "text/plain; charset=UTF-8" when there is no dot or no row matches. Never null, never allocated.
const char *content_type_for_path(const char *name);
