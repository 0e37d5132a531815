// Export macro, result codes and the small types that every family shares.
#ifndef KTBASE_KTDEFS_H
#define KTBASE_KTDEFS_H

#include <cstddef>

#if defined(KTBASE_STATIC)
#define KTBASE_API
#elif defined(_WIN32)
#if defined(KTBASE_BUILD)
#define KTBASE_API __declspec(dllexport)
#else
#define KTBASE_API __declspec(dllimport)
#endif
#else
#define KTBASE_API __attribute__((visibility("default")))
#endif

/// Lets the compiler check a printf-like call: text and first are argument numbers from 1,
/// `this` counted; first is 0 where the arguments arrive as a va_list.
#if defined(__clang__)
#define KTBASE_PRINTF(text, first) __attribute__((format(printf, text, first)))
#else
#define KTBASE_PRINTF(text, first) __attribute__((format(gnu_printf, text, first)))
#endif

/// Defined where the library exports `gettimeofday` itself; elsewhere the C library owns that name.
#if defined(_WIN32)
#define KTBASE_HAS_GETTIMEOFDAY 1
#endif

/// Result codes, the same in every family. Callers compare the numbers: they never change.
/// A positive result is a count where a call says so.
enum KTResult : int {
    KT_OK = 0,
    KT_ERROR = -1,          ///< general failure
    KT_TIMEOUT = -2,        ///< the time ran out
    KT_ARGUMENT = -4,       ///< missing or invalid argument
    KT_NO_HANDLE = -5,      ///< null handle, or no listening handle
    KT_NO_MEMORY = -6,      ///< no memory, or no room to grow
    KT_BAD_STATE = -7,      ///< wrong state, not initialised or not open
    KT_FULL = -8,           ///< full
    KT_EMPTY = -9,          ///< empty
    KT_UNSUPPORTED = -10,   ///< unsupported or invalid parameter value
    KT_NOT_FOUND = -11,     ///< not found
    KT_SEND_ERROR = -13,    ///< sending failed
    KT_MALFORMED = -15,     ///< malformed or rejected data
    KT_AUTH_FAILED = -16,   ///< authentication failed
    KT_ATTACHED = -17,      ///< already attached
    KT_DISCONNECTED = -18,  ///< connection failed, or closed by the peer
};

/// A time-out without end, in milliseconds.
constexpr unsigned int KT_INFINITE = 0xFFFFFFFFu;

class CKTObject;
class CKTMessageT;

/// Member-function form of a signal's connection; the result is not used.
typedef int (CKTObject::*KTSignalHandler)(CKTObject* sender, unsigned int cmd, void* p0, void* p1);

/// Member-function form of a worker's handler. msg is null on a poll; waitMS is lowered to ask for
/// the next poll.
typedef int (CKTObject::*KTWorkerHandler)(CKTMessageT* msg, unsigned int nowMS,
                                          unsigned int& waitMS);

/// Plain function of a callback. The command comes before the sender.
typedef int (*KTCallbackFn)(void* context, unsigned int cmd, void* sender, void* p0, void* p1);

/// Plain function of debug streams and asynchronous jobs. The sender comes before the command.
typedef int (*KTStreamFn)(void* context, CKTObject* sender, unsigned int cmd, void* p0, void* p1);

#endif
