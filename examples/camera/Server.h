// The camera's HTTP server: accepts connections and answers requests.
#ifndef KTCAMERA_SERVER_H
#define KTCAMERA_SERVER_H

#include <KTBase/KTHttp.h>

#include <list>
#include <string>

#include "Access.h"
#include "Client.h"
#include "Film.h"

/// What GET /describe tells.
struct Description {
    std::string name;
    bool h265 = false;
    unsigned int width = 0;
    unsigned int height = 0;
    double fps = 0;
};

/// Serves on one thread: fill a set, wait on it, poll, again and again.
///
///     GET /describe   XML: name, codec, size, frames per second
///     GET /stream     multipart, one part a frame: a packet's header and payload
///     GET /raw        the byte stream as players read it
///     GET /snapshot   the last key frame
class Server {
public:
    Server(const Description& description, const Access& access);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    /// Listens on the loopback interface; port 0 takes a free one. False when the port cannot be
    /// had.
    bool Listen(unsigned short port);
    /// Of the camera, with a "/" at its end.
    const std::string& GetUrl() const { return m_url; }

    /// Hands a frame to all who watch; null for one that was lost.
    void Show(CPacket* frame);
    void Select(CKTSocketSET& set);
    void Poll(const CKTSocketSET& set);

private:
    void AcceptClient();
    int CodeOf(const CKTHTTPCommand& request, std::string& path) const;
    void Answer(Client& client, const CKTHTTPCommand& request);
    void AnswerPath(Client& client, CKTHTTPCommand& head, const std::string& path, bool isHead,
                    bool keep);
    std::string DescribeXml() const;

    const Description m_description;
    const Access m_access;
    unsigned long long m_listener = KT_NO_SOCKET;
    std::string m_url;
    std::list<Client> m_clients;
    PacketRef m_lastKey;
};

#endif
