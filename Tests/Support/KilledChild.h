#pragma once
// Part of a test run in a child process that is killed, as a crash or the system would end
// an application: what it stored must outlive it.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

namespace kt::testing {

/// Ends the calling process with SIGKILL at once: no destructor runs, nothing is flushed.
[[noreturn]] inline void killNow() {
    ::kill(::getpid(), SIGKILL);
    for (;;) ::pause();
}

/// Runs `work` in a forked child, which `work` ends with killNow() while what it made still
/// lives. True when the child died of a signal.
inline bool killedChild(const std::function<void()>& work) {
    const pid_t child = ::fork();
    if (child == 0) {
        work();
        killNow();
    }
    int status = 0;
    return ::waitpid(child, &status, 0) == child && WIFSIGNALED(status);
}

}  // namespace kt::testing
