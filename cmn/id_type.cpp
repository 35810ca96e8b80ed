#include "cmn/id_type.h"

#include <cstring>

constinit const TypifiedID* pModuleID = &ModuleID;

int Tuint32ID::val_comp(const TypifiedID& other) const {
    const unsigned int theirs = static_cast<const Tuint32ID&>(other).val;
    if (theirs == val) {
        return 0;
    }
    return theirs < val ? -1 : 1;
}

void Tuint32ID::dump() const {}

TstringID::TstringID(const char* s) : TypifiedID(kString) {
    init(s);
}

TstringID::TstringID(const TstringID& other) : TypifiedID(other) {
    init(other.str);
}

TstringID::~TstringID() {
    delete[] str;
}

void TstringID::init(const char* s) {
    const std::size_t size = s == nullptr ? 1 : std::strlen(s) + 1;
    char* const copy = new char[size]();
    if (s != nullptr) {
        std::memcpy(copy, s, size);
    }
    delete[] str;
    str = copy;
}

int TstringID::val_comp(const TypifiedID& other) const {
    return std::strcmp(static_cast<const TstringID&>(other).str, str);
}

void TstringID::dump() const {}
