// Debug lines into a file, beside spdlog's synchronous logger.
#include <benchmark/benchmark.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "KTBase/KTDebug.h"
#include "KTCompare.h"

namespace {

// Of 53 bytes or less: a round stays below the 1 MiB that may wait for a file, so no line is lost.
constexpr int kLines = 10000;

/// A file in the system's temporary folder, deleted at the end.
class TemporaryFile {
public:
    explicit TemporaryFile(const char* side)
        : m_path(std::filesystem::temp_directory_path() /
                 ("ktbase-bench-" + std::to_string(std::random_device()()) + "-" + side)) {}
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    ~TemporaryFile() {
        std::error_code ignored;
        std::filesystem::remove(m_path, ignored);
    }
    std::string Path() const { return m_path.string(); }
    long long Lines() const {
        std::ifstream file(m_path, std::ios::binary);
        return std::count(std::istreambuf_iterator<char>(file), {}, '\n');
    }

private:
    std::filesystem::path m_path;
};

/// Shares kLines calls of print(number) among the threads; one is the caller itself.
template <typename Print>
void PrintFrom(int threads, Print print) {
    const auto part = [=] {
        for (int i = 0; i < kLines / threads; ++i)
            print(i);
    };
    std::vector<std::thread> others;
    for (int i = 1; i < threads; ++i)
        others.emplace_back(part);
    part();
    for (std::thread& other : others)
        other.join();
}

/// A round opens a file, prints to it and closes it, so that its last line counts too. The argument
/// is the number of threads, items_per_second are our lines. "ours_lost" and "rival_lost" are the
/// lines that the last round's file lacks.
void LinesToFile(benchmark::State& state) {
    const int threads = static_cast<int>(state.range(0));
    const TemporaryFile our("ours"), other("rival");
    KTDBG_EnablePrint(5, 7);  // decorated, to files, not to the console
    if (KTDBGInitialize() < 0)
        return state.SkipWithError("no debug output");
    bool opened = true;
    KTCompare(
        state, kLines,
        [&] {
            opened &= KTDBGAttachFile(our.Path().c_str()) == KT_OK;
            PrintFrom(threads, [](int i) { DBG_Printf(1, 2, "frame %d of %s\n", i, "camera"); });
            opened &= KTDBGDetachFile(our.Path().c_str()) == KT_OK;
        },
        [&] {
            const auto sink =
                std::make_shared<spdlog::sinks::basic_file_sink_mt>(other.Path(), true);
            spdlog::logger logger("bench", sink);
            logger.set_pattern("\x1b[0m[%H:%M:%S.%e][01:%l]\x1b[0m %v");
            PrintFrom(threads, [&](int i) { logger.info("frame {} of {}", i, "camera"); });
        });
    KTDBGInvalidate();
    if (!opened)
        state.SkipWithError("a file cannot be opened or closed");
    state.SetItemsProcessed(state.iterations() * kLines);
    state.counters["ours_lost"] = static_cast<double>(kLines - our.Lines());
    state.counters["rival_lost"] = static_cast<double>(kLines - other.Lines());
}
BENCHMARK(LinesToFile)->Arg(1)->Arg(2)->UseManualTime();

/// A level that is off, with a file attached.
void DropDisabledLine(benchmark::State& state) {
    const TemporaryFile our("ours"), other("rival");
    KTDBG_EnablePrint(5, 7);
    DBG_LevelDisable(3);
    if (KTDBGInitialize() < 0)
        return state.SkipWithError("no debug output");
    if (KTDBGAttachFile(our.Path().c_str()) != KT_OK)
        state.SkipWithError("the file cannot be opened");  // the loop then runs no round
    spdlog::logger logger("bench",
                          std::make_shared<spdlog::sinks::basic_file_sink_mt>(other.Path(), true));
    logger.set_level(spdlog::level::info);
    KTCompare(
        state, kLines,
        [] {
            for (int i = 0; i < kLines; ++i)
                DBG_Printf(1, 3, "frame %d of %s\n", i, "camera");
        },
        [&] {
            for (int i = 0; i < kLines; ++i)
                logger.debug("frame {} of {}", i, "camera");
        });
    KTDBGInvalidate();
    DBG_LevelEnable(3);
}
BENCHMARK(DropDisabledLine)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
