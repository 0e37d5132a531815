// The client of one camera: asks what it is, then takes the frames of its stream.
#ifndef KTRECORDER_CAMERACLIENT_H
#define KTRECORDER_CAMERACLIENT_H

#include <KTBase/KTHttp.h>
#include <KTBase/KTObject.h>
#include <KTBase/KTString.h>
#include <KTBase/KTTime.h>

#include <string>

#include "Camera.h"
#include "Cameras.h"
#include "Console.h"

/// A handler for a thread pool: each call goes a step further, and waits for the camera for a few
/// milliseconds at most. All of it runs on one worker's thread, so nothing here locks.
///
/// A stream never ends by a length, so Commit, which waits for the end of a body, does not serve
/// here. Instead: Open, SendRequ, and Polling until the head of the answer is there; then
/// ParseContent over the receive buffer, part by part.
class CameraClient : public CKTObject {
public:
    CameraClient(Camera& camera, Cameras& cameras, Console& console);
    CameraClient(const CameraClient&) = delete;
    CameraClient& operator=(const CameraClient&) = delete;
    ~CameraClient() override;

    /// The handler; see KTWorkerHandler.
    int OnPoll(CKTMessageT* msg, unsigned int nowMS, unsigned int& waitMS);

private:
    enum class Step { kRest, kDescribe, kStream };

    void Ask(Step step);
    void Send();
    void Listen();
    void TakeAnswer();
    void TakeRefusal();
    void TakeDescription();
    void TakeParts();
    bool TakePart();
    bool MakeRoom();
    void Close();
    void Fail(const std::string& why);

    Camera& m_camera;
    Cameras& m_cameras;
    Console& m_console;
    CKTHTTPSession* m_session;  // one reference; null when memory was out
    CKTHTTPAuthen m_authen;
    Step m_step = Step::kRest;
    bool m_hasChallenge = false;  // m_authen can answer
    bool m_answered = false;      // the request under way answers a refusal of the same request
    CKTString m_content;          // the description, or a part
    bool m_receives = false;      // frames have come on this connection
    CKTTimeout m_rest;            // until the next try
    unsigned int m_restMs;        // length of the next rest
    std::string m_lastWhy;        // said already
};

#endif
