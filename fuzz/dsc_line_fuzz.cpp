// Any line: its head is what the C library reads, whatever parses prints, and
// what was printed parses to the same value.
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>

#include "format/dsc_text.h"
#include "tests/support/scanned_line.h"

namespace {

void require(bool holds) {
    if (!holds) {
        std::abort();
    }
}

void checkHead(const std::string& line) {
    DscHead head;
    const bool parsed = parseDscHead(line.c_str(), head) == kOk;

    const std::optional<ScannedLine> scanned = scanLine(line);
    require(parsed == scanned.has_value());
    require(!parsed ||
            (head.type == scanned->type && head.id == scanned->id && head.text == scanned->text));
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
