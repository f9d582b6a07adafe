// The descriptors a process holds, for the tests that check what a fetching
// child inherits (the fixture, and the fake fetcher reporting on itself).
#pragma once
#include <cstdlib>
#include <dirent.h>
#include <string>

// The open descriptors above standard error, as "3 5 ...".
inline std::string descriptors_above_2()
{
    std::string list;
    DIR *d = opendir("/proc/self/fd");
    for (dirent *e; d && (e = readdir(d));) {
        int fd = atoi(e->d_name);
        if (e->d_name[0] == '.' || fd <= 2 || fd == dirfd(d))
            continue;
        list += (list.empty() ? "" : " ") + std::to_string(fd);
    }
    if (d)
        closedir(d);
    return list;
}
