// Stops with a value of each class that gdb has a printer for.
#include <KTBase/KTBase.h>

#include <initializer_list>

extern "C" __attribute__((noinline)) void Stop() {
    asm volatile("");
}

int main() {
    CKTString text("a \"text\"");
    CKTString bytes;
    bytes.AppendDAT(reinterpret_cast<const unsigned char*>("a\0b"), 3);
    CKTString none;
    const CKTString& reference = text;

    void* const items[] = {reinterpret_cast<void*>(0x10), reinterpret_cast<void*>(0x20)};
    CKTList list;
    list.SetAutoDel(false);
    CKTQueue queue(5);
    for (void* item : items) {
        list.AddTail(item);
        queue.Put(item);
    }
    CKTListT<int> numbers;
    for (int number : {7, 8, 9})
        numbers.AddTail(number);

    CKTTime time(true);
    time.SetTime(1709164799LL);  // date -u -d @1709164799: Wed Feb 28 23:59:59 2024
    time.SetMS(7);
    CKTTime noTime(true);

    CKTSocketAddress v4("127.0.0.1");
    v4.SetPort(554);
    CKTSocketAddress v6("2001:db8::1");
    v6.SetPort(80);
    CKTSocketAddress noAddress;

    CPacket* packet = CPacket::Acquire(1500, 0);
    packet->FrameInit();
    packet->FrameSetType(1);
    packet->FrameSetCodec(2);
    packet->FrameSetLength(1000);
    packet->FrameSetTime(time);
    packet->FrameSetFPS(12.5);
    packet->FrameSetWidth(640);
    packet->FrameSetHeight(360);
    CPacket* noBuffer = CPacket::Acquire(0, 0);
    CKTPacketList packets(0, 0);
    packets.PutPacket(packet, 1);

    Stop();
    noBuffer->Release();
    return reference.IsEmpty();
}
