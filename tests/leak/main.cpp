// Loses one block and one object, which a leak checker must report.
#include <KTBase/KTObject.h>

namespace {

class Lost : public CKTObject {
    char m_payload[100] = {};
};

// A pointer that stays on the stack or in a register would keep its block reachable.
[[gnu::noinline]] void Lose() {
    volatile const void* block = ZMKMalloc(100);
    volatile const void* object = new Lost;
    block = object = nullptr;
    (void)block;
}

[[gnu::noinline]] void Overwrite() {
    volatile char stack[4096];
    for (volatile char& c : stack)
        c = 0;
}

}  // namespace

int main() {
    Lose();
    Overwrite();
    return 0;
}
