// Drives a libFuzzer-style target without libFuzzer (compilers other than clang): seeds
// from the corpus directories given, then random mutations for -max_total_time seconds
// or until -runs inputs have run, whichever comes first. With -seed the inputs are the
// same on every machine, so a run of N inputs repeats exactly.
#include <dirent.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {
const char* const kTokens[] = {"[BUS]\n", "[Topology]\n", "[Protocol]\n", " mux ", " 0x", " all=",
                               " file=f.ini", "=byte", "=vpd_block_data", "=pmbus_block", " ffffffff",
                               "\n#--file--\n", "\n", " ", "#", "\t", "]", "["};

std::vector<std::string> loadSeeds(int argc, char** argv) {
    std::vector<std::string> seeds;
    for (int i = 1; i < argc; ++i) {
        if (argv[i][0] == '-') continue;
        DIR* dir = opendir(argv[i]);
        if (!dir) continue;
        // In name order: directory order differs between file systems, and the inputs
        // of a seeded run must not.
        std::vector<std::string> names;
        while (dirent* e = readdir(dir))
            if (e->d_name[0] != '.') names.push_back(e->d_name);
        closedir(dir);
        std::sort(names.begin(), names.end());
        for (const std::string& name : names) {
            std::ifstream in(std::string(argv[i]) + "/" + name, std::ios::binary);
            std::stringstream s;
            s << in.rdbuf();
            seeds.push_back(s.str());
        }
    }
    if (seeds.empty()) seeds.push_back("[BUS]\nsmbus0 0 100 c\n[Topology]\nmux0 0 0xe0 mux 2 3\n");
    return seeds;
}

std::string mutate(std::string s, std::mt19937_64& rng, const std::vector<std::string>& seeds) {
    const int steps = 1 + static_cast<int>(rng() % 8);
    for (int i = 0; i < steps; ++i) {
        const size_t at = s.empty() ? 0 : rng() % (s.size() + 1);
        switch (rng() % 6) {
        case 0:
            if (!s.empty()) s[at % s.size()] = static_cast<char>(rng());
            break;
        case 1:
            s.insert(at, kTokens[rng() % (sizeof(kTokens) / sizeof(kTokens[0]))]);
            break;
        case 2:
            if (!s.empty()) s.erase(at % s.size(), 1 + rng() % 16);
            break;
        case 3:
            s.insert(at, std::string(1 + rng() % 600, static_cast<char>("a 0x\n"[rng() % 5])));
            break;
        case 4: {
            const std::string& other = seeds[rng() % seeds.size()];
            if (!other.empty()) s.insert(at, other.substr(rng() % other.size(), 1 + rng() % 80));
            break;
        }
        default:
            s.insert(at, std::to_string(static_cast<int64_t>(rng())));
            break;
        }
    }
    if (s.size() > 64 * 1024) s.resize(64 * 1024);
    return s;
}
}  // namespace

int main(int argc, char** argv) {
    long seconds = 60;
    unsigned long long maxRuns = ~0ULL;
    unsigned long long seed = std::random_device{}();
    for (int i = 1; i < argc; ++i) {
        if (strncmp(argv[i], "-max_total_time=", 16) == 0) seconds = atol(argv[i] + 16);
        if (strncmp(argv[i], "-runs=", 6) == 0) maxRuns = strtoull(argv[i] + 6, nullptr, 10);
        if (strncmp(argv[i], "-seed=", 6) == 0) seed = strtoull(argv[i] + 6, nullptr, 10);
    }
    std::vector<std::string> seeds = loadSeeds(argc, argv);
    std::mt19937_64 rng(seed);
    const auto start = std::chrono::steady_clock::now();
    const auto end = start + std::chrono::seconds(seconds);
    unsigned long long runs = 0;
    for (const std::string& s : seeds) {
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(s.data()), s.size());
        ++runs;
    }
    std::vector<std::string> pool = seeds;
    while (runs < maxRuns && std::chrono::steady_clock::now() < end) {
        std::string input = mutate(pool[rng() % pool.size()], rng, seeds);
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.data()), input.size());
        if (pool.size() < 256 && rng() % 16 == 0) pool.push_back(input);
        ++runs;
    }
    const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    printf("standalone fuzz driver: %llu runs in %.1f s (seed %llu)\n", runs, elapsed, seed);
    return 0;
}
