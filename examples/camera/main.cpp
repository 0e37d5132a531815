// ktcamera: a camera that shows a file, served over HTTP.
#include <KTBase/KTSocket.h>
#include <KTBase/KTTime.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

#include "Access.h"
#include "Discovery.h"
#include "Film.h"
#include "Server.h"
#include "Stream.h"

namespace {

constexpr int kFailed = 1;
constexpr int kWrongUsage = 2;

/// Longest wait: Ctrl-C is noticed within it.
constexpr unsigned long long kTurnUs = 200000;

const char* const kUsage =
    "Usage: ktcamera --file STREAM --port N [--auth basic|digest|both --user U --password P]\n"
    "                [--fps F] [--name TEXT] [--discovery GROUP:PORT]\n"
    "       ktcamera --help\n";

const char* const kHelp =
    "\n"
    "A camera: shows STREAM, an H.264 or H.265 byte stream (ITU-T Annex B), in an endless loop to\n"
    "all who ask on http://127.0.0.1:N/\n"
    "  /describe   XML: name, codec, size and frames per second\n"
    "  /stream     multipart/mixed, one part a frame: 20 bytes of frame header and the frame\n"
    "  /raw        the byte stream itself, as players and ffmpeg read it\n"
    "  /snapshot   the last key frame\n"
    "\n"
    "  --port N        0 takes a free one; the first line of output tells it\n"
    "  --auth MODE     asks for user and password, by Basic, Digest (MD5) or either\n"
    "  --fps F         frames per second, 0.25 to 63; else 25\n"
    "  --name TEXT     the camera's name, else ktcamera\n"
    "  --discovery GROUP:PORT   answers \"ktdiscover 1\" to this IPv4 multicast group on "
    "127.0.0.1\n"
    "  --help          prints this text\n"
    "\n"
    "Ends with Ctrl-C. Exit code: 0; 1 when the file cannot be shown or a port cannot be had;\n"
    "2 for wrong usage.\n";

struct Options {
    bool help = false;
    const char* file = nullptr;
    int port = -1;
    Access::Mode auth = Access::kOpen;
    std::string user;
    std::string password;
    double fps = 25;
    std::string name = "ktcamera";
    std::string group;
    int groupPort = 0;
};

std::atomic<bool> g_stop(false);

void OnStop(int) {
    g_stop = true;
}

// ---- options: each reader returns an empty text, or what is wrong ----

/// -1 when text is no port.
int ReadPort(const std::string& text) {
    if (text.empty() || text.size() > 5 ||
        text.find_first_not_of("0123456789") != std::string::npos)
        return -1;
    const int port = std::atoi(text.c_str());
    return port <= 65535 ? port : -1;
}

/// Whether text can stand in a head, in quotes and in XML as it is.
bool IsPlain(const std::string& text) {
    for (const char c : text)
        if (static_cast<unsigned char>(c) < ' ' || c == 127)
            return false;
    return text.find_first_of("\"'\\<>&") == std::string::npos;
}

std::string ReadAuth(const std::string& value, Options& out) {
    if (value == "basic")
        out.auth = Access::kBasic;
    else if (value == "digest")
        out.auth = Access::kDigest;
    else if (value == "both")
        out.auth = Access::kBoth;
    else
        return "--auth takes basic, digest or both, not " + value;
    return "";
}

std::string ReadFps(const std::string& value, Options& out) {
    char* end = nullptr;
    out.fps = std::strtod(value.c_str(), &end);
    // Written so that a value that is no number fails, too.
    if (value.empty() || *end != '\0' || !(out.fps >= 0.25 && out.fps <= 63))
        return "--fps takes a number from 0.25 to 63, not " + value;
    return "";
}

std::string ReadGroup(const std::string& value, Options& out) {
    const std::size_t colon = value.rfind(':');
    out.group = value.substr(0, colon);
    out.groupPort = colon != std::string::npos ? ReadPort(value.substr(colon + 1)) : -1;
    unsigned int address = 0;  // in network order: the first byte is the group's first number
    CKTSocket::GetIPv4Addr(out.group.c_str(), &address, nullptr);
    const unsigned char first = *reinterpret_cast<const unsigned char*>(&address);
    if (out.groupPort < 1 || first < 224 || first > 239)
        return "--discovery takes GROUP:PORT with a group from 224.0.0.0 to 239.255.255.255, not " +
               value;
    return "";
}

std::string ReadOption(const std::string& option, const char* value, Options& out) {
    if (option == "--file") {
        out.file = value;
    } else if (option == "--port") {
        out.port = ReadPort(value);
        if (out.port < 0)
            return "--port takes a number from 0 to 65535, not " + std::string(value);
    } else if (option == "--auth") {
        return ReadAuth(value, out);
    } else if (option == "--user") {
        out.user = value;
        if (!IsPlain(out.user) || out.user.empty() || out.user.find(':') != std::string::npos)
            return "--user takes a text without : \" ' \\ < > & and control characters";
    } else if (option == "--password") {
        out.password = value;
    } else if (option == "--fps") {
        return ReadFps(value, out);
    } else if (option == "--name") {
        out.name = value;
        if (!IsPlain(out.name) || out.name.empty())
            return "--name takes a text without \" ' \\ < > & and control characters";
    } else {
        return ReadGroup(value, out);
    }
    return "";
}

bool IsOption(const std::string& text) {
    for (const char* const option :
         {"--file", "--port", "--auth", "--user", "--password", "--fps", "--name", "--discovery"})
        if (text == option)
            return true;
    return false;
}

std::string ReadOptions(int argc, char** argv, Options& out) {
    for (int i = 1; i < argc; i += 2) {
        const std::string option = argv[i];
        if (option == "--help") {
            out.help = true;
            return "";
        }
        if (option.compare(0, 2, "--") != 0)
            return "what is " + option + "?";
        if (!IsOption(option))
            return "there is no option " + option;
        if (i + 1 == argc)
            return option + " needs a value";
        const std::string wrong = ReadOption(option, argv[i + 1], out);
        if (!wrong.empty())
            return wrong;
    }
    if (out.file == nullptr)
        return "--file is missing";
    if (out.port < 0)
        return "--port is missing";
    const bool named = !out.user.empty() || !out.password.empty();
    if (out.auth == Access::kOpen && named)
        return "--user and --password need --auth";
    if (out.auth != Access::kOpen && (out.user.empty() || out.password.empty()))
        return "--auth needs --user and --password";
    return "";
}

// ---- running ----

int Fail(const std::string& why) {
    std::fprintf(stderr, "ktcamera: %s\n", why.c_str());
    return kFailed;
}

/// Waits for the next frame or for whoever wants something, and serves; until Ctrl-C.
void Run(Player& player, Server& server, Discovery& discovery) {
    while (!g_stop) {
        unsigned long long nowUs = CKTTime::GetTimeUS();
        while (player.DueUs() <= nowUs)
            server.Show(player.Next(nowUs).get());
        const unsigned long long leftUs = std::min(player.DueUs() - nowUs, kTurnUs);
        CKTSocketSET set;
        server.Select(set);
        discovery.Select(set);
        set.Wait(static_cast<unsigned int>((leftUs + 999) / 1000));
        server.Poll(set);
        discovery.Poll(set);
    }
}

int Serve(const Options& options) {
    std::vector<unsigned char> bytes;
    Film film;
    const char* why = ReadFile(options.file, bytes);
    if (why == nullptr)
        why = CutFilm(bytes, film);
    if (why != nullptr)
        return Fail(std::string(options.file) + ": " + why);

    const Description description = {options.name, film.h265, film.pictures[0].width,
                                     film.pictures[0].height, options.fps};
    Server server(description, Access(options.auth, options.user, options.password, options.name));
    if (!server.Listen(static_cast<unsigned short>(options.port)))
        return Fail("port " + std::to_string(options.port) + " cannot be had: is it in use?");
    Discovery discovery(server.GetUrl(), options.name);
    if (!options.group.empty() &&
        !discovery.Open(options.group, static_cast<unsigned short>(options.groupPort)))
        return Fail("no socket for the discovery group " + options.group + ":" +
                    std::to_string(options.groupPort));

    std::printf("ktcamera: %s\n", server.GetUrl().c_str());
    std::printf("%s: %s %ux%u, %g frames/s, %zu frames\n", options.name.c_str(),
                film.h265 ? "H.265" : "H.264", description.width, description.height, options.fps,
                film.pictures.size());
    Player player(film, options.fps);
    Run(player, server, discovery);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    const std::string wrong = ReadOptions(argc, argv, options);
    if (!wrong.empty()) {
        std::fprintf(stderr, "ktcamera: %s\n%sktcamera --help says more.\n", wrong.c_str(), kUsage);
        return kWrongUsage;
    }
    if (options.help) {
        std::printf("%s%s", kUsage, kHelp);
        return 0;
    }
    // Scripts read the first line through a pipe as soon as it is there.
    std::setvbuf(stdout, nullptr, _IONBF, 0);
    std::signal(SIGINT, OnStop);
    std::signal(SIGTERM, OnStop);
    try {
        return Serve(options);
    } catch (const std::exception& error) {
        return Fail(error.what());
    }
}
