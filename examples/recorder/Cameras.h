// The cameras that the recorder knows. They come, from the command line and by discovery, and stay.
#ifndef KTRECORDER_CAMERAS_H
#define KTRECORDER_CAMERAS_H

#include <KTBase/KTLock.h>
#include <KTBase/KTUrl.h>

#include <memory>
#include <string>
#include <vector>

#include "Camera.h"

/// Owns the cameras; one lives as long as the list. Any thread.
class Cameras {
public:
    /// The new camera; null when there is one at that host and port, when 64 are there, or when
    /// memory is out.
    Camera* Add(const CKTUrl& url);
    unsigned int GetCount();
    Camera* Get(unsigned int index);  ///< index below GetCount()

    /// Names the camera after the text it gave, in a form that serves as a file name and that no
    /// other camera has. A camera that has a name keeps it.
    void GiveName(Camera& camera, const std::string& text);

    CKTEvent& GetWake() { return m_wake; }  ///< set whenever a frame waits in a queue

private:
    bool HasName(const std::string& name);

    CKTEvent m_wake{true};
    CKTMutex m_lock;  // guards the list; taken before a camera's
    std::vector<std::unique_ptr<Camera>> m_cameras;
};

#endif
