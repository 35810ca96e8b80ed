// What records hold, for tests to compare: put in and taken out through the handles.
#ifndef TESTS_SUPPORT_CONTENTS_H
#define TESTS_SUPPORT_CONTENTS_H

#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "client/file_store_exp.h"

// What a record holds, in plain form.
struct Contents {
    struct Attribute {
        unsigned int type = 0;  // the data type
        unsigned int id = 0;
        std::string data;
        bool encrypted = false;

        bool operator==(const Attribute&) const = default;
    };

    std::vector<Attribute> attributes;
    std::optional<std::string> body;
    bool encrypted = false;  // the body

    bool operator==(const Contents&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Contents& contents);

// Gives the record these contents in place of all that it has. Throws, and so fails
// the test, when the record refuses.
void fill(aFileStore& record, const Contents& contents);
Contents contentsOf(const aFileStore& record);

inline const unsigned char* dataOf(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}
inline unsigned int sizeOf(const std::string& text) {
    return static_cast<unsigned int>(text.size());
}

#endif  // TESTS_SUPPORT_CONTENTS_H
