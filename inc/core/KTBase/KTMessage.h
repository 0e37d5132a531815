// Messages that threads hand each other, and two message records that other families pass around.
#ifndef KTBASE_KTMESSAGE_H
#define KTBASE_KTMESSAGE_H

#include "KTBase/KTDefs.h"
#include "KTBase/KTObject.h"
#include "KTBase/KTState.h"
#include "KTBase/KTUrl.h"

/// A posted message: a plain value. Commands 1 (stop), 2 (object attached), 101, 201 and 202 are
/// the library's own. It owns nothing of what its parameters point at.
class KTBASE_API CKTMessageT : public CKTObject {
public:
    CKTMessageT();
    /// time: milliseconds of CKTTime::GetTimeMS cut to 32 bits; 0 means now.
    CKTMessageT(unsigned int cmd, void* p0, void* p1, unsigned int time);
    CKTMessageT(const CKTMessageT& other) = default;
    CKTMessageT& operator=(const CKTMessageT& other) = default;
    ~CKTMessageT() override;

    unsigned int& Command() { return m_command; }
    void*& Param0() { return m_param0; }
    void*& Param1() { return m_param1; }
    unsigned int& TimeStamp() { return m_timeStamp; }

private:
    unsigned int m_command = 0;
    void* m_param0 = nullptr;
    void* m_param1 = nullptr;
    unsigned int m_timeStamp = 0;
};

// The Windows headers define GetObject as a macro; a class that overrides it needs these three
// lines around it too.
#pragma push_macro("GetObject")
#undef GetObject

/// Reference-counted message. The last Release deletes it, so it is made with new.
/// The count may be changed from any thread; the fields belong to one thread at a time.
class KTBASE_API IKTMessage : public IKTRef {
public:
    IKTMessage() = default;
    ~IKTMessage() override;

    int AddRef() override;
    /// Deletes the message when the count drops to 0 or below. Returns what is left, 0 after that.
    int Release() override;
    int GetRef() override;

    /// Stores all four. Returns 0.
    virtual int Setup(unsigned int cmd, CKTObject* obj, void* p0, void* p1);
    virtual unsigned int GetCommand();
    virtual CKTObject* GetObject();
    /// Parameter 0 or 1; null for any other index.
    virtual void* GetParam(int index);
    /// Returns 0, or -10 for an index other than 0 and 1.
    virtual int SetParam(int index, void* param);
    virtual void SetCommand(unsigned int cmd);
    virtual void SetObject(CKTObject* obj);

    /// What a call of GetObject becomes behind the Windows headers.
    CKTObject* GetObjectA() { return GetObject(); }
    CKTObject* GetObjectW() { return GetObject(); }

private:
    unsigned int m_command = 0;
    CKTObject* m_object = nullptr;
    void* m_params[2] = {};
};

#pragma pop_macro("GetObject")

/// A record of state flags, an error code, a URL and two parameters. The URL and the parameters
/// belong to one thread at a time; the state as IKTState says. A copy copies everything.
class KTBASE_API CKTMsg : public IKTState {
public:
    CKTMsg() = default;
    CKTMsg(const CKTMsg& other) = default;
    CKTMsg& operator=(const CKTMsg& other) = default;
    ~CKTMsg() override;

    /// Parses text. Returns 0, or -4 when it is no URL; the URL is then empty.
    int SetUrl(const char* text);
    int SetUrl(const CKTUrl& url);
    /// Copies the URL out.
    int GetUrl(CKTUrl& url);

    void SetParam0(void* param) { m_param0 = param; }
    void SetParam1(void* param) { m_param1 = param; }
    void* GetParam0() { return m_param0; }
    void* GetParam1() { return m_param1; }

private:
    CKTUrl m_url;
    void* m_param0 = nullptr;
    void* m_param1 = nullptr;
};

#endif
