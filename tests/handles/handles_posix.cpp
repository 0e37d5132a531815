#include <sys/resource.h>

#include "handles.h"

bool HandlesAllow(unsigned int count) {
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return false;
    if (limit.rlim_cur >= count)
        return true;
    limit.rlim_cur = count;
    if (limit.rlim_max < count)
        limit.rlim_max = count;  // for the superuser
    return setrlimit(RLIMIT_NOFILE, &limit) == 0;
}
