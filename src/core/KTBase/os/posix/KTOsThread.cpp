#include "os/KTOsThread.h"

#include <limits.h>
#include <openssl/crypto.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <new>

#include "KTBase/KTDefs.h"
#include "KTHeap.h"
#include "os/KTOsSync.h"

namespace {

constexpr unsigned long long kLeastStackBytes = 1024 * 1024;

struct OsThread {
    std::atomic<int> uses{2};  // the creator's and the thread's own
    unsigned long (*entry)(void*) = nullptr;
    void* argument = nullptr;
    int step = 0;
    char name[16] = {};  // the system takes 15 characters
    unsigned int id = 0;
    unsigned long exitCode = 0;
    void* started = nullptr;   // set when id is known
    void* returned = nullptr;  // manual-reset; set when entry has returned
};

void Drop(OsThread* thread) {
    if (thread->uses.fetch_sub(1, std::memory_order_acq_rel) != 1)
        return;
    KTOsEventClose(thread->started);
    KTOsEventClose(thread->returned);
    thread->~OsThread();
    KTHeapFree(thread);
}

void* Run(void* block) {
    OsThread* thread = static_cast<OsThread*>(block);
    thread->id = KTOsThreadCurrentId();
    // Linux keeps a nice value per thread. Raising it may be refused; the thread then runs on.
    setpriority(PRIO_PROCESS, thread->id, thread->step * -5);
    if (thread->name[0] != '\0')
        pthread_setname_np(pthread_self(), thread->name);
    KTOsEventSet(thread->started);
    thread->exitCode = thread->entry(thread->argument);
    // What OpenSSL keeps per thread goes while the thread is still waited for: later the process may
    // be ending, and OpenSSL with it.
    OPENSSL_thread_stop();
    KTOsEventSet(thread->returned);
    Drop(thread);
    return nullptr;
}

bool StartDetached(OsThread* thread, unsigned long long stackSize) {
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0)
        return false;
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    bool ready = true;
    if (stackSize != 0) {
        const unsigned long long page = static_cast<unsigned long long>(sysconf(_SC_PAGESIZE));
        const unsigned long long bytes =
            stackSize < kLeastStackBytes ? kLeastStackBytes : stackSize;
        ready = bytes <= LLONG_MAX &&
                pthread_attr_setstacksize(&attributes, (bytes + page - 1) / page * page) == 0;
    }
    pthread_t native;
    ready = ready && pthread_create(&native, &attributes, Run, thread) == 0;
    pthread_attr_destroy(&attributes);
    return ready;
}

}  // namespace

void* KTOsThreadCreate(unsigned long (*entry)(void*), void* argument, unsigned long long stackSize,
                       int step, const char* name, unsigned long& id) {
    void* block = entry != nullptr ? KTHeapAlloc(sizeof(OsThread)) : nullptr;
    if (block == nullptr)
        return nullptr;
    OsThread* thread = new (block) OsThread;
    thread->entry = entry;
    thread->argument = argument;
    thread->step = step;
    if (name != nullptr)
        std::strncpy(thread->name, name, sizeof(thread->name) - 1);
    thread->started = KTOsEventCreate(false);
    thread->returned = KTOsEventCreate(false);
    if (thread->started == nullptr || thread->returned == nullptr ||
        !StartDetached(thread, stackSize)) {
        Drop(thread);
        Drop(thread);
        return nullptr;
    }
    KTOsEventWait(thread->started, KT_INFINITE);
    id = thread->id;
    return thread;
}

void KTOsThreadShare(void* handle) {
    if (handle != nullptr)
        static_cast<OsThread*>(handle)->uses.fetch_add(1, std::memory_order_relaxed);
}

void KTOsThreadClose(void* handle) {
    if (handle != nullptr)
        Drop(static_cast<OsThread*>(handle));
}

int KTOsThreadWait(void* handle, unsigned int timeoutMs) {
    if (handle == nullptr)
        return KT_ERROR;
    return KTOsEventWait(static_cast<OsThread*>(handle)->returned, timeoutMs);
}

unsigned int KTOsThreadCurrentId() {
    static thread_local const unsigned int id = static_cast<unsigned int>(syscall(SYS_gettid));
    return id;
}
