#include "DriverFacts.h"

#include "info/BackupableVolume.h"
#include "info/DriverController.h"
#include "info/DriverInfoProvider.h"
#include "tools/common/Text.h"

#include <exception>
#include <unistd.h>

namespace bekctl {

using tools::plain;

namespace {

using agent::info::DriverStatusFiles;

DriverStatusFiles kernels() {
    return {"/proc/tolvu-info", "/sys/module/tolvubd/version"};
}

DriverStatusFiles standIns() {
    return {"/run/tolvubd/info", "/run/tolvubd/version"};
}

bool isThere(const DriverStatusFiles& files) {
    return ::access(files.info.c_str(), F_OK) == 0;
}

DriverKind findKind() {
    if (isThere(kernels())) {
        return DriverKind::kernel;
    }
    return isThere(standIns()) ? DriverKind::standIn : DriverKind::none;
}

std::string readVersion(const DriverStatusFiles& files) {
    try {
        return plain(agent::info::DriverInfoProvider([&] { return files; }).getDriverVersion());
    } catch (const std::exception&) {
        return "";
    }
}

} // namespace

DriverFacts::DriverFacts(agent::info::Logger& logger) : foundKind(findKind()) {
    files = foundKind == DriverKind::standIn ? standIns() : kernels();
    controller = std::make_unique<agent::info::DriverController>(logger, nullptr, [this] { return files; });
    foundVersion = foundKind == DriverKind::none ? "" : readVersion(files);
}

bool DriverFacts::isNewEnough() const {
    return foundKind != DriverKind::none && controller->isDriverVersionSupported();
}

std::optional<agent::info::DriverDeviceInfo>
DriverFacts::deviceOf(const agent::info::BackupableVolume& volume) const {
    agent::info::DriverDeviceInfo device;
    if (foundKind == DriverKind::none || !controller->getDeviceInfo(volume, device)) {
        return std::nullopt;
    }
    return device;
}

std::string nameOf(DriverKind kind) {
    switch (kind) {
    case DriverKind::kernel:
        return "kernel module";
    case DriverKind::standIn:
        return "stand-in";
    case DriverKind::none:
        break;
    }
    return "none";
}

} // namespace bekctl
