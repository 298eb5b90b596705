#include "alarmd/platform/Singleton.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

namespace {

/// False when another file, or none, is at the path by now: whoever held the lock before has
/// removed the file that was opened here, and a third process may have locked the new one.
bool isStillAt(const char* path, int fd) {
    struct stat opened {};
    struct stat named {};
    return fstat(fd, &opened) == 0 && stat(path, &named) == 0 && opened.st_dev == named.st_dev
           && opened.st_ino == named.st_ino;
}

/// The lock is the guard and the text only tells people, so a full disk does not matter here.
void writeProcessId(int fd) {
    const std::string text = std::to_string(getpid()) + "\n";
    if (ftruncate(fd, 0) == 0) {
        [[maybe_unused]] const ssize_t written = pwrite(fd, text.data(), text.size(), 0);
    }
}

}  // namespace

int orun42_daemon_checksingleton(const char* pidFile) {
    for (;;) {
        const int fd =
            open(pidFile, O_RDWR | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH);
        if (fd < 0) {
            return -1;
        }
        if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
            close(fd);
            return -1;
        }
        if (isStillAt(pidFile, fd)) {
            writeProcessId(fd);
            return fd;
        }
        close(fd);
    }
}

void orun42_daemon_cleansingleton(const char* pidFile, int handle) {
    unlink(pidFile);
    close(handle);
}
