// A folder for the files of one test, deleted with everything in it.
#ifndef KTBASE_TESTS_KTTESTFOLDER_H
#define KTBASE_TESTS_KTTESTFOLDER_H

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <system_error>

class TestFolder {
public:
    TestFolder() {
        // Several runs may share the system's folder.
        const std::string name = "ktbase-test-" + std::to_string(std::random_device()());
        m_path = std::filesystem::temp_directory_path() / name;
        std::filesystem::create_directories(m_path);
    }
    ~TestFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    TestFolder(const TestFolder&) = delete;
    TestFolder& operator=(const TestFolder&) = delete;

    /// UTF-8 path of name in the folder.
    std::string operator/(const std::string& name) const {
        return (m_path / std::filesystem::u8path(name)).u8string();
    }

    static void Put(const std::string& path, const std::string& bytes) {
        std::ofstream(std::filesystem::u8path(path), std::ios::binary) << bytes;
    }
    static std::string Get(const std::string& path) {
        std::ifstream file(std::filesystem::u8path(path), std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(file), {});
    }

private:
    std::filesystem::path m_path;
};

#endif
