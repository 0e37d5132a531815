// Answers who asks a multicast group for cameras.
#ifndef KTCAMERA_DISCOVERY_H
#define KTCAMERA_DISCOVERY_H

#include <KTBase/KTSocket.h>

#include <string>

/// A datagram "ktdiscover 1" to the group brings "ktcamera 1 URL NAME" back to its sender.
class Discovery {
public:
    Discovery(const std::string& url, const std::string& name);

    /// Joins the group on the loopback interface. False when there is no such socket to be had.
    bool Open(const std::string& group, unsigned short port);
    /// Says what to wait for; nothing unless open.
    void Select(CKTSocketSET& set);
    /// Takes a question, sends an answer.
    void Poll(const CKTSocketSET& set);

private:
    const CKTString m_answer;
    CKTSocketMCAST m_socket;
};

#endif
