/// A child process, and the private bus that is one.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <optional>

#include "tests/harness/Timeline.h"

namespace harness {

/// Waits for the end of a child: the exit status, or minus the signal that ended it.
inline int waitFor(pid_t pid) {
    int status = 0;
    if (!await([&] { return waitpid(pid, &status, WNOHANG) != 0; })) {
        ADD_FAILURE() << "process " << pid << " does not end";
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

/// Whether a process catches SIGINT and SIGTERM: before that they simply kill it.
inline bool catchesSignals(pid_t pid) {
    constexpr unsigned long long both = 1ULL << (SIGINT - 1) | 1ULL << (SIGTERM - 1);
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string word;
    while (status >> word && word != "SigCgt:") {
    }
    status >> word;
    return (std::strtoull(word.c_str(), nullptr, 16) & both) == both;
}

inline void awaitHandlers(pid_t pid) {
    EXPECT_TRUE(await([&] { return catchesSignals(pid); }));
}

/// Runs a program with its standard output in a pipe. The child dies with the test.
class Process {
  public:
    explicit Process(const Lines& argv) {
        std::vector<char*> arguments;
        for (const std::string& argument : argv) {
            arguments.push_back(const_cast<char*>(argument.c_str()));
        }
        arguments.push_back(nullptr);
        int ends[2];
        EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
        m_pid = fork();
        if (m_pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            dup2(ends[1], STDOUT_FILENO);
            execvp(arguments[0], arguments.data());
            _exit(127);
        }
        close(ends[1]);
        m_output = fdopen(ends[0], "r");
    }
    ~Process() {
        if (m_pid > 0) {
            end(SIGKILL);
        }
        std::fclose(m_output);
    }

    pid_t pid() const { return m_pid; }
    /// Sends a signal, unless it is 0, and waits as waitFor does.
    int end(int signal) {
        kill(m_pid, signal);
        return waitFor(std::exchange(m_pid, -1));
    }

    /// What the program prints until `last`.
    std::string read(int last = EOF) {
        std::string text;
        for (int c; (c = std::fgetc(m_output)) != EOF && c != last;) {
            text += static_cast<char>(c);
        }
        return text;
    }

  private:
    pid_t m_pid;
    std::FILE* m_output;
};

/// The system bus of this process and its children, on an address that stays the same, so that it
/// can go and come back. Destroying the daemon is a crash of it.
class PrivateBus {
  public:
    static constexpr const char* k_address = "unix:path=/run/bus";

    PrivateBus() {
        setenv("DBUS_SYSTEM_BUS_ADDRESS", k_address, 1);
        start();
    }

    /// Returns when connections are accepted.
    void start() {
        // It complains about limits that it cannot raise and does not need.
        const std::string address = std::string(" --print-address --address=") + k_address;
        m_daemon.emplace(
            Lines{"sh", "-c", "exec dbus-daemon --session --nofork" + address + " 2> /dev/null"});
        EXPECT_NE(m_daemon->read('\n'), "");
    }
    void crash() { m_daemon.reset(); }

  private:
    std::optional<Process> m_daemon;
};

}  // namespace harness
