#include "tests/store/shape_database.h"

#include "format/dsc_text.h"

using std::string_literals::operator""s;

const std::vector<std::pair<std::string, Contents>>& shapeRecords() {
    static const std::string allBytes = [] {
        std::string bytes;
        for (int i = 0; i < 4 * 256; ++i) {
            bytes += static_cast<char>(i * 7);
        }
        return bytes;
    }();
    static const std::vector<std::pair<std::string, Contents>> records{
        {"empty", {}},
        {"numbers",
         {{{kTypeNumber, 0, "\0\0\0\0"s, false},
           {kTypeNumber, 0x7fffffff, "\xff\xff\xff\x7f", false},
           {kTypeNumber, 0xffffffff, "\xff\xff\xff\xff", false}},
          {},
          false}},
        {"texts",
         {{{kTypeString, 1, "alice\0"s, false},
           {kTypeString, 2, "\0"s, false},
           {kTypeText, 3, "a text with \xc3\xa4 and \x7f", false},
           {kTypeText, 3, "another of the same id", false},
           {kTypeText, 4, std::string(3000, 'x'), false}},
          {},
          false}},
        {"binary",
         {{{kTypeBinary, 1, allBytes, false},
           {kTypeBinary, 2, "", false},
           {kTypeBinary, 3, allBytes, true},
           {kTypeBinary, 4, "", true}},
          {},
          false}},
        {"plain body", {{{kTypeText, 1, "t", false}}, allBytes, false}},
        {"encrypted body", {{{kTypeBinary, 1, "key", true}}, allBytes + allBytes, true}},
        {"empty encrypted body", {{}, "", true}},
    };
    return records;
}

bool writeShapeRecords() {
    for (const auto& [name, contents] : shapeRecords()) {
        if (TestStore::save(name, contents) != kOk) {
            return false;
        }
    }
    return true;
}
