// Blocking descriptor output for the companion programs (configd's store,
// the command-line tools): writes everything or reports failure.
#pragma once
#include <cerrno>
#include <cstddef>
#include <unistd.h>

inline bool fdio_write_all(int fd, const char *p, size_t n)
{
    while (n > 0) {
        ssize_t w = write(fd, p, n);
        if (w < 0 && errno == EINTR)
            continue;
        if (w <= 0)
            return false;
        p += w;
        n -= static_cast<size_t>(w);
    }
    return true;
}
