// Gives a fuzz target every file of the folders that are named: what was once found stays tested.
#include "Target.h"

#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>

namespace {

void replay(std::filesystem::path const& file)
{
    std::ifstream opened(file, std::ios::binary);
    std::string const bytes((std::istreambuf_iterator<char>(opened)),
                            std::istreambuf_iterator<char>());
    // In memory of its own, so that a read past the end is seen.
    std::vector<std::uint8_t> const input(bytes.begin(), bytes.end());
    std::cerr << file.filename().string() << '\n'; // the last one named is the one that broke
    LLVMFuzzerTestOneInput(input.data(), input.size());
}

} // namespace

int main(int count, char** arguments)
{
    unsigned long replayed = 0;
    for (int i = 1; i < count; ++i) {
        for (auto const& entry : std::filesystem::directory_iterator(arguments[i])) {
            replay(entry.path());
            ++replayed;
        }
    }
    std::cout << replayed << " inputs replayed\n";
    return replayed == 0 ? 1 : 0;
}
