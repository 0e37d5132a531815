#include <KTBase/KTBase.h>

#include <cstdio>

class Clock : public CKTObject {
public:
    // On a thread of the timers; calls of one timer never overlap.
    int OnTick(CKTObject* /*timer*/, unsigned int, void*, void*) {
        std::printf("tick %d\n", ++m_ticks);
        if (m_ticks == 3)
            m_done.Set();
        return 0;
    }

    void Finish() { m_done.Wait(KT_INFINITE); }

private:
    int m_ticks = 0;
    CKTEvent m_done;
};

int main() {
    if (IKTTimer::KTTimerInitialize() != 0)
        return 1;
    Clock clock;
    IKTTimer* timer = IKTTimer::AcquireTimer();
    if (timer != nullptr) {
        const KTSignalHandler handler = static_cast<KTSignalHandler>(&Clock::OnTick);
        if (timer->Start(&clock, handler, 20, 3, false) == 0)  // every 20 ms, three times
            clock.Finish();
        timer->Stop();  // waits for a call that runs: now the clock may go
        timer->Release();
    }
    return IKTTimer::KTTimerInvalidate();
}
