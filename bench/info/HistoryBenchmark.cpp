#include "bench/support/Program.h"
#include "common/Directory.h"
#include "common/File.h"
#include "common/PosixError.h"
#include "info/BackupableVolume.h"
#include "info/DriverController.h"
#include "info/VolumeFiles.h"
#include "info/log/Logger.h"
#include "os/FileDescriptor.h"
#include "os/Transfer.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

/// Measures the history of changed blocks for a table of 2 GiB (a volume of 1 TiB), compared with copying the
/// same bytes by reads and writes of 8 MiB on the same disk in the same run. Nothing is in the page cache
/// when a step starts. The files, 6 GiB at most, are below the working directory while it runs: start it on
/// the disk to measure.
namespace agent::bench {
namespace {

constexpr std::uint64_t gibibyte = std::uint64_t{1} << 30U;
constexpr std::uint64_t headerBytes = 4096;
constexpr std::uint64_t tableBytes = 2 * gibibyte;
constexpr std::uint64_t volumeBytes = tableBytes / 8 * 4096;
constexpr std::size_t pieceBytes = std::size_t{8} << 20U;

os::FileDescriptor open(const std::string& path, int flags) {
    os::FileDescriptor file(::open(path.c_str(), flags | O_CLOEXEC, 0600));
    if (!file) {
        throw PosixError("open of " + path + " failed", errno);
    }
    return file;
}

void require(bool done, const char* what) {
    if (!done) {
        throw std::runtime_error(std::string(what) + " failed");
    }
}

/// The fastest copy that is possible through the page cache.
void copy(const std::string& from, const std::string& to, bool sync) {
    const os::FileDescriptor source = open(from, O_RDONLY);
    const os::FileDescriptor destination = open(to, O_WRONLY | O_CREAT | O_TRUNC);
    std::vector<char> piece(pieceBytes);
    for (;;) {
        const ssize_t count = ::read(source.get(), piece.data(), piece.size());
        require(count >= 0, "read");
        if (count == 0) {
            break;
        }
        require(os::writeAll(destination.get(), {piece.data(), static_cast<std::size_t>(count)}), "write");
    }
    require(!sync || ::fsync(destination.get()) == 0, "fsync");
}

void dropCached(const std::string& path) {
    if (file::exists(path)) {
        const os::FileDescriptor kept = open(path, O_RDWR);
        require(::fsync(kept.get()) == 0 && ::posix_fadvise(kept.get(), 0, 0, POSIX_FADV_DONTNEED) == 0,
                "dropping what is cached");
    }
}

/// A volume in the snapshot state with its two CoW files. The destructor removes everything.
class Stage {
public:
    Stage() {
        dir::make(directory);
        std::ofstream(directory + "/info")
            << R"({"version":"0.9.16","devices":[{"minor":0,"state":3,"cow_file":"/.tolvu1",)"
            << R"("block_device":"/dev/bench"}]})";
        fill(closed);
    }
    Stage(const Stage&) = delete;
    Stage& operator=(const Stage&) = delete;
    ~Stage() { dir::remove(directory); }

    void makeHistory() { require(controller.makeHistory(volume, false), "makeHistory"); }
    void rollForward() { require(controller.rollForward(volume), "rollForward"); }
    void copySynced() const { copy(closed, other, true); }
    void copyUnsynced() const { copy(closed, other, false); }

    /// Drops all files from the page cache before a step starts.
    void dropCaches() const {
        for (const std::string& path : {closed, history, other}) {
            dropCached(path);
        }
    }

private:
    /// Fills a file with random bytes, which no file system or disk can compress.
    static void fill(const std::string& path) {
        const os::FileDescriptor random = open("/dev/urandom", O_RDONLY);
        const os::FileDescriptor destination = open(path, O_WRONLY | O_CREAT | O_TRUNC);
        std::vector<char> piece(pieceBytes);
        for (std::uint64_t done = 0; done < headerBytes + tableBytes; done += piece.size()) {
            require(::read(random.get(), piece.data(), piece.size()) == static_cast<ssize_t>(piece.size()),
                    "reading random bytes");
            require(os::writeAll(destination.get(), {piece.data(), piece.size()}), "write");
        }
    }

    static info::BackupableVolume makeVolume(const std::string& mountPoint) {
        info::VolumeDescription description;
        description.device = "/dev/bench";
        description.size = volumeBytes;
        description.mountPoints = {mountPoint};
        return info::BackupableVolume(description);
    }

    const std::string directory = "history-benchmark." + std::to_string(::getpid());
    const std::string closed = directory + "/" + info::volume_files::firstCow;
    const std::string history = directory + "/" + info::volume_files::history;
    const std::string other = directory + "/copy";
    info::Logger logger{info::PrinterFunction()};
    info::BackupableVolume volume = makeVolume(directory);
    info::DriverController controller{
        logger, nullptr,
        [this] { return info::DriverStatusFiles{directory + "/info", directory + "/version"}; }};
};

void run(benchmark::State& state, Stage& stage, const std::function<void()>& step) {
    for (auto iteration : state) {
        stage.dropCaches();
        const auto start = std::chrono::steady_clock::now();
        step();
        state.SetIterationTime(
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(tableBytes) * state.iterations());
}

void printRatio(const TimingReporter& reporter, const char* name, const char* peerName) {
    reporter.compare(name, peerName, [&](double own, double peer) {
        constexpr double bytes = static_cast<double>(tableBytes) / 1e9;
        std::printf("%s: %.2f GB/s, %s %.2f GB/s, ratio %.2f\n", name, bytes / own, peerName, bytes / peer,
                    peer / own);
    });
}

void registerStep(const char* name, Stage& stage, const std::function<void()>& step) {
    benchmark::RegisterBenchmark(name, [&stage, step](benchmark::State& state) { run(state, stage, step); })
        ->Iterations(1)
        ->UseManualTime();
}

void measure(Program& program) {
    Stage stage;
    constexpr int rounds = 5;
    for (int round = 0; round < rounds; ++round) {
        registerStep("copySynced", stage, [&] { stage.copySynced(); });
        registerStep("makeHistory", stage, [&] { stage.makeHistory(); });
        registerStep("copyUnsynced", stage, [&] { stage.copyUnsynced(); });
        registerStep("rollForward", stage, [&] { stage.rollForward(); });
    }
    const TimingReporter& reporter = program.run();
    printRatio(reporter, "makeHistory", "copySynced");
    printRatio(reporter, "rollForward", "copyUnsynced");
    struct ::rusage usage{};
    if (::getrusage(RUSAGE_SELF, &usage) == 0) {
        std::printf("peak memory %ld MiB\n", usage.ru_maxrss / 1024);
    }
}

} // namespace
} // namespace agent::bench

int main(int argumentCount, char** arguments) {
    try {
        agent::bench::Program program(argumentCount, arguments);
        agent::bench::measure(program);
        return 0;
    } catch (const std::exception& error) {
        static_cast<void>(std::fprintf(stderr, "bench_info: %s\n", error.what()));
        return 1;
    }
}
