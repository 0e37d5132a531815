#include "KTBase/KTMessage.h"

#include "KTBase/KTTime.h"

CKTMessageT::CKTMessageT() = default;

CKTMessageT::CKTMessageT(unsigned int cmd, void* p0, void* p1, unsigned int time)
    : m_command(cmd),
      m_param0(p0),
      m_param1(p1),
      m_timeStamp(time != 0 ? time : static_cast<unsigned int>(CKTTime::GetTimeMS())) {}

CKTMessageT::~CKTMessageT() = default;

IKTMessage::~IKTMessage() = default;

int IKTMessage::AddRef() {
    return IKTRef::AddRef();
}

int IKTMessage::Release() {
    const int left = IKTRef::Release();
    if (left > 0)
        return left;
    delete this;
    return 0;
}

int IKTMessage::GetRef() {
    return IKTRef::GetRef();
}

int IKTMessage::Setup(unsigned int cmd, CKTObject* obj, void* p0, void* p1) {
    m_command = cmd;
    m_object = obj;
    m_params[0] = p0;
    m_params[1] = p1;
    return KT_OK;
}

unsigned int IKTMessage::GetCommand() {
    return m_command;
}

CKTObject* IKTMessage::GetObject() {
    return m_object;
}

void* IKTMessage::GetParam(int index) {
    return index == 0 || index == 1 ? m_params[index] : nullptr;
}

int IKTMessage::SetParam(int index, void* param) {
    if (index != 0 && index != 1)
        return KT_UNSUPPORTED;
    m_params[index] = param;
    return KT_OK;
}

void IKTMessage::SetCommand(unsigned int cmd) {
    m_command = cmd;
}

void IKTMessage::SetObject(CKTObject* obj) {
    m_object = obj;
}

CKTMsg::~CKTMsg() = default;

int CKTMsg::SetUrl(const char* text) {
    return m_url.Setup(text);
}

int CKTMsg::SetUrl(const CKTUrl& url) {
    m_url = url;
    return KT_OK;
}

int CKTMsg::GetUrl(CKTUrl& url) {
    url = m_url;
    return KT_OK;
}
