// Uses each family of the installed library a little.
#include <KTBase/KTBase.h>

#include <cstdio>
#include <cstring>

namespace {

class Counted : public IKTRef {};

bool Objects() {
    Counted* counted = new Counted;
    if (counted == nullptr || counted->AddRef() != 2 || counted->Release() != 1)
        return false;
    delete counted;
    unsigned char* block = ZMKMalloc(3);
    std::memcpy(block, "ab", 3);
    block = static_cast<unsigned char*>(ZMKRealloc(block, 5000));
    const bool kept = block != nullptr && std::memcmp(block, "ab", 3) == 0;
    ZMKFree(block);
    return kept && KTGetProcessorNum() > 0;
}

bool Locks() {
    CKTMutex lock;
    CKTGuard hold(lock);
    return lock.Enter(0) == 1 && lock.Leave() != 0;
}

bool Events() {
    CKTEvent event(true);
    return event.Set() != 0 && event.Wait(1000) == 0 && event.Wait(1) == -2;
}

bool MemoryDump() {
    KTMemoryDump(true);
    return true;
}

}  // namespace

int main() {
    static constexpr struct {
        const char* name;
        bool (*works)();
    } families[] = {
        {"objects", Objects},
        {"locks", Locks},
        {"events", Events},
        {"memory dump", MemoryDump},
    };
    int failures = 0;
    for (const auto& family : families) {
        const bool works = family.works();
        std::printf("%s: %s\n", family.name, works ? "ok" : "FAILED");
        failures += !works;
    }
    return failures;
}
