#include "handles.h"

bool HandlesAllow(unsigned int) {
    return true;
}
