#include "KTBase/KTSocket.h"
#include "os/KTOsNet.h"

CKTSocketSET::CKTSocketSET() {
    Clear();
}

CKTSocketSET::~CKTSocketSET() = default;

void CKTSocketSET::Clear() {
    m_maxHandle = KT_NO_SOCKET;
    m_count = 0;
    KTOsSetClear(m_read);
    KTOsSetClear(m_write);
    KTOsSetClear(m_error);
}

int CKTSocketSET::Select(unsigned long long handle, bool recv, bool send) {
    if (handle == KT_NO_SOCKET)
        return KT_NO_HANDLE;
    if (m_count >= KT_SOCKET_SET_LIMIT || !KTOsSetFits(handle))
        return KT_FULL;
    if (m_maxHandle == KT_NO_SOCKET || m_maxHandle < handle)
        m_maxHandle = handle;
    KTOsSetAdd(m_error, handle, KT_SOCKET_SET_LIMIT);
    if (send)
        KTOsSetAdd(m_write, handle, KT_SOCKET_SET_LIMIT);
    if (recv)
        KTOsSetAdd(m_read, handle, KT_SOCKET_SET_LIMIT);
    ++m_count;
    return KT_OK;
}

int CKTSocketSET::Wait(unsigned int timeoutMs) {
    if (m_count == 0)
        return KT_BAD_STATE;
    return KTOsSetWait(m_maxHandle, m_read, m_write, m_error, timeoutMs);
}

bool CKTSocketSET::CheckRecv(unsigned long long handle) const {
    return KTOsSetHas(m_read, handle);
}

bool CKTSocketSET::CheckSend(unsigned long long handle) const {
    return KTOsSetHas(m_write, handle);
}

bool CKTSocketSET::CheckError(unsigned long long handle) const {
    return KTOsSetHas(m_error, handle);
}
