#include "Options.h"

#include <KTBase/KTSocket.h>

#include "Text.h"

const char* const kUsage =
    "usage: ktrecorder [--camera URL]... [--discover GROUP:PORT] --out DIR\n"
    "                  [--seconds N] [--http PORT] [--log FILE]\n";

const char* const kHelp =
    "\n"
    "Records the video of cameras into DIR: NAME.h264 or NAME.h265, a byte stream that players\n"
    "read, and beside it NAME.h264.index, the 20-byte frame header of each frame. Files that are\n"
    "there already are left alone: the next ones are NAME-2.h264 and so on. A new number also\n"
    "begins when a camera changes its format.\n"
    "\n"
    "  --camera URL            http://[USER:PASSWORD@]HOST[:PORT]/; an @ in a password is written\n"
    "                          @@. May be given for many cameras.\n"
    "  --discover GROUP:PORT   asks for cameras every 2 s, through 127.0.0.1, and records those\n"
    "                          that answer. One that wants a password is also given by --camera.\n"
    "  --out DIR               made if it is missing\n"
    "  --seconds N             ends after N seconds; else it runs until Ctrl-C\n"
    "  --http PORT             shows a page at http://127.0.0.1:PORT/, and the same figures at\n"
    "                          /status.json; 0 for a port that is free\n"
    "  --log FILE              messages of the recorder and the library, with their times\n"
    "  --help                  prints this text\n"
    "\n"
    "Ctrl-C ends a recording in order, a second one at once.\n"
    "Exit code: 0 when every camera was recorded; 1 when one was not, or had to be stopped;\n"
    "2 for wrong usage.\n";

namespace {

constexpr unsigned int kMostSeconds = 366 * 24 * 3600;

std::string ReadCamera(const char* text, Options& options) {
    CKTUrl url;
    if (!IsPrintable(text) || url.Setup(text) != KT_OK ||
        CKTString::IsEqual(url.GetProtocol(), "http") == 0 || url.GetPort() == 0)
        return "--camera: \"" + CleanText(text, 200) + "\" is no http://HOST:PORT/";
    options.cameras.push_back(url);
    return "";
}

std::string ReadGroup(const char* text, Options& options) {
    const std::string all = text;
    const std::size_t colon = all.rfind(':');
    unsigned int port = 0;
    unsigned int address = 0;
    options.group = all.substr(0, colon);
    if (colon == std::string::npos || !ReadNumber(text + colon + 1, 65535, port) || port == 0 ||
        CKTSocket::GetIPv4Addr(options.group.c_str(), &address, nullptr) != KT_OK ||
        address == 0xFFFFFFFFu)
        return "--discover: \"" + all + "\" is no GROUP:PORT, such as 239.255.42.1:3702";
    options.groupPort = static_cast<unsigned short>(port);
    return "";
}

std::string ReadOption(const std::string& name, const char* value, Options& options) {
    if (name == "--camera")
        return ReadCamera(value, options);
    if (name == "--discover")
        return ReadGroup(value, options);
    if (name == "--out") {
        options.folder = value;
        return options.folder.empty() ? "--out: the name is empty" : "";
    }
    if (name == "--log") {
        options.log = value;
        return options.log.empty() ? "--log: the name is empty" : "";
    }
    if (name == "--seconds")
        return ReadNumber(value, kMostSeconds, options.seconds) && options.seconds != 0
                   ? ""
                   : std::string("--seconds: \"") + value + "\" is no number from 1 to " +
                         std::to_string(kMostSeconds);
    unsigned int port = 0;
    if (!ReadNumber(value, 65535, port))
        return std::string("--http: \"") + value + "\" is no port";
    options.page = true;
    options.pagePort = static_cast<unsigned short>(port);
    return "";
}

}  // namespace

std::string ReadOptions(int argc, char** argv, Options& options) {
    static const char* const names[] = {"--camera",  "--discover", "--out",
                                        "--seconds", "--http",     "--log"};
    for (int i = 1; i < argc; ++i) {
        const std::string name = argv[i];
        if (name == "--help") {
            options.help = true;
            return "";
        }
        bool known = false;
        for (const char* const option : names)
            known = known || name == option;
        if (!known)
            return "\"" + CleanText(argv[i], 80) + "\" is no option";
        if (++i == argc)
            return name + " wants a value";
        const std::string wrong = ReadOption(name, argv[i], options);
        if (!wrong.empty())
            return wrong;
    }
    if (options.folder.empty())
        return "--out is missing";
    if (options.cameras.empty() && options.group.empty())
        return "neither --camera nor --discover is given";
    return "";
}
