#include "bench/support/Program.h"
#include "db/DataProvider.h"
#include "support/TestDirectory.h"

#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <cstdint>
#include <cstdio>

/// Measures what a connection for each operation costs: the store, compared with the same statements through
/// one connection that stays open. The files are below the temporary directory: set TMPDIR to measure a
/// certain disk.
namespace agent::bench {
namespace {

constexpr const char* volume = "6f0c9f2e-57a5-4a0b-8a1c-000000000001";
constexpr const char* key = "agentUUID";

/// The store being measured, with one volume and one key.
class Store {
public:
    Store() {
        provider.validateProvider();
        provider.setVolumeChecksum(volume, 1, db::ChecksumType::libcrc32c);
        provider.setConfigValue(key, volume);
    }

    test::TestDirectory directory;
    info::Logger logger{info::PrinterFunction()};
    UUIDGenerator generator;
    db::DataProvider provider{logger, generator, directory.path()};
};

/// The peer: a connection that is opened once.
class OpenConnection {
public:
    explicit OpenConnection(const std::string& path) { sqlite3_open(path.c_str(), &database); }
    OpenConnection(const OpenConnection&) = delete;
    OpenConnection& operator=(const OpenConnection&) = delete;
    ~OpenConnection() { sqlite3_close(database); }

    /// Prepares, binds the texts, steps and finalizes. Returns the first column of a row, if one came.
    std::string run(const char* sql, std::initializer_list<std::string> texts) {
        sqlite3_stmt* statement = nullptr;
        sqlite3_prepare_v2(database, sql, -1, &statement, nullptr);
        int position = 0;
        for (const std::string& text : texts) {
            sqlite3_bind_text(statement, ++position, text.data(), static_cast<int>(text.size()),
                              SQLITE_TRANSIENT);
        }
        std::string result;
        if (sqlite3_step(statement) == SQLITE_ROW) {
            const void* bytes = sqlite3_column_text(statement, 0);
            result.assign(static_cast<const char*>(bytes),
                          static_cast<std::size_t>(sqlite3_column_bytes(statement, 0)));
        }
        sqlite3_finalize(statement);
        return result;
    }

private:
    sqlite3* database = nullptr;
};

void setVolumeChecksum(benchmark::State& state) {
    Store store;
    std::uint32_t checksum = 0;
    for (auto step : state) {
        store.provider.setVolumeChecksum(volume, ++checksum, db::ChecksumType::libcrc32c);
    }
    state.SetItemsProcessed(state.iterations());
}

void setVolumeChecksumOpen(benchmark::State& state) {
    const Store store;
    OpenConnection connection(store.directory / "agent.sqlite");
    std::uint32_t checksum = 0;
    for (auto step : state) {
        connection.run("INSERT OR IGNORE INTO volumes ( volume_uuid ) VALUES ( ? );", {volume});
        connection.run("UPDATE volumes SET image_checksum = ?, image_checksum_type = ?WHERE volume_uuid = ?;",
                       {std::to_string(++checksum), "libcrc32c", volume});
    }
    state.SetItemsProcessed(state.iterations());
}

void getConfigValue(benchmark::State& state) {
    Store store;
    for (auto step : state) {
        benchmark::DoNotOptimize(store.provider.getConfigValue(key));
    }
    state.SetItemsProcessed(state.iterations());
}

void getConfigValueOpen(benchmark::State& state) {
    const Store store;
    OpenConnection connection(store.directory / "agent.sqlite");
    for (auto step : state) {
        benchmark::DoNotOptimize(connection.run("select value from config where key = ?;", {key}));
    }
    state.SetItemsProcessed(state.iterations());
}

BENCHMARK(setVolumeChecksum)->UseRealTime();
BENCHMARK(setVolumeChecksumOpen)->UseRealTime();
BENCHMARK(getConfigValue)->UseRealTime();
BENCHMARK(getConfigValueOpen)->UseRealTime();

void printRatio(const TimingReporter& reporter, const std::string& name) {
    reporter.compare(name, name + "Open", [&name](double own, double peer) {
        std::printf("%s: %.0f a second, open connection %.0f a second, ratio %.2f\n", name.c_str(), 1 / own,
                    1 / peer, peer / own);
    });
}

} // namespace
} // namespace agent::bench

int main(int argumentCount, char** arguments) {
    agent::bench::Program program(argumentCount, arguments);
    const agent::bench::TimingReporter& reporter = program.run();
    agent::bench::printRatio(reporter, "setVolumeChecksum");
    agent::bench::printRatio(reporter, "getConfigValue");
}
