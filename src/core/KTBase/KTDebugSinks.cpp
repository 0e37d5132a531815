#include "KTDebugSinks.h"

#include <algorithm>
#include <atomic>

#include "KTBase/KTDebug.h"
#include "KTBase/KTFile.h"
#include "KTBase/KTListT.h"
#include "KTBase/KTSignal.h"
#include "KTBase/KTString.h"
#include "KTBase/KTThreadPool.h"
#include "KTLibrary.h"

namespace {

constexpr unsigned int kStreamCommand = 1000;
constexpr unsigned int kMostWaiting = 1024 * 1024;  // bytes
constexpr unsigned int kMostKept = 65536;           // bytes of capacity kept for reuse
constexpr unsigned short kGrowShift = 16;
constexpr unsigned int kIdleWaitMs = 100;
constexpr unsigned int kCommitMs = 3000;
constexpr int kThreadPriority = 32;

}  // namespace

/// An attached file: one buffer fills while the other is written.
class IKTDebugFile : public CKTObject {
public:
    IKTDebugFile() = default;
    ~IKTDebugFile() override;

    int Open(const char* path);
    bool IsNamed(const char* path) const { return CKTString::IsEqual(m_name, path) != 0; }
    void Append(const char* text, unsigned long long length);
    /// Worker handler: writes what waits. nowMS and waitMS in milliseconds.
    int OnFlush(CKTMessageT* msg, unsigned int nowMS, unsigned int& waitMS);
    /// Writes everything and closes. The flush job must have been withdrawn.
    void Close();

private:
    CKTString& Writing() { return m_filling == &m_buffers[0] ? m_buffers[1] : m_buffers[0]; }
    void WriteOut(CKTString& buffer);

    char* m_name = nullptr;
    CKTMutex m_lock;  // guards which buffer fills, and that buffer; taken after the debug lock
    CKTString m_buffers[2] = {CKTString(0, kGrowShift), CKTString(0, kGrowShift)};
    CKTString* m_filling = &m_buffers[0];
    unsigned int m_lastCommitMs = 0;
    IKWFile m_file;  // the flush job's
};

/// An attached stream.
class IKTDebugStream : public CKTObject {
public:
    IKTDebugStream(void* context, KTStreamFn fn) : m_context(context), m_fn(fn) {}

    bool Is(void* context, KTStreamFn fn) const { return m_context == context && m_fn == fn; }
    int OnSignal(CKTObject* sender, unsigned int cmd, void* text, void* length) {
        return m_fn(m_context, sender, cmd, text, length);  // may detach, which deletes this
    }

private:
    void* m_context;
    KTStreamFn m_fn;
};

/// The debug object. Guarded by the debug lock, which is held while a message is delivered.
class IKTDebug : public CKTObject {
public:
    IKTDebug() : m_thread(new CKTThreadWorker(0, "IKTDebugThread", 0, kThreadPriority)) {}
    ~IKTDebug() override;

    bool IsSound() { return m_thread != nullptr && m_thread->IsRunning() != 0; }
    void Deliver(const char* text, unsigned long long length);
    int AttachFile(const char* path);
    /// Takes the file out of the list; null when it is not there.
    IKTDebugFile* UnlinkFile(const char* path);
    /// Withdraws the flush job, writes out and deletes. To be called without the debug lock.
    void Discard(IKTDebugFile* file);
    int AttachStream(void* context, KTStreamFn fn);
    int DetachStream(void* context, KTStreamFn fn);

    unsigned int m_uses = 0;  // deliveries and detachments that use the object now

private:
    IKTDebugStream* FindStream(void* context, KTStreamFn fn);
    IKTDebugFile* FindFile(const char* path);

    IKTSignal m_signal;
    CKTListP<IKTDebugStream> m_streams;
    CKTListP<IKTDebugFile> m_files;
    CKTThreadWorker* m_thread;
    bool m_inStreams = false;  // a stream runs: what it prints is not for streams
};

namespace {

std::atomic<IKTDebug*> g_debug{nullptr};  // changed under the debug lock
int g_initialised;                        // KTDBGInitialize calls outstanding; likewise

const KTSignalHandler kOnSignal = static_cast<KTSignalHandler>(&IKTDebugStream::OnSignal);
const KTWorkerHandler kOnFlush = static_cast<KTWorkerHandler>(&IKTDebugFile::OnFlush);

IKTDebug* Published() {
    return g_debug.load(std::memory_order_acquire);
}

/// Holds the debug lock and the debug object, if there is one. The object is unpublished by the last
/// KTDBGInvalidate and deleted by the last to use it: that may be a stream's own call.
class Use {
public:
    Use() : m_lock(KTLibraryGet().debug) {
        m_lock.Enter(KT_INFINITE);
        m_debug = Published();
        if (m_debug != nullptr)
            ++m_debug->m_uses;
    }
    ~Use() {
        const bool last = m_debug != nullptr && --m_debug->m_uses == 0 && Published() != m_debug;
        m_lock.Leave();
        if (last)
            delete m_debug;
    }
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;

    explicit operator bool() const { return m_debug != nullptr; }
    IKTDebug* operator->() const { return m_debug; }

    /// Runs discard with the lock released, as far as this call holds it.
    void Discard(IKTDebugFile* file) {
        m_lock.Leave();
        m_debug->Discard(file);
        m_lock.Enter(KT_INFINITE);
    }

private:
    CKTMutex& m_lock;
    IKTDebug* m_debug;
};

}  // namespace

// ---- file ----

IKTDebugFile::~IKTDebugFile() {
    ZMKFree(m_name);
}

int IKTDebugFile::Open(const char* path) {
    m_name = CKTString::Clone(path, 0);
    return m_name != nullptr ? m_file.Open(path, "w+") : static_cast<int>(KT_NO_MEMORY);
}

void IKTDebugFile::Append(const char* text, unsigned long long length) {
    CKTGuard hold(m_lock);
    if (m_filling->GetLength() >= kMostWaiting)
        m_filling->Empty(false);
    m_filling->AppendDAT(reinterpret_cast<const unsigned char*>(text),
                         static_cast<unsigned int>(length));
}

int IKTDebugFile::OnFlush(CKTMessageT*, unsigned int nowMS, unsigned int& waitMS) {
    {
        CKTGuard hold(m_lock);
        if (Writing().IsEmpty() != 0) {
            if (m_filling->IsEmpty() != 0) {
                waitMS = std::min(waitMS, kIdleWaitMs);
                return KT_OK;
            }
            m_filling = &Writing();
        }
    }
    WriteOut(Writing());
    waitMS = 0;  // more may wait already
    if (nowMS - m_lastCommitMs >= kCommitMs) {
        m_file.Commit();
        m_lastCommitMs = nowMS;
    }
    return KT_OK;
}

void IKTDebugFile::Close() {
    WriteOut(Writing());
    WriteOut(*m_filling);
    m_file.Close();
}

/// What cannot be written is dropped: there is nobody to tell.
void IKTDebugFile::WriteOut(CKTString& buffer) {
    unsigned int done = 0;
    while (done < buffer.GetLength()) {
        const int written = m_file.Write(buffer.GetBuffer() + done, buffer.GetLength() - done);
        if (written < 1)
            break;
        done += static_cast<unsigned int>(written);
    }
    buffer.Empty(buffer.Size() > kMostKept);
}

// ---- debug object ----

IKTDebug::~IKTDebug() {
    IKTDebugFile* file = nullptr;
    while (m_files.RemoveHead(file) == KT_OK)
        Discard(file);
    delete m_thread;
    m_signal.Clear();
    IKTDebugStream* stream = nullptr;
    while (m_streams.RemoveHead(stream) == KT_OK)
        delete stream;
}

void IKTDebug::Deliver(const char* text, unsigned long long length) {
    if (!m_inStreams) {
        m_inStreams = true;
        unsigned long long passed = length;
        m_signal.Commit(this, kStreamCommand, const_cast<char*>(text), &passed);
        m_inStreams = false;
    }
    for (void* at = m_files.FindIndex(0); at != nullptr; at = m_files.GetNext(at)) {
        IKTDebugFile* file = nullptr;
        m_files.GetAt(at, file);
        file->Append(text, length);
    }
}

IKTDebugFile* IKTDebug::FindFile(const char* path) {
    IKTDebugFile* file = nullptr;
    for (void* at = m_files.FindIndex(0); at != nullptr; at = m_files.GetNext(at)) {
        m_files.GetAt(at, file);
        if (file->IsNamed(path))
            return file;
    }
    return nullptr;
}

int IKTDebug::AttachFile(const char* path) {
    if (FindFile(path) != nullptr)
        return KT_OK;
    IKTDebugFile* file = new IKTDebugFile;
    if (file == nullptr)
        return KT_NO_MEMORY;
    int result = file->Open(path);
    if (result == KT_OK && m_files.AddTail(file) == nullptr)
        result = KT_NO_MEMORY;
    else if (result == KT_OK && (result = m_thread->Attach(file, kOnFlush)) != KT_OK)
        m_files.Remove(file);
    if (result != KT_OK)
        delete file;
    return result;
}

IKTDebugFile* IKTDebug::UnlinkFile(const char* path) {
    IKTDebugFile* file = FindFile(path);
    if (file != nullptr)
        m_files.Remove(file);
    return file;
}

void IKTDebug::Discard(IKTDebugFile* file) {
    m_thread->Detach(file, kOnFlush);
    file->Close();
    delete file;
}

IKTDebugStream* IKTDebug::FindStream(void* context, KTStreamFn fn) {
    IKTDebugStream* stream = nullptr;
    for (void* at = m_streams.FindIndex(0); at != nullptr; at = m_streams.GetNext(at)) {
        m_streams.GetAt(at, stream);
        if (stream->Is(context, fn))
            return stream;
    }
    return nullptr;
}

int IKTDebug::AttachStream(void* context, KTStreamFn fn) {
    if (FindStream(context, fn) != nullptr)
        return KT_OK;
    IKTDebugStream* stream = new IKTDebugStream(context, fn);
    if (stream == nullptr)
        return KT_NO_MEMORY;
    if (m_streams.AddTail(stream) == nullptr) {
        delete stream;
        return KT_NO_MEMORY;
    }
    const int result = m_signal.Attach(stream, kOnSignal);
    if (result != KT_OK) {
        m_streams.Remove(stream);
        delete stream;
    }
    return result;
}

/// A stream that runs on another thread has ended by now: it runs under the debug lock.
int IKTDebug::DetachStream(void* context, KTStreamFn fn) {
    IKTDebugStream* stream = FindStream(context, fn);
    if (stream == nullptr)
        return KT_ERROR;
    m_signal.Detach(stream, kOnSignal);
    m_streams.Remove(stream);
    delete stream;
    return KT_OK;
}

// ---- functions ----

void KTDebugDeliver(const char* text, unsigned long long length) {
    if (Published() == nullptr)
        return;
    Use debug;
    if (debug)
        debug->Deliver(text, length);
}

int KTDBGInitialize() {
    CKTGuard hold(KTLibraryGet().debug);
    if (Published() != nullptr)
        return ++g_initialised;
    IKTDebug* debug = new IKTDebug;
    if (debug == nullptr || !debug->IsSound()) {
        delete debug;
        return KT_BAD_STATE;
    }
    g_debug.store(debug, std::memory_order_release);
    return ++g_initialised;
}

int KTDBGInvalidate() {
    Use debug;
    if (g_initialised > 0 && --g_initialised > 0)
        return g_initialised;
    g_debug.store(nullptr, std::memory_order_release);
    return 0;
}

int KTDBGAttachFile(const char* path) {
    Use debug;
    if (!debug)
        return KT_BAD_STATE;
    return CKTString::IsEmpty(path) != 0 ? static_cast<int>(KT_ARGUMENT) : debug->AttachFile(path);
}

int KTDBGDetachFile(const char* path) {
    Use debug;
    if (!debug)
        return KT_BAD_STATE;
    if (path == nullptr)
        return KT_ARGUMENT;
    IKTDebugFile* file = debug->UnlinkFile(path);
    if (file == nullptr)
        return KT_NOT_FOUND;
    debug.Discard(file);
    return KT_OK;
}

int KTDBGAttachStream(void* context, KTStreamFn fn) {
    Use debug;
    if (!debug)
        return KT_BAD_STATE;
    if (context == nullptr || fn == nullptr)
        return KT_ARGUMENT;
    return debug->AttachStream(context, fn);
}

int KTDBGDetachStream(void* context, KTStreamFn fn) {
    Use debug;
    if (!debug)
        return KT_BAD_STATE;
    if (context == nullptr || fn == nullptr)
        return KT_ARGUMENT;
    return debug->DetachStream(context, fn);
}
