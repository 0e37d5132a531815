// Accounted allocation beside malloc and free, with few and with many live blocks.
#include <cstdlib>
#include <vector>

#include "KTBase/KTObject.h"
#include "KTCompare.h"

namespace {

constexpr int kPairs = 10000;

struct Object64 : public CKTObject {
    char payload[64 - sizeof(void*)];
};
static_assert(sizeof(Object64) == 64, "the rival allocates as much");

struct Object {
    static void* Make() { return new Object64; }
    static void Drop(void* block) { delete static_cast<Object64*>(block); }
};

struct Raw {
    static void* Make() { return ZMKMalloc(64); }
    static void Drop(void* block) { ZMKFree(block); }
};

struct Plain {
    static void* Make() { return std::malloc(64); }
    static void Drop(void* block) { std::free(block); }
};

// Live blocks that are replaced one by one, in an order far from that of their addresses.
template <typename Kind>
class Population {
public:
    explicit Population(std::size_t count) : m_blocks(count) {
        for (void*& block : m_blocks)
            block = Kind::Make();
    }
    ~Population() {
        for (void* block : m_blocks)
            Kind::Drop(block);
    }

    void Replace(int pairs) {
        for (int i = 0; i < pairs; ++i) {
            m_random = m_random * 6364136223846793005ull + 1442695040888963407ull;
            void*& block = m_blocks[(m_random >> 33) % m_blocks.size()];
            Kind::Drop(block);
            block = Kind::Make();
            benchmark::DoNotOptimize(block);
        }
    }

private:
    std::vector<void*> m_blocks;
    unsigned long long m_random = 1;
};

/// A pair of one free and one allocation; the argument is the number of live blocks.
template <typename Kind>
void FreeAndAllocate(benchmark::State& state) {
    Population<Kind> ours(state.range(0));
    Population<Plain> rival(state.range(0));
    KTCompare(
        state, kPairs, [&] { ours.Replace(kPairs); }, [&] { rival.Replace(kPairs); });
}
BENCHMARK(FreeAndAllocate<Object>)->Arg(10)->Arg(10000)->Arg(1000000)->UseManualTime();
BENCHMARK(FreeAndAllocate<Raw>)->Arg(10)->Arg(10000)->Arg(1000000)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
