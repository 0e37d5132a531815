// The system's part of a test that opens many sockets.
#ifndef KTBASE_TESTS_HANDLES_HANDLES_H
#define KTBASE_TESTS_HANDLES_HANDLES_H

/// Raises the limit on open handles to count where it can. Returns how many the test may open.
unsigned int HandlesAllow(unsigned int count);

#endif
