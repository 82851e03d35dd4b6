#include "torva/libc/panel_conf_parse.h"

#include "torva/libc/log.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

const int parsePriority = 12;
const size_t firstCapacity = 20;

bool isSpace(char c) {
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

bool isNameCharacter(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_';
}

/// Reports a failure with the text of errno, and keeps errno.
void reportFailure(const char* format) {
    const int saved_errno = errno;
    torva_log(parsePriority, format, std::strerror(saved_errno));
    errno = saved_errno;
}

panel_conf_pair* findPair(const panel_conf_file* file, const char* name, size_t length) {
    // The order of strcmp(3) between a stored name and the (not terminated) name.
    const auto compare = [name, length](const panel_conf_pair& pair) {
        const int order = std::strncmp(pair.name, name, length);
        return order != 0 ? order : pair.name[length] != '\0';
    };
    panel_conf_pair* const end = file->pairs + file->count;
    if (!file->sorted) {
        return std::find_if(file->pairs, end,
                            [&](const panel_conf_pair& pair) { return compare(pair) == 0; });
    }
    panel_conf_pair* const place = std::partition_point(
        file->pairs, end, [&](const panel_conf_pair& pair) { return compare(pair) < 0; });
    return place != end && compare(*place) == 0 ? place : end;
}

bool grow(panel_conf_file* file) {
    const size_t capacity = std::max(file->capacity * 2, file->count + firstCapacity);
    void* pairs = reallocarray(file->pairs, capacity, sizeof(panel_conf_pair));
    if (pairs == nullptr) {
        reportFailure("Unable to read configuration: %s");
        return false;
    }
    file->pairs = static_cast<panel_conf_pair*>(pairs);
    file->capacity = capacity;
    return true;
}

char* copyText(const char* text, size_t length) {
    char* copy = strndup(text, length);
    if (copy == nullptr) {
        reportFailure("Unable to form configuration: %s");
    }
    return copy;
}

/// Takes one line, without its line feed.
///
/// \return false when memory ran out; a malformed line is reported and skipped
bool parseLine(panel_conf_file* file, const char* line) {
    while (isSpace(*line)) {
        ++line;
    }
    if (*line == '\0' || *line == '#') {
        return true;
    }
    const char* end = line;
    while (isNameCharacter(*end)) {
        ++end;
    }
    if (*end != '\0' && !isSpace(*end)) {
        torva_log(parsePriority,
                  "Invalid variable definition %s\nExpected a space after variable name\n", line);
        return true;
    }
    const char* value = end;
    while (isSpace(*value)) {
        ++value;
    }
    if (*value == '\0' || *value == '#') {
        torva_log(parsePriority, "Invalid variable definition %s\nExpected a value", line);
        return true;
    }
    // The first character is neither white space nor "#", so the trimming stops there at
    // the latest.
    size_t length = std::strcspn(value, "#");
    while (isSpace(value[length - 1])) {
        --length;
    }
    return panel_conf_put(file, line, static_cast<size_t>(end - line), value, length) == 0;
}

/// Reads the lines of the stream into the file.
bool parseLines(panel_conf_file* file, FILE* stream) {
    char* line = nullptr;
    size_t size = 0;
    bool parsed = true;
    while (parsed) {
        errno = 0;
        const ssize_t length = getline(&line, &size, stream);
        // A read that fails in the middle of a line first returns the beginning of that
        // line, and getline(3) reports lack of memory only by errno.
        if (std::ferror(stream) != 0 || (length == -1 && std::feof(stream) == 0)) {
            reportFailure("Unable to read configuration file: %s");
            parsed = false;
        } else if (length == -1) {
            break;
        } else {
            if (line[length - 1] == '\n') {
                line[length - 1] = '\0';
            }
            parsed = parseLine(file, line);
        }
    }
    const int saved_errno = errno;
    std::free(line);
    errno = saved_errno;
    return parsed;
}

} // namespace

extern "C" {

struct panel_conf_file* panel_conf_new(void) {
    auto* file = static_cast<panel_conf_file*>(std::calloc(1, sizeof(panel_conf_file)));
    if (file == nullptr) {
        torva_log(parsePriority,
                  "Not enough memory to allocate Torva runtime configuration structure\n");
        errno = ENOMEM;
        return nullptr;
    }
    file->sorted = 1;
    if (!grow(file)) {
        panel_conf_free(file);
        return nullptr;
    }
    return file;
}

int panel_conf_put(struct panel_conf_file* file, const char* name, size_t name_length,
                   const char* value, size_t value_length) {
    panel_conf_pair* place = findPair(file, name, name_length);
    const bool known = place != file->pairs + file->count;
    if (!known && file->count == file->capacity && !grow(file)) {
        return -1;
    }
    char* value_copy = copyText(value, value_length);
    if (value_copy == nullptr) {
        return -1;
    }
    if (known) {
        std::free(place->value);
        place->value = value_copy;
        return 0;
    }
    char* name_copy = copyText(name, name_length);
    if (name_copy == nullptr) {
        const int saved_errno = errno;
        std::free(value_copy);
        errno = saved_errno;
        return -1;
    }
    file->pairs[file->count] = {name_copy, value_copy};
    ++file->count;
    file->sorted = 0;
    return 0;
}

const char* panel_conf_find(const struct panel_conf_file* file, const char* name) {
    const panel_conf_pair* place = findPair(file, name, std::strlen(name));
    return place != file->pairs + file->count ? place->value : nullptr;
}

struct panel_conf_file* panel_conf_parse(FILE* stream) {
    panel_conf_file* file = panel_conf_new();
    if (file != nullptr && !parseLines(file, stream)) {
        panel_conf_free(file);
        return nullptr;
    }
    return file;
}

void panel_conf_free(struct panel_conf_file* file) {
    if (file == nullptr) {
        return;
    }
    const int saved_errno = errno;
    for (size_t i = 0; i < file->count; ++i) {
        std::free(file->pairs[i].name);
        std::free(file->pairs[i].value);
    }
    std::free(file->pairs);
    std::free(file);
    errno = saved_errno;
}

} // extern "C"
