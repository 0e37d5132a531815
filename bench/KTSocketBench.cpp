// A raw echo through CKTSocketTCP beside the system's plain calls, both over loopback.
#include <KTBase/KTSocket.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <thread>

#include "KTCompare.h"

namespace {

constexpr unsigned int kWaitMs = 10000;

// Sends every byte back until the peer closes; plain calls, the same for both sides.
class EchoServer {
public:
    EchoServer() {
        m_listen = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        if (bind(m_listen, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
            listen(m_listen, 1) != 0 ||
            getsockname(m_listen, reinterpret_cast<sockaddr*>(&address), &length) != 0)
            std::abort();
        port = ntohs(address.sin_port);
        m_thread = std::thread([this] {
            const int peer = accept(m_listen, nullptr, nullptr);
            char buffer[65536];
            for (ssize_t got; (got = recv(peer, buffer, sizeof(buffer), 0)) > 0;) {
                for (ssize_t sent = 0, step; sent < got; sent += step) {
                    step = send(peer, buffer + sent, got - sent, MSG_NOSIGNAL);
                    if (step < 1)
                        break;
                }
            }
            close(peer);
        });
    }
    ~EchoServer() {
        m_thread.join();
        close(m_listen);
    }
    unsigned short port;

private:
    int m_listen;
    std::thread m_thread;
};

void Echo(benchmark::State& state) {
    const int size = static_cast<int>(state.range(0));
    const std::string message(size, 'x');
    std::string answer(size, 0);
    EchoServer ourServer, rivalServer;

    CKTSocketTCP ours;
    if (ours.Open("127.0.0.1", ourServer.port) != 0)
        state.SkipWithError("no connection");
    const int rival = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(rivalServer.port);
    if (connect(rival, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0)
        state.SkipWithError("no connection");

    KTCompare(
        state, 1,
        [&] {
            ours.Send(message.data(), size, kWaitMs);
            for (int got = 0, step; got < size; got += step) {
                step = ours.Recv(&answer[got], size - got, kWaitMs);
                if (step < 1)
                    break;
            }
        },
        [&] {
            for (int sent = 0, step; sent < size; sent += step) {
                step = static_cast<int>(send(rival, &message[sent], size - sent, MSG_NOSIGNAL));
                if (step < 1)
                    break;
            }
            for (int got = 0, step; got < size; got += step) {
                step = static_cast<int>(recv(rival, &answer[got], size - got, 0));
                if (step < 1)
                    break;
            }
        });
    ours.Close();
    close(rival);
}
BENCHMARK(Echo)->Arg(64)->Arg(4096)->Arg(32768)->UseManualTime()->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
