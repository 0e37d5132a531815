// Packets beside libavutil's AVBufferPool and malloc, alone and handed from thread to thread.
#include <benchmark/benchmark.h>

#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "KTBase/KTLock.h"
#include "KTBase/KTPacket.h"
#include "KTCompare.h"

extern "C" {
#include <libavutil/buffer.h>
}

namespace {

// ---- sources of buffers ----

constexpr unsigned int kFrameBytes = 1000;

// What a producer writes at the head of each frame.
struct Header {
    unsigned char start[4];
    unsigned int length, time;
    unsigned short ms;
    unsigned char codec, rate;
    unsigned short width, height;
};

void WriteHeader(void* buffer) {
    const Header header = {{0, 0, 1, 0xE1}, kFrameBytes - 20, 0x12345678, 40, 1, 100, 1920, 1080};
    std::memcpy(buffer, &header, sizeof(header));
    benchmark::DoNotOptimize(buffer);
}

class HeapPackets {
public:
    typedef CPacket* Item;
    Item Get() {
        CPacket* packet = CPacket::Acquire(kFrameBytes, 0);
        ZHTIME time = 0x12345678;
        packet->FrameSetType(1);
        packet->FrameSetLength(kFrameBytes - 20);
        packet->FrameSetTime(&time, 40);
        packet->FrameSetCodec(1);
        packet->FrameSetFPS(25.0);
        packet->FrameSetWidth(1920);
        packet->FrameSetHeight(1080);
        return packet;
    }
    void Put(Item item) { item->Release(); }
};

class PoolPackets : public HeapPackets {
public:
    PoolPackets() { CPacket::CreatePool(4096, 10, 0); }
    ~PoolPackets() { CPacket::DeletePool(); }
};

class AVBuffers {
public:
    typedef AVBufferRef* Item;
    ~AVBuffers() { av_buffer_pool_uninit(&m_pool); }
    Item Get() {
        AVBufferRef* buffer = av_buffer_pool_get(m_pool);
        WriteHeader(buffer->data);
        return buffer;
    }
    void Put(Item item) { av_buffer_unref(&item); }

private:
    AVBufferPool* m_pool = av_buffer_pool_init(1024, nullptr);
};

class Blocks {
public:
    typedef void* Item;
    Item Get() {
        void* block = std::malloc(1024);
        WriteHeader(block);
        return block;
    }
    void Put(Item item) { std::free(item); }
};

// ---- one thread: acquire, header, release, while a number of other frames are out ----

template <typename Ours, typename Rival>
void GetAndPut(benchmark::State& state) {
    constexpr int kFrames = 10000;
    Ours ours;
    Rival rival;
    std::vector<typename Ours::Item> oursHeld;
    std::vector<typename Rival::Item> rivalHeld;
    for (int i = 0; i < state.range(0); ++i) {
        oursHeld.push_back(ours.Get());
        rivalHeld.push_back(rival.Get());
    }
    KTCompare(
        state, kFrames,
        [&] {
            for (int i = 0; i < kFrames; ++i)
                ours.Put(ours.Get());
        },
        [&] {
            for (int i = 0; i < kFrames; ++i)
                rival.Put(rival.Get());
        });
    for (auto item : oursHeld)
        ours.Put(item);
    for (auto item : rivalHeld)
        rival.Put(item);
}
BENCHMARK_TEMPLATE(GetAndPut, PoolPackets, AVBuffers)->Arg(0)->Arg(25)->UseManualTime();
BENCHMARK_TEMPLATE(GetAndPut, PoolPackets, Blocks)->Arg(0)->Arg(25)->UseManualTime();
BENCHMARK_TEMPLATE(GetAndPut, HeapPackets, AVBuffers)->Arg(0)->Arg(25)->UseManualTime();

// ---- two threads: the consumer takes all frames that wait, at most kBacklog ----

constexpr unsigned int kBacklog = 64;

// Both lines wake the other side only when it can be asleep.
class PacketLine {
public:
    void Push(CPacket* packet) {
        bool wasEmpty = false;
        for (;; m_room.Wait(KT_INFINITE)) {
            CKTGuard hold(m_lock);
            wasEmpty = m_list.IsEmpty();
            if (m_list.IsFull() == 0) {
                m_list.PutPacket(packet, 1);
                break;
            }
        }
        if (wasEmpty)
            m_filled.Set();
    }
    void PopAll(CKTPacketList& out) {
        bool wasFull = false;
        for (;; m_filled.Wait(KT_INFINITE)) {
            CKTGuard hold(m_lock);
            wasFull = m_list.IsFull() != 0;
            if (m_list.MoveTo(&out) != 0)
                break;
        }
        if (wasFull)
            m_room.Set();
    }

private:
    CKTMutex m_lock;
    CKTEvent m_filled{true}, m_room{true};
    CKTPacketList m_list{kBacklog, 0};
};

void StreamPackets(PoolPackets& source, int frames) {
    PacketLine line;
    std::thread consumer([&] {
        CKTPacketList taken(kBacklog, 0);
        for (int i = 0; i < frames;) {
            line.PopAll(taken);
            while (CPacket* packet = taken.GetPacket(0)) {
                source.Put(packet);
                ++i;
            }
        }
    });
    for (int i = 0; i < frames; ++i)
        line.Push(source.Get());
    consumer.join();
}

class AVLine {
public:
    void Push(AVBufferRef* buffer) {
        bool wasEmpty = false;
        {
            std::unique_lock<std::mutex> hold(m_lock);
            m_room.wait(hold, [this] { return m_queue.size() < kBacklog; });
            wasEmpty = m_queue.empty();
            m_queue.push_back(buffer);
        }
        if (wasEmpty)
            m_filled.notify_one();
    }
    void PopAll(std::deque<AVBufferRef*>& out) {
        bool wasFull = false;
        {
            std::unique_lock<std::mutex> hold(m_lock);
            m_filled.wait(hold, [this] { return !m_queue.empty(); });
            wasFull = m_queue.size() >= kBacklog;
            out.swap(m_queue);
        }
        if (wasFull)
            m_room.notify_one();
    }

private:
    std::mutex m_lock;
    std::condition_variable m_filled, m_room;
    std::deque<AVBufferRef*> m_queue;
};

void StreamBuffers(AVBuffers& source, int frames) {
    AVLine line;
    std::thread consumer([&] {
        std::deque<AVBufferRef*> taken;
        for (int i = 0; i < frames;) {
            line.PopAll(taken);
            for (; !taken.empty(); taken.pop_front(), ++i)
                source.Put(taken.front());
        }
    });
    for (int i = 0; i < frames; ++i)
        line.Push(source.Get());
    consumer.join();
}

void TwoThreads(benchmark::State& state) {
    constexpr int kFrames = 200000;
    PoolPackets ours;
    AVBuffers rival;
    KTCompare(
        state, kFrames, [&] { StreamPackets(ours, kFrames); },
        [&] { StreamBuffers(rival, kFrames); });
}
BENCHMARK(TwoThreads)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(20);

}  // namespace

BENCHMARK_MAIN();
