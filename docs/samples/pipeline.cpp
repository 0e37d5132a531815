#include <KTBase/KTBase.h>

#include <cstdio>
#include <cstring>

constexpr unsigned int kFrame = 1000;
constexpr unsigned char kKey = 1, kOther = 0;  // types of frames

// Takes frames from any thread and handles them on its own.
class Writer : public CKTThread {
public:
    ~Writer() override { ThreadStop(); }  // handles what was put before

    // Takes over the reference. Never waits: frames that find the list full are dropped, and all
    // behind them up to the next key frame, since they could not be decoded.
    void Put(CPacket* packet) {
        {
            CKTGuard hold(m_lock);
            m_dropping = m_frames.IsFull() != 0 || (m_dropping && !packet->FrameIsKey());
            if (!m_dropping && m_frames.PutPacket(packet, 1) == 0)
                packet = nullptr;
        }
        if (packet != nullptr)
            packet->Release();
        else
            PostMessage(kFrame, nullptr, nullptr, 0);
    }

protected:
    unsigned int OnThread() override {
        CKTMessageT message;
        while (GetMessage(message, KT_INFINITE) == 0 && message.Command() == kFrame)
            Handle();
        std::printf("%u frames, %u of them key frames, %u bytes\n", m_count, m_keys, m_bytes);
        return 0;
    }

private:
    void Handle() {
        CPacket* packet = nullptr;
        {
            CKTGuard hold(m_lock);
            packet = m_frames.GetPacket(0);
        }
        ++m_count;
        m_keys += packet->FrameIsKey() ? 1 : 0;
        m_bytes += packet->FrameGetLength();
        packet->Release();  // the buffer goes back to the pool
    }

    CKTMutex m_lock;  // guards the next two
    CKTPacketList m_frames{32, 0};
    bool m_dropping = false;
    unsigned int m_count = 0, m_keys = 0, m_bytes = 0;
};

int main() {
    if (CPacket::CreatePool(64, 12, 0) != 0)  // 64 pages of 4 KB
        return 1;
    {
        Writer writer;
        if (writer.ThreadStart() != 0)
            return 1;
        for (unsigned int i = 0; i < 25; ++i) {
            const unsigned int length = 1000;
            CPacket* packet = CPacket::Acquire(length + 20, 0);
            if (packet == nullptr)
                return 1;
            packet->FrameInit();
            packet->FrameSetType(i % 10 == 0 ? kKey : kOther);
            packet->FrameSetCodec(1);  // H.264
            packet->FrameSetLength(length);
            packet->FrameSetTime(static_cast<timeval*>(nullptr));  // now
            std::memset(packet->FrameGetData(), 0, length);
            writer.Put(packet);
        }
    }
    return CPacket::DeletePool();
}
