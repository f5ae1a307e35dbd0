#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

/// Runs the target on each file of the given directories, in place of libFuzzer.
int main(int argumentCount, char** arguments) {
    std::size_t inputs = 0;
    for (int i = 1; i < argumentCount; ++i) {
        for (const auto& entry : std::filesystem::directory_iterator(arguments[i])) {
            std::ifstream file(entry.path(), std::ios::binary);
            const std::vector<char> content(std::istreambuf_iterator<char>(file), {});
            const std::vector<std::uint8_t> bytes(content.begin(), content.end());
            LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
            ++inputs;
        }
    }
    std::cout << inputs << " inputs\n";
    return inputs > 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
