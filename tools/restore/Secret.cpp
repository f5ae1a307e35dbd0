#include "Secret.h"

#include "common/PosixError.h"
#include "os/FileDescriptor.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <stdexcept>
#include <termios.h>
#include <unistd.h>

namespace restore {

namespace {

constexpr std::size_t longest = 4096;

std::string readFirstLine(const std::string& path) {
    std::ifstream file(path);
    std::string line(longest, '\0');
    if (!file.getline(line.data(), longest)) {
        throw std::runtime_error("no secret can be read from " + path);
    }
    line.resize(line.find('\0'));
    return line;
}

/// Turns off the terminal's echo.
class EchoOff {
public:
    explicit EchoOff(int terminal) : terminal(terminal) {
        if (::tcgetattr(terminal, &before) == 0) {
            ::termios silent = before;
            silent.c_lflag &= ~static_cast<::tcflag_t>(ECHO);
            isOff = ::tcsetattr(terminal, TCSAFLUSH, &silent) == 0;
        }
    }
    EchoOff(const EchoOff&) = delete;
    EchoOff& operator=(const EchoOff&) = delete;
    ~EchoOff() {
        if (isOff) {
            ::tcsetattr(terminal, TCSAFLUSH, &before);
        }
    }

private:
    int terminal;
    ::termios before{};
    bool isOff = false;
};

void print(const os::FileDescriptor& terminal, const std::string& text) {
    if (::write(terminal.get(), text.data(), text.size()) < 0) {
        throw agent::PosixError("the terminal can't be written to", errno);
    }
}

std::string ask(const os::FileDescriptor& terminal, const std::string& what) {
    std::array<char, longest> typed{};
    ::ssize_t count = 0;
    {
        const EchoOff echoOff(terminal.get()); // before the prompt, as it drops what was typed earlier
        print(terminal, what + ": ");
        count = ::read(terminal.get(), typed.data(), typed.size());
    }
    print(terminal, "\n");
    if (count <= 0) {
        throw std::runtime_error("nothing was typed");
    }
    std::string line(typed.data(), static_cast<std::size_t>(count));
    return line.substr(0, line.find('\n'));
}

} // namespace

std::string findSecret(const SecretSource& source, const std::string& what) {
    if (source.file) {
        return readFirstLine(*source.file);
    }
    if (const char* const given = std::getenv(secretVariable);
        given != nullptr) { // NOLINT(concurrency-mt-unsafe): before any thread
        return given;
    }
    const os::FileDescriptor terminal(::open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY));
    if (!terminal) {
        throw std::runtime_error(what + " is needed: --password-file, the variable " + secretVariable +
                                 " or a terminal to ask for it");
    }
    return ask(terminal, what);
}

} // namespace restore
