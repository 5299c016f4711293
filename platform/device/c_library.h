// The C library's own functions, for code that the preload object puts in front of them. Each is
// looked up when it is first used.
#pragma once

#include <dlfcn.h>
#include <poll.h>
#include <sys/stat.h>

template <typename Function> static inline Function *next(Function **slot, const char *name)
{
    Function *function = __atomic_load_n(slot, __ATOMIC_RELAXED);
    if (!function) {
        function = (Function *)dlsym(RTLD_NEXT, name);
        __atomic_store_n(slot, function, __ATOMIC_RELAXED);
    }
    return function;
}

static inline int poll_next(pollfd *entries, nfds_t count, int timeout)
{
    static int (*slot)(pollfd *, nfds_t, int);
    return next(&slot, "poll")(entries, count, timeout);
}

static inline int close_next(int fd)
{
    static int (*slot)(int);
    return next(&slot, "close")(fd);
}

static inline int statx_next(int directory, const char *path, int flags, unsigned mask,
                             struct statx *status)
{
    static int (*slot)(int, const char *, int, unsigned, struct statx *);
    return next(&slot, "statx")(directory, path, flags, mask, status);
}
