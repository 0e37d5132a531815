// The one header that brings in system types: fd_set, sockaddr and timeval.
// Only the socket and TLS headers include it.
#ifndef KTBASE_KTSYSTYPES_H
#define KTBASE_KTSYSTYPES_H

#if defined(_WIN32)
#ifndef NOMINMAX
#define NOMINMAX
#endif
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <winsock2.h>
#include <ws2tcpip.h>
#else
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#endif

#endif
