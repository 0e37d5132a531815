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

bool Strings() {
    CKTString text("client ");
    CKTString encoded;
    text.Append("%d", 7);
    const bool built =
        KTBASE64EncodeSTR(encoded, reinterpret_cast<const unsigned char*>(text.GetBuffer()),
                          text.GetLength()) == 1;
    return built && text == "client 7" && encoded == "Y2xpZW50IDc=";
}

bool Lists() {
    CKTListT<int> list;
    CKTQueue queue(1);
    int item = 7;
    void* got = nullptr;
    return list.AddTail(item) != nullptr && list.GetCount() == 1 && queue.Put(&item) == 0 &&
           queue.Put(&item) == -8 && queue.Get(got, 1000) == 0 && got == &item;
}

bool States() {
    IKTState state;
    return state.SetState(3) == 1u << 3 && state.CheckState(3) && state.ClearState(3) == 0;
}

bool Times() {
    CKTTime leapDay(true);
    return leapDay.SetTime(1709164800LL) && leapDay.GetMonth() == 2 && leapDay.GetDay() == 29;
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
        {"objects", Objects}, {"locks", Locks},   {"events", Events}, {"strings", Strings},
        {"lists", Lists},     {"states", States}, {"times", Times},   {"memory dump", MemoryDump},
    };
    int failures = 0;
    for (const auto& family : families) {
        const bool works = family.works();
        std::printf("%s: %s\n", family.name, works ? "ok" : "FAILED");
        failures += !works;
    }
    return failures;
}
