// Keeps every test program away from the machine's own Postfix, even when the code under
// test is wrong: outside scripts/sandbox, "/usr/sbin/post*" is not started, and the test
// that was running fails. It is linked into each test program.
//
// It stands in front of the C library's execve, execv, execvp, execvpe, execl, execlp,
// fexecve, posix_spawn, posix_spawnp, system and popen, in the process and in what it
// forks. A program that was started, such as a shell, is free: of a shell command, every
// word is judged before the shell starts.
#pragma once

#include <string>

namespace torva::test {

/// The attempts of this process and of its forked children since the last call, one per
/// line, "" for none. Taking them keeps the running test from failing for them.
std::string takePostfixAttempts();

} // namespace torva::test
