// What the sockets and TLS share: host texts, and a number that the event-driven reads go by.
#ifndef KTBASE_KTSOCKETHOST_H
#define KTBASE_KTSOCKETHOST_H

#include <cstddef>

/// The raw error that event-driven reads take for "nothing now", the same number on every system.
/// Owners of select loops rely on all else, 10035 included, ending the connection.
constexpr int KT_RAW_TRY_AGAIN = 11;

/// Copies what lies between "[" and the first "]" of a text that begins with a bracket, else all of
/// it. False when it does not fit. No argument is null.
bool KTSocketHost(const char* text, char* host, std::size_t hostSize);

/// Whether host is a numeric IPv4 or IPv6 address, without brackets.
bool KTSocketHostIsLiteral(const char* host);

#endif
