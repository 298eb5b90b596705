/// One program that the desk has started. It dies with the desk, however the desk ends.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace desk {

/// Used by one thread at a time. The thread that starts a child must live as long as the desk: the
/// kernel ends the child when that thread is gone.
class Child {
  public:
    Child() = default;
    ~Child() { kill(); }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    /// Starts `arguments` (the first one is looked up in PATH) in a process group of its own, so
    /// that an interrupt typed on the terminal reaches the desk alone. Its standard output becomes
    /// `output`, its standard input is empty. A program that cannot be run ends with status 127.
    void start(const std::vector<std::string>& arguments, int output);

    bool running() const { return m_pid > 0; }
    pid_t pid() const { return m_pid; }

    /// Sends a signal, if it runs.
    void signal(int number) const;

    /// True when it has ended since the last call; never waits.
    bool reap();

    /// Ends it and all it started at once, and waits for it.
    void kill();

    /// The exit status of the last end, or 128 and the number of the signal that ended it.
    int status() const { return m_status; }

  private:
    void ended(int waitStatus);

    pid_t m_pid = -1;
    int m_status = 0;
};

}  // namespace desk
