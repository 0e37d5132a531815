// The system's part of the tests that open many sockets.
#ifndef KTBASE_TESTS_HANDLES_HANDLES_H
#define KTBASE_TESTS_HANDLES_HANDLES_H

/// Raises the process's limit on open handles where there is one. Whether it now allows count.
bool HandlesAllow(unsigned int count);

#endif
