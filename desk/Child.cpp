#include "desk/Child.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace desk {

namespace {

/// What the new process does; only calls that are safe after a fork of a program with threads.
[[noreturn]] void become(char* const* arguments, int output, pid_t parent) {
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {
        _exit(1);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    signal(SIGINT, SIG_DFL);
    const int empty = open("/dev/null", O_RDWR);
    dup2(empty, STDIN_FILENO);
    dup2(output, STDOUT_FILENO);
    execvp(arguments[0], arguments);
    _exit(127);
}

}  // namespace

void Child::start(const std::vector<std::string>& arguments, int output) {
    kill();
    std::vector<char*> pointers;
    for (const std::string& argument : arguments) {
        pointers.push_back(const_cast<char*>(argument.c_str()));
    }
    pointers.push_back(nullptr);
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
        become(pointers.data(), output, parent);
    }
    if (pid < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    setpgid(pid, pid);  // here too: the group exists before anyone signals it
    m_pid = pid;
}

void Child::signal(int number) const {
    if (running()) {
        ::kill(m_pid, number);
    }
}

bool Child::reap() {
    int waitStatus = 0;
    if (!running() || waitpid(m_pid, &waitStatus, WNOHANG) != m_pid) {
        return false;
    }
    ended(waitStatus);
    return true;
}

void Child::kill() {
    if (!running()) {
        return;
    }
    ::kill(-m_pid, SIGKILL);
    int waitStatus = 0;
    while (waitpid(m_pid, &waitStatus, 0) < 0 && errno == EINTR) {
    }
    ended(waitStatus);
}

void Child::ended(int waitStatus) {
    m_pid = -1;
    m_status = WIFSIGNALED(waitStatus) ? 128 + WTERMSIG(waitStatus) : WEXITSTATUS(waitStatus);
}

}  // namespace desk
