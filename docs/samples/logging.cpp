#include <KTBase/KTBase.h>

constexpr int kInfo = 1, kDebug = 3, kWarning = 4;  // levels
constexpr int kNetwork = 3;                         // a module of ours, 0 to 63

int main() {
    if (KTDBGInitialize() < 1)
        return 1;
    if (KTDBGAttachFile("guide.log") != 0)  // written by a thread of its own
        return 1;
    DBG_LevelDisable(kDebug);

    KTDBG_Printf(kInfo, "recorder %s starts\n", "north");
    DBG_Printf(kNetwork, kWarning, "camera %d is lost\nlast frame: %u\n", 2, 1500u);
    KTDBG_Printf(kDebug, "not printed\n");

    KTDBGInvalidate();  // writes out and closes the file
    return 0;
}
