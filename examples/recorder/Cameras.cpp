#include "Cameras.h"

#include "Text.h"

namespace {

// Anybody in the network can answer a discovery: what that leads to has an end.
constexpr std::size_t kMostCameras = 64;

bool IsSameHost(const CKTUrl& a, const CKTUrl& b) {
    return CKTString::IsEqual(a.GetIP(), b.GetIP()) != 0 && a.GetPort() == b.GetPort();
}

}  // namespace

Camera* Cameras::Add(const CKTUrl& url) {
    CKTGuard hold(m_lock);
    if (m_cameras.size() >= kMostCameras)
        return nullptr;
    for (const std::unique_ptr<Camera>& camera : m_cameras)
        if (IsSameHost(camera->GetUrl(), url))
            return nullptr;
    std::unique_ptr<Camera> camera(new Camera(url, m_wake));
    if (camera == nullptr)
        return nullptr;
    m_cameras.push_back(std::move(camera));
    return m_cameras.back().get();
}

unsigned int Cameras::GetCount() {
    CKTGuard hold(m_lock);
    return static_cast<unsigned int>(m_cameras.size());
}

Camera* Cameras::Get(unsigned int index) {
    CKTGuard hold(m_lock);
    return m_cameras[index].get();
}

bool Cameras::HasName(const std::string& name) {
    for (const std::unique_ptr<Camera>& camera : m_cameras)
        if (camera->HasName() && camera->GetName() == name)
            return true;
    return false;
}

void Cameras::GiveName(Camera& camera, const std::string& text) {
    CKTGuard hold(m_lock);
    if (camera.HasName())
        return;
    const std::string safe = SafeFileName(text);
    std::string name = safe;
    for (unsigned int i = 2; HasName(name); ++i)
        name = safe + "_" + std::to_string(i);
    camera.SetName(name, text.empty() ? name : text);
}
