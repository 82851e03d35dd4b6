// Keeps every test program away from the machine's own Postfix, even when the code under
// test is wrong: outside scripts/sandbox, "/usr/sbin/post*" is not started, and the test
// that was running fails. It is linked into each test program.
//
// It wraps the C library's execve, execv, execvp, execvpe, execl, execlp,
// fexecve, posix_spawn, posix_spawnp, system and popen, in the process and in its forked
// children. A program that was started, such as a shell, is not guarded: every
// word of a shell command is checked before the shell starts.
#pragma once

#include <string>

namespace torva::test {

/// The attempts of this process and of its forked children since the last call, one per
/// line, "" for none. The running test does not fail for attempts that were taken.
std::string takePostfixAttempts();

} // namespace torva::test
