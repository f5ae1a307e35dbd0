#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace agent::info {

struct KernelVersion {
    int major = 0;
    int minor = 0;
    int build = 0;
    bool operator==(const KernelVersion&) const = default;

    /// The first three numbers of a kernel's release, which may have fewer: "6.12.48-amd64", "6.18-rc1".
    static KernelVersion of(std::string_view release);
};

/// The values from the machine's firmware that the agent uses. Each is the name of a file in
/// /sys/class/dmi/id.
namespace smbios {
inline constexpr const char* serial = "product_serial";
inline constexpr const char* name = "product_name";
inline constexpr const char* uuid = "product_uuid";
inline constexpr const char* vendor = "sys_vendor";
} // namespace smbios

/// Properties of this machine. Each call queries the operating system.
/// Owns:    nothing.
/// Threads: any thread may call it.
/// Fails:   the functions throw std::runtime_error if a property isn't available.
class SystemInfoProvider {
public:
    SystemInfoProvider() = default;
    SystemInfoProvider(const SystemInfoProvider&) = delete;
    SystemInfoProvider& operator=(const SystemInfoProvider&) = delete;
    virtual ~SystemInfoProvider() = default;

    /// The name and the version of the distribution.
    [[nodiscard]] virtual std::string getOSVersion() const;
    /// Parts of the release that aren't numbers count as 0.
    [[nodiscard]] virtual KernelVersion getKernelVersion() const;
    [[nodiscard]] virtual std::string getArchitecture() const;
    [[nodiscard]] virtual int getArchitectureBits() const;
    /// The number of processors that are online.
    [[nodiscard]] virtual long getCPUCount() const;
    /// In bytes.
    [[nodiscard]] virtual std::uint64_t getTotalRAM() const;
    [[nodiscard]] virtual std::uint64_t getFreeRAM() const;
    [[nodiscard]] virtual std::string getHostName() const;
    /// In seconds.
    [[nodiscard]] virtual std::int64_t getUptime() const;
    /// `value` is one of the constants in the namespace smbios.
    [[nodiscard]] virtual std::string getSMBIOSValue(const std::string& value) const;
};

} // namespace agent::info
