// Looks for cameras in the network.
#ifndef KTRECORDER_FINDER_H
#define KTRECORDER_FINDER_H

#include <KTBase/KTObject.h>
#include <KTBase/KTSocket.h>
#include <KTBase/KTTime.h>
#include <KTBase/KTUrl.h>

#include <functional>
#include <string>

/// The camera's URL in an answer "ktcamera 1 URL NAME". False for any other datagram.
bool ReadAnswer(const CKTString& datagram, CKTUrl& url);

/// Asks a group every two seconds, "ktdiscover 1", through 127.0.0.1, and hands on the URLs of the
/// answers, the known ones, too. A handler for a thread pool: all runs on one worker's thread.
class Finder : public CKTObject {
public:
    typedef std::function<void(const CKTUrl&)> Found;

    /// found is called on the worker's thread.
    explicit Finder(Found found);

    /// group: an IPv4 address, of a group or of one host. False when the socket cannot be opened.
    bool Open(const char* group, unsigned short port);
    /// The handler; see KTWorkerHandler.
    int OnPoll(CKTMessageT* msg, unsigned int nowMS, unsigned int& waitMS);

private:
    const Found m_found;
    CKTSocketUDP m_socket;
    CKTSocketAddress m_group;
    CKTTimeout m_beat;
};

#endif
