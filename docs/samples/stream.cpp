#include <KTBase/KTBase.h>

#include <cstdio>
#include <cstdlib>

// Takes a frame off what has arrived and saves it. Returns 1; 0 while there is no whole one; below 0
// on failure.
int SaveFrame(CKTHTTPSession* session, IKWFile& file) {
    CKTString* received = session->GetRecvBuf();
    CKTString part;  // 20 bytes of frame header, and the frame
    const int taken = session->GetResponse()->ParseContent(
        received->GetBuffer(), static_cast<int>(received->GetLength()), &part);
    if (taken < 1)
        return taken;
    received->Flush(taken);
    if (part.GetLength() <= 20)
        return KT_MALFORMED;
    return file.Write(part.GetBuffer() + 20, part.GetLength() - 20) > 0 ? 1 : KT_ERROR;
}

int main(int argc, char** argv) {
    const CKTUrl url(argc == 4 ? argv[1] : "");
    IKWFile file;
    if (url.IsEmpty() || file.Open(argv[2], "wb") != 0) {
        std::fprintf(stderr, "Usage: stream http://HOST:PORT/stream FILE FRAMES\n");
        return 2;
    }
    CKTHTTPSession* session = CKTHTTPSession::Acquire();
    if (session == nullptr)
        return 1;
    CKTHTTPCommand* request = session->GetRequest();
    request->SetMethod("GET");
    request->SetProtocol("HTTP/1.1");
    request->SetHost(url.GetHost());
    request->SetURI(url.GetPath());
    session->GetRecvBuf()->AllocBuffer(1 << 20);  // room for the largest frame: parts come whole

    int left = std::atoi(argv[3]);
    int result = session->Open(url.GetIP(), url.GetPort());
    if (result == 0)
        result = session->SendRequ(nullptr);
    while (result >= 0 && left > 0 && session->Polling(5000) > 0)
        while (left > 0 && session->GetResponse()->GetCode() == 200 &&
               (result = SaveFrame(session, file)) > 0)
            --left;
    session->Release();
    return left == 0 ? 0 : 1;
}
