#pragma once

#include <fcntl.h>
#include <unistd.h>

/// Keeps a descriptor that was just opened to this process: it is closed on exec, so that no child of another
/// thread inherits it, and it is moved above 2, so that output to a closed stdout cannot go to its file.
/// Returns the descriptor to use; -1, with `errno` as it was, for -1.
inline int keptToItself(int fd) {
    if (fd == -1) return fd;
    fcntl(fd, F_SETFD, FD_CLOEXEC);
    if (fd > STDERR_FILENO) return fd;
    const int moved = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    close(fd);
    return moved;
}
