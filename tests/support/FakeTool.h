// Replaces a program by a small shell script, for tests inside the sandbox: the script
// records its calls and then does what the test says. Refuses to work
// outside the sandbox, where the program's file is a private copy.
#pragma once

#include <string>
#include <vector>

namespace torva::test {

/// Replaces the program by the script during the lifetime of the object.
class FakeTool {
public:
    /// \param program  absolute path of the program
    /// \param script   what it does after recording, as /bin/sh; "$REAL" is the
    ///                 program itself. Its standard input has been read already: it
    ///                 is the file "$INPUT".
    FakeTool(const std::string& program, const std::string& script);
    ~FakeTool();
    FakeTool(const FakeTool&) = delete;
    FakeTool& operator=(const FakeTool&) = delete;

    /// The calls so far, each "[ARGUMENT][ARGUMENT]...".
    std::vector<std::string> calls() const;

    /// The standard inputs of all calls, concatenated.
    std::string input() const;

    /// Forgets calls and input.
    void forget() const;

private:
    std::string program_;
    std::string base_;
};

/// Runs the real program through a recording script.
inline const char* const passThrough = "exec \"$REAL\" \"$@\" < \"$INPUT\"";

/// The contents of a file; empty when it cannot be read.
std::string contentOf(const std::string& path);

/// Writes a file.
void writeFile(const std::string& path, const std::string& content);

/// Names in a directory, sorted.
std::vector<std::string> namesIn(const std::string& directory);

} // namespace torva::test
