#include "tests/lib/database/unlock_example.h"

#include <fstream>

namespace fstore::example {
namespace {

// The lines of the file that `choose` says yes to.
template <class Choose>
std::vector<std::string> linesOfFile(Choose choose) {
    std::ifstream file(TEST_DATA "/unlock_slots.txt");
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) {
        if (choose(line)) {
            lines.push_back(line);
        }
    }
    return lines;
}

}  // namespace

std::string valueOf(const std::string& name) {
    const std::string head = name + " = ";
    return linesOfFile([&](const std::string& line) { return line.starts_with(head); })
        .at(0)
        .substr(head.size());
}

std::vector<std::string> linesOfRecord() {
    return linesOfFile([](const std::string& line) {
        return line.starts_with("unlock ") || line.starts_with("slot ") || line.starts_with("end ");
    });
}

}  // namespace fstore::example
