// The servers of tests/peers: their folder and the ports they have found.
#ifndef KTBASE_TESTS_KTTESTPEERS_H
#define KTBASE_TESTS_KTTESTPEERS_H

#include <cstdio>
#include <map>
#include <string>

/// Reads "ports" in folder. Empty without the file, and for null.
class KTTestPeers {
public:
    explicit KTTestPeers(const char* folder) : m_folder(folder != nullptr ? folder : "") {
        std::FILE* file = folder != nullptr ? std::fopen(Path("ports").c_str(), "r") : nullptr;
        if (file == nullptr)
            return;
        char name[32];
        unsigned int port;
        while (std::fscanf(file, "%31s %u", name, &port) == 2)
            m_ports[name] = static_cast<unsigned short>(port);
        std::fclose(file);
    }
    bool IsEmpty() const { return m_ports.empty(); }
    std::string Path(const char* name) const { return m_folder + "/" + name; }
    unsigned short operator[](const std::string& name) const {
        const auto found = m_ports.find(name);
        return found != m_ports.end() ? found->second : 0;
    }

private:
    std::string m_folder;
    std::map<std::string, unsigned short> m_ports;
};

#endif
