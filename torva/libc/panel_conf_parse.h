// The format of the panel's configuration file, whatever its path. Used by
// panel_conf.cpp, whose header is the public interface.
// Private to the library: not installed.
#pragma once

#include <stddef.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

struct panel_conf_pair {
    char* name;
    char* value;
};

/// The parsed file: each name once, in the order of first definition.
struct panel_conf_file {
    struct panel_conf_pair* pairs;
    size_t count;
    size_t capacity;
    int sorted; ///< pairs are in the order of strcmp(3); 0 once a name was added
};

/// Reads lines of the form "NAME white-space VALUE" to the end of the stream.
///
/// A "#" starts a comment, blank lines are ignored, the last definition of a name
/// wins. A malformed line is reported and skipped. A line ends at its first NUL.
///
/// \param stream  not closed
/// \return owned by the caller (panel_conf_free()); null with errno, after a report, when
///         reading fails or memory runs out
/// Reports go through torva_log with priority 12.
struct panel_conf_file* panel_conf_parse(FILE* stream);

/// Value of a name, owned by the file; null when the file does not define it.
const char* panel_conf_find(const struct panel_conf_file* file, const char* name);

/// Sets a name; an existing one keeps its position.
///
/// \return 0; -1 with errno, after a report, when memory runs out: the file is unchanged
int panel_conf_put(struct panel_conf_file* file, const char* name, size_t name_length,
                   const char* value, size_t value_length);

/// An empty file; null with errno when memory runs out, after a report.
struct panel_conf_file* panel_conf_new(void);

/// Frees the file with its texts; null is allowed. Keeps errno.
void panel_conf_free(struct panel_conf_file* file);

#ifdef __cplusplus
} // extern "C"
#endif
