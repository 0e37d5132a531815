// One connection: its session, and what still has to be sent over it.
#ifndef KTCAMERA_CLIENT_H
#define KTCAMERA_CLIENT_H

#include <KTBase/KTHttp.h>
#include <KTBase/KTPacket.h>

#include <string>

#include "Film.h"

/// Sends replies, one after the other, or frames without end. Everything happens on one thread, so
/// the session's lock is not needed.
///
/// The session's send buffer has 32 KB and a key frame may be larger: the buffer is filled in
/// pieces as the connection takes them, and the client holds the packet until the last one. The
/// packet is the same for all clients; only the reference is each one's own.
class Client {
public:
    /// Takes over the caller's reference.
    explicit Client(CKTHTTPSession* session);
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    /// What to send; each begins with a head. After a reply the connection is kept or closed;
    /// watching ends with the connection only.
    void Reply(CKTHTTPCommand& head, const std::string& body, bool keep);
    void Reply(CKTHTTPCommand& head, CPacket* frame, bool keep);
    /// framed: multipart parts with a packet's header each, else the bare byte stream.
    void Watch(CKTHTTPCommand& head, bool framed);

    /// Queues a frame for who watches; null for one that was lost on the way. A full queue, and a
    /// beginning, wait for the next key frame: nothing between could be decoded.
    void Put(CPacket* frame);

    /// Says what to wait for.
    void Select(CKTSocketSET& set);
    /// Receives and sends what is ready. False: the connection is over.
    bool Poll(const CKTSocketSET& set);
    /// The request that waits for its reply; null when there is none. Its code is below 0 when it
    /// is malformed.
    CKTHTTPCommand* GetRequest();

    std::string GetPeerText();
    bool IsWatching() const { return m_watching; }
    unsigned long long GetSentFrames() const { return m_sentFrames; }
    unsigned long long GetLostFrames() const { return m_lostFrames; }

private:
    void Begin(CKTHTTPCommand& head, bool keep);
    void SetFrame(CPacket* frame, unsigned int begin);
    bool HasMore() const;
    bool TakeNext();
    void Fill();
    void Finish();

    CKTHTTPSession* m_session;
    bool m_busy = false;  // a reply is under way
    bool m_keep = false;  // the connection outlives it
    bool m_watching = false;
    bool m_framed = false;
    bool m_waitsForKey = true;

    // Being sent: first the text, then the frame.
    std::string m_text;
    std::size_t m_textSent = 0;
    CPacket* m_frame = nullptr;    // one reference
    unsigned int m_frameSent = 0;  // bytes of its buffer, the header counted
    CKTPacketList m_queue;         // the frames after it

    unsigned long long m_sentFrames = 0;
    unsigned long long m_lostFrames = 0;
};

#endif
