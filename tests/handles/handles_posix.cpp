#include <sys/resource.h>

#include "handles.h"

unsigned int HandlesAllow(unsigned int count) {
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_cur >= count)
        return count;
    const rlimit raised = {count, limit.rlim_max > count ? limit.rlim_max : count};
    return setrlimit(RLIMIT_NOFILE, &raised) == 0 ? count : limit.rlim_cur;
}
