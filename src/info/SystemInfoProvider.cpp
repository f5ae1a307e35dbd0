#include "info/SystemInfoProvider.h"

#include <array>
#include <charconv>
#include <climits>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <unistd.h>

namespace agent::info {

namespace {

constexpr const char* smbiosDirectory = "/sys/class/dmi/id/";
constexpr std::size_t maxFileBytes = 65536;

/// Returns the first 64 KiB of a file, or nothing if it can't be read. The files here are smaller than that.
std::optional<std::string> readFile(const std::string& path) {
    std::ifstream file(path);
    std::string content(maxFileBytes, '\0');
    file.read(content.data(), static_cast<std::streamsize>(content.size()));
    if (!file.is_open() || file.bad()) {
        return std::nullopt;
    }
    content.resize(static_cast<std::size_t>(file.gcount()));
    return content;
}

/// Removes the first line from `text` and returns it without its newline.
std::string_view takeLine(std::string_view& text) {
    const std::size_t end = text.find('\n');
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    return line;
}

std::string withoutQuotes(std::string_view value) {
    if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') &&
        value.back() == value.front()) {
        value = value.substr(1, value.size() - 2);
    }
    return std::string(value);
}

/// The value of the first line that starts with `key`; empty if there is none.
std::string valueOf(std::string_view text, std::string_view key) {
    while (!text.empty()) {
        const std::string_view line = takeLine(text);
        if (line.starts_with(key)) {
            return withoutQuotes(line.substr(key.size()));
        }
    }
    return "";
}

/// Each of these functions returns an empty string if its file is missing or doesn't have the value.
std::string osRelease() {
    const std::string text = readFile("/etc/os-release").value_or("");
    const std::string name = valueOf(text, "NAME=");
    const std::string version = valueOf(text, "VERSION="); // some distributions have no releases
    return name.empty() || version.empty() ? name : name + " " + version;
}

std::string lsbRelease() {
    return valueOf(readFile("/etc/lsb-release").value_or(""), "DISTRIB_DESCRIPTION=");
}

std::string redHatRelease() {
    const std::string text = readFile("/etc/redhat-release").value_or("");
    std::string_view rest = text;
    return std::string(takeLine(rest));
}

struct utsname systemName(const char* failure) {
    struct utsname name{};
    if (::uname(&name) != 0) {
        throw std::runtime_error(failure);
    }
    return name;
}

struct sysinfo systemState(const char* failure) {
    struct sysinfo state{};
    if (::sysinfo(&state) != 0) {
        throw std::runtime_error(failure);
    }
    return state;
}

std::uint64_t bytes(unsigned long units, const struct sysinfo& state) {
    return static_cast<std::uint64_t>(units) * state.mem_unit;
}

constexpr const char* ramFailure = "could not get system ram. sysinfo failed";

} // namespace

std::string SystemInfoProvider::getOSVersion() const {
    for (const auto& source : {&osRelease, &lsbRelease, &redHatRelease}) {
        std::string version = source();
        if (!version.empty()) {
            return version;
        }
    }
    throw std::runtime_error("failed to get OS version");
}

KernelVersion KernelVersion::of(std::string_view release) {
    const char* const end = release.data() + release.size();
    KernelVersion version;
    const char* next = release.data();
    for (int* const part : {&version.major, &version.minor, &version.build}) {
        next = std::from_chars(next, end, *part).ptr;
        if (next == end || *next != '.') {
            break;
        }
        ++next;
    }
    return version;
}

KernelVersion SystemInfoProvider::getKernelVersion() const {
    const struct utsname name = systemName("Could not get kernel version, uname failed");
    return KernelVersion::of(&name.release[0]);
}

std::string SystemInfoProvider::getArchitecture() const {
    const struct utsname name = systemName("could not get OS architecture. uname failed");
    return &name.machine[0];
}

int SystemInfoProvider::getArchitectureBits() const {
    return getArchitecture() == "x86_64" ? 64 : 32;
}

long SystemInfoProvider::getCPUCount() const {
    const long count = ::sysconf(_SC_NPROCESSORS_ONLN);
    if (count < 0) {
        throw std::runtime_error("could not get number of CPUs. sysconf(_SC_NPROCESSORS_ONLN) failed");
    }
    return count;
}

std::uint64_t SystemInfoProvider::getTotalRAM() const {
    const struct sysinfo state = systemState(ramFailure);
    return bytes(state.totalram, state);
}

std::uint64_t SystemInfoProvider::getFreeRAM() const {
    const struct sysinfo state = systemState(ramFailure);
    return bytes(state.freeram, state);
}

std::string SystemInfoProvider::getHostName() const {
    std::array<char, HOST_NAME_MAX + 1> name{};
    if (::gethostname(name.data(), name.size()) != 0) {
        throw std::runtime_error("could not get hostname. gethostname failed");
    }
    return name.data();
}

std::int64_t SystemInfoProvider::getUptime() const {
    return systemState("could not get system uptime. sysinfo failed").uptime;
}

std::string SystemInfoProvider::getSMBIOSValue(const std::string& value) const {
    const std::optional<std::string> content = readFile(smbiosDirectory + value);
    if (!content) {
        throw std::runtime_error("Could not get system " + value);
    }
    std::string_view rest = *content;
    return std::string(takeLine(rest));
}

} // namespace agent::info
