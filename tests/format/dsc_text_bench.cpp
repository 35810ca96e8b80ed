// How fast does descriptor text become data, and data text?
//
// Prints one figure a line: gigabytes of binary data per second in both
// directions, for sizes that a processor cache holds and sizes that none does,
// and what reading a descriptor of short lines costs for each line. Every
// figure is the best of several rounds, since other work on the machine can
// only add to a time.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <string>
#include <vector>

#include "format/dsc_text.h"

namespace {

constexpr int kRounds = 9;

void check(bool holds) {
    if (!holds) {
        std::fputs("a result is wrong\n", stderr);
        std::exit(1);
    }
}

template <class Work>
double bestSeconds(Work&& work) {
    double best = std::numeric_limits<double>::max();
    for (int round = 0; round < kRounds; ++round) {
        const auto start = std::chrono::steady_clock::now();
        work();
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
        best = std::min(best, took.count());
    }
    return best;
}

void benchBinary(std::size_t size) {
    std::vector<unsigned char> data(size);
    unsigned int state = 1;
    for (unsigned char& byte : data) {
        state = state * 1664525U + 1013904223U;
        byte = static_cast<unsigned char>(state >> 24);
    }
    const std::size_t times = std::max<std::size_t>(1, (std::size_t{1} << 27) / size);
    const double bytes = static_cast<double>(times) * static_cast<double>(size);

    std::string text;
    const double printing = bestSeconds([&] {
        for (std::size_t i = 0; i < times; ++i) {
            check(DataToPrint(kTypeBinary, data.data(), static_cast<unsigned int>(size), text) ==
                  kOk);
        }
    });
    std::vector<unsigned char> back(size);
    const double parsing = bestSeconds([&] {
        for (std::size_t i = 0; i < times; ++i) {
            unsigned int room = static_cast<unsigned int>(size);
            check(PrintToData(kTypeBinary, text.c_str(), back.data(), room) == kOk && room == size);
        }
    });
    check(back == data);
    std::printf("binary data, %9zu bytes: print %6.2f GB/s, parse %6.2f GB/s\n", size,
                bytes / printing / 1e9, bytes / parsing / 1e9);
}

void benchLines() {
    constexpr unsigned int kLines = 200'000;
    std::string whole;
    const double printing = bestSeconds([&] {
        whole.clear();
        for (unsigned int i = 0; i < kLines; ++i) {
            const unsigned char data[] = "a name of ordinary length";
            check(appendDscLine(kTypeString, i, data, sizeof data, whole) == kOk);
            whole += '\n';
        }
    });
    double reading = std::numeric_limits<double>::max();
    for (int round = 0; round < kRounds; ++round) {
        std::string bytes = whole;  // the reader changes it
        const auto start = std::chrono::steady_clock::now();
        DscLineReader reader(bytes.data(), bytes.size());
        unsigned int lines = 0;
        for (const char* line = nullptr; reader.next(line) == kOk; ++lines) {
            DscHead head;
            unsigned char data[64];
            unsigned int size = sizeof data;
            check(parseDscHead(line, head) == kOk && head.id == lines &&
                  PrintToData(head.type, head.text, data, size) == kOk);
        }
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
        check(lines == kLines);
        reading = std::min(reading, took.count());
    }
    std::printf("lines of %zu characters: print %6.1f ns, read and parse %6.1f ns\n",
                whole.size() / kLines, printing / kLines * 1e9, reading / kLines * 1e9);
}

}  // namespace

int main() {
    for (const std::size_t size :
         {std::size_t{16}, std::size_t{256}, std::size_t{4096}, std::size_t{65536},
          std::size_t{1} << 20, std::size_t{1} << 25}) {
        benchBinary(size);
    }
    benchLines();
    return 0;
}
