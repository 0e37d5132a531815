#include "handles.h"

unsigned int HandlesAllow(unsigned int) {
    return 400;  // there is no limit, but Wine takes its time
}
