#include "FileAccess.h"
#include "era/EraMetadata.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <iostream>
#include <span>
#include <string>
#include <unistd.h>
#include <vector>

/// Prints what has been written since an era, according to the metadata of an era target, in the format of
/// era_invalidate, so that both can be compared.
namespace {

using tolvubd::EraMetadata;

std::vector<bool> read(const std::string& path, EraMetadata::View view, std::uint32_t first) {
    const os::FileDescriptor device = tolvubd::openFile(path, O_RDONLY | O_DIRECT);
    const auto size = static_cast<std::uint64_t>(::lseek(device.get(), 0, SEEK_END));
    return EraMetadata(device, size, view).writtenSince(first);
}

void print(const std::vector<bool>& written) {
    std::cout << "<blocks>\n";
    for (auto begin = written.begin(); (begin = std::find(begin, written.end(), true)) != written.end();) {
        const auto end = std::find(begin, written.end(), false);
        const auto number = begin - written.begin();
        if (end - begin == 1) {
            std::cout << "  <block block=\"" << number << "\"/>\n";
        } else {
            std::cout << "  <range begin=\"" << number << "\" end = \"" << end - written.begin() << "\"/>\n";
        }
        begin = end;
    }
    std::cout << "</blocks>\n";
}

} // namespace

int main(int argumentCount, char** arguments) {
    const std::span all(arguments, static_cast<std::size_t>(argumentCount));
    if (all.size() != 4) {
        std::cerr << "usage: EraRead DEVICE current|snapshot ERA\n";
        return EXIT_FAILURE;
    }
    const auto view =
        std::string(all[2]) == "snapshot" ? EraMetadata::View::snapshot : EraMetadata::View::current;
    try {
        print(read(all[1], view, static_cast<std::uint32_t>(std::stoul(all[3]))));
    } catch (const std::exception& error) {
        std::cerr << all[1] << ": " << error.what() << '\n';
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
