// The HTTP server of the page.
#ifndef KTRECORDER_PAGESERVER_H
#define KTRECORDER_PAGESERVER_H

#include <KTBase/KTHttp.h>
#include <KTBase/KTSocket.h>
#include <KTBase/KTThread.h>

#include <functional>
#include <memory>
#include <vector>

#include "Status.h"

/// Answers one request on each connection and closes it: / is the page, /live the part of it that
/// changes, /status.json the figures. One thread serves all visitors: it waits for all their
/// sockets at once, and Polling does what is due on each.
class PageServer : public CKTThread {
public:
    typedef std::function<RecorderStatus()> Source;

    /// source is called on this thread.
    explicit PageServer(Source source);
    ~PageServer() override;

    /// Listens on 127.0.0.1, before ThreadStart. Port 0: one that is free. False when it is taken.
    bool Open(unsigned short port);
    unsigned short GetPort() const { return m_address.GetPort(); }

protected:
    unsigned int OnThread() override;

private:
    struct Visitor {
        CKTHTTPSession* session = nullptr;
        bool answered = false;
        CKTString body;
        unsigned int sent = 0;  // bytes of the body in the send buffer, or gone
    };

    void Admit();
    bool Serve(Visitor& visitor);
    void Answer(Visitor& visitor);
    int MakeBody(const CKTHTTPCommand& request, CKTString& body, const char*& type);

    const Source m_source;
    CKTSocketAddress m_address;
    unsigned long long m_listener = KT_NO_SOCKET;
    std::vector<std::unique_ptr<Visitor>> m_visitors;  // the thread's alone
};

#endif
