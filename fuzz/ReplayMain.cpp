// Runs a fuzz target over saved inputs (files, or every file in given folders) without libFuzzer.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

std::vector<std::filesystem::path> inputs(int argc, char** argv) {
    std::vector<std::filesystem::path> files;
    for (int index = 1; index < argc; ++index) {
        const std::filesystem::path argument = argv[index];
        if (!std::filesystem::is_directory(argument)) {
            files.push_back(argument);
            continue;
        }
        for (const auto& entry : std::filesystem::recursive_directory_iterator(argument))
            if (entry.is_regular_file())
                files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

} // namespace

int main(int argc, char** argv) {
    const auto files = inputs(argc, argv);
    for (const auto& file : files) {
        std::ifstream in(file, std::ios::binary);
        if (!in) {
            std::cerr << "cannot read " << file.string() << '\n';
            return 1;
        }
        const std::string bytes{std::istreambuf_iterator<char>(in), {}};
        // Named first, so that the input of a crash is the last name printed.
        std::cout << file.string() << std::endl;
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    }
    std::cout << "replayed " << files.size() << " inputs\n";
    return files.empty() ? 1 : 0;
}
