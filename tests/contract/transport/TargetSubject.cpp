#include "TransportSubject.h"
#include "core/transport/IscsiTransport.h"

#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <sys/stat.h>

/// The transport to an image of a real iSCSI target, which the environment names. What has arrived is looked
/// up in the target's file.
namespace agent::contract {

namespace {

using Bytes = TransportSubject::Bytes;

std::string setting(const char* name) {
    const char* const value = std::getenv(name); // NOLINT(concurrency-mt-unsafe): nobody changes it
    if (value == nullptr) {
        throw std::invalid_argument(std::string(name) + " isn't set");
    }
    return value;
}

class TargetSubject : public TransportSubject {
public:
    std::shared_ptr<core::ITransport> make() override {
        return std::make_shared<core::IscsiTransport>(logger, setting("TARGET_NAME"),
                                                      setting("TARGET_PORTAL"),
                                                      std::stoi(setting("TARGET_LUN")), 0, "", "");
    }

    /// Leaves the file with a time of its last change that no later change can have.
    void setImage(const Bytes& image) override {
        std::fstream stream(file, std::ios::binary | std::ios::in | std::ios::out);
        stream.write(reinterpret_cast<const char*>(image.data()), static_cast<std::streamsize>(image.size()));
        stream.close();
        constexpr timespec longAgo[2]{{1, 0}, {1, 0}}; // NOLINT(modernize-avoid-c-arrays): utimensat's
        if (!stream || ::utimensat(AT_FDCWD, file.c_str(), longAgo, 0) != 0) {
            throw std::runtime_error(file + " can't be written");
        }
    }

    Bytes image() override {
        std::ifstream stream(file, std::ios::binary);
        return {std::istreambuf_iterator<char>(stream), {}};
    }

    std::string lastWrite() override {
        struct stat about{};
        if (::stat(file.c_str(), &about) != 0) {
            throw std::runtime_error(file + " is gone");
        }
        return std::to_string(about.st_mtim.tv_sec) + "." + std::to_string(about.st_mtim.tv_nsec);
    }

private:
    const std::string file = setting("TARGET_FILE");
    info::Logger logger{[](const std::string& message, int level, info::LogTime) {
        if (level <= info::level::warning) {
            std::fputs(message.c_str(), stderr);
        }
    }};
};

} // namespace

std::vector<SubjectRow<TransportSubject>> transportSubjects() {
    return {{"IscsiTarget", [] { return std::make_unique<TargetSubject>(); }}};
}

} // namespace agent::contract
