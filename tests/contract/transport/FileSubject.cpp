#include "FileSubject.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <sys/stat.h>

namespace agent::contract {

FileSubject::FileSubject()
    : logger([](const std::string& message, int level, info::LogTime) {
          if (level <= info::level::warning) {
              std::fputs(message.c_str(), stderr);
          }
      }) {}

std::string FileSubject::setting(const char* name) {
    const char* const value = std::getenv(name); // NOLINT(concurrency-mt-unsafe): nobody changes it
    if (value == nullptr) {
        throw std::invalid_argument(std::string(name) + " isn't set");
    }
    return value;
}

void FileSubject::setImage(const Bytes& image) {
    std::fstream stream(file, std::ios::binary | std::ios::in | std::ios::out);
    stream.write(reinterpret_cast<const char*>(image.data()), static_cast<std::streamsize>(image.size()));
    stream.close();
    constexpr timespec longAgo[2]{{1, 0}, {1, 0}}; // NOLINT(modernize-avoid-c-arrays): utimensat's
    if (!stream || ::utimensat(AT_FDCWD, file.c_str(), longAgo, 0) != 0) {
        throw std::runtime_error(file + " can't be written");
    }
}

TransportSubject::Bytes FileSubject::image() {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

std::string FileSubject::lastWrite() {
    struct stat about{};
    if (::stat(file.c_str(), &about) != 0) {
        throw std::runtime_error(file + " is gone");
    }
    return std::to_string(about.st_mtim.tv_sec) + "." + std::to_string(about.st_mtim.tv_nsec);
}

} // namespace agent::contract
