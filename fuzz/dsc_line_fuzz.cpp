// Any line: its head is what the C library reads, whatever parses prints, and
// what was printed parses to the same value.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "store/dsc_text.h"

namespace {

void require(bool holds) {
    if (!holds) {
        std::abort();
    }
}

void checkHead(const std::string& line) {
    DscHead head;
    const bool parsed = parseDscHead(line.c_str(), head) == kOk;

    unsigned int type = 0;
    unsigned int id = 0;
    std::string text(line.size() + 1, '\0');
    const int items = std::sscanf(line.c_str(), "%x %x %[^\n]", &type, &id, text.data());
    require(parsed == (items >= 2));
    require(!parsed || (head.type == type && head.id == id && head.text == text.c_str()));
}

void checkRoundTrip(const std::string& line) {
    DscLine value;
    if (parseDscLine(line.c_str(), value) != kOk) {
        return;
    }
    std::string text;
    DscLine again;
    require(printDscLine(value, text) == kOk);
    require(parseDscLine(text.c_str(), again) == kOk);
    require(again.type == value.type && again.id == value.id && again.data == value.data);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string line(reinterpret_cast<const char*>(data), size);
    checkHead(line);
    checkRoundTrip(line);
    return 0;
}
