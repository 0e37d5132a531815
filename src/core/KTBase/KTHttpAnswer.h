// What the clients of HTTP know about answers.
#ifndef KTBASE_KTHTTPANSWER_H
#define KTBASE_KTHTTPANSWER_H

/// Whether the answer only announces another one (RFC 9110, 15.2).
inline bool KTHttpIsInterim(int code) {
    return code >= 100 && code <= 199;
}

/// Whether a body may follow the head, if its lines say so (RFC 9112, 6.3). head: the request was a
/// HEAD.
inline bool KTHttpMayHaveBody(bool head, int code) {
    return !head && code != 204 && code != 304;
}

#endif
