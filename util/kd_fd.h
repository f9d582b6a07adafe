// kd_fd: ownership of one file descriptor. The owner closes it when it goes
// out of scope, so every early return of the function that opened it lets
// it go; release() hands it on to an owner that outlives the scope.
#pragma once
#include <unistd.h>

struct kd_unique_fd {
    int fd = -1;

    kd_unique_fd() = default;
    explicit kd_unique_fd(int f) : fd(f) {}
    kd_unique_fd(const kd_unique_fd &) = delete;
    kd_unique_fd &operator=(const kd_unique_fd &) = delete;
    kd_unique_fd(kd_unique_fd &&other) noexcept : fd(other.release()) {}
    // Takes the other's descriptor; the one held before is closed.
    kd_unique_fd &operator=(kd_unique_fd &&other) noexcept
    {
        if (this != &other) {
            if (fd >= 0)
                close(fd);
            fd = other.release();
        }
        return *this;
    }
    ~kd_unique_fd()
    {
        if (fd >= 0)
            close(fd);
    }

    int get() const { return fd; }
    explicit operator bool() const { return fd >= 0; }

    // The descriptor leaves this owner open; -1 is left behind.
    int release()
    {
        int f = fd;
        fd = -1;
        return f;
    }
};
