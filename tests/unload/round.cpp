// The module that is loaded and unloaded: one round through everything that has threads of its own.
#include <KTBase/KTBase.h>

namespace {

constexpr unsigned int kLongMs = 20000;

struct Owner : CKTObject {
    int OnTimer(CKTObject*, unsigned int, void*, void*) {
        fired.Set();
        return 0;
    }
    CKTEvent fired{true};
};

int OnJob(void* context, CKTObject*, unsigned int, void*, void*) {
    static_cast<CKTEvent*>(context)->Set();
    return 0;
}

bool UseTimer() {
    if (IKTTimer::KTTimerInitialize() != 0)
        return false;
    Owner owner;
    IKTTimer* timer = IKTTimer::AcquireTimer();
    const bool fired =
        timer->Start(&owner, static_cast<KTSignalHandler>(&Owner::OnTimer), 1, 0, true) == 0 &&
        owner.fired.Wait(kLongMs) == 0;
    timer->Stop();
    timer->Release();
    return IKTTimer::KTTimerInvalidate() == 0 && fired;
}

bool UseJob() {
    if (KTASYNCExecInitialize() != 1)
        return false;
    CKTEvent ran;
    void* task = nullptr;
    const bool done = KTASYNCExecCreate(&task, 30) == 0 &&
                      KTASYNCExecCommit(task, &ran, OnJob) == 0 && ran.Wait(kLongMs) == 0;
    return KTASYNCExecInvalidate() == 0 && done;
}

bool UseLogFile(const char* path) {
    if (KTDBGInitialize() != 1 || KTDBGAttachFile(path) != 0)
        return false;
    KTDBG_EnablePrint(4, 7);
    KTDBGOutput("a line\n", 7);
    KTDBG_EnablePrint(7, 7);
    return KTDBGInvalidate() == 0 && KWFileDelete(path) == 0;
}

}  // namespace

/// One round; logs into path. Returns 0, or the number of the step that failed.
extern "C" __attribute__((visibility("default"))) int RunRound(const char* path) {
    if (!UseTimer())
        return 1;
    if (!UseJob())
        return 2;
    if (!UseLogFile(path))
        return 3;
    KTMemoryDump(false);
    return 0;
}
