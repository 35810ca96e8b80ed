#include "cmn/id_type.h"

#include <cstring>

constinit TypifiedID const* pModuleID = &ModuleID;

int Tuint32ID::val_comp(TypifiedID const& other) const {
    const unsigned int theirs = static_cast<Tuint32ID const&>(other).val;
    if (theirs == val) {
        return 0;
    }
    return theirs < val ? -1 : 1;
}

void Tuint32ID::dump() const {}

TstringID::TstringID(char const* s) : TypifiedID(kString) { init(s); }

TstringID::TstringID(TstringID const& other) : TypifiedID(other) { init(other.str); }

TstringID::~TstringID() { delete[] str; }

void TstringID::init(char const* s) {
    const std::size_t size = s == nullptr ? 1 : std::strlen(s) + 1;
    char* const copy = new char[size]();
    if (s != nullptr) {
        std::memcpy(copy, s, size);
    }
    delete[] str;
    str = copy;
}

int TstringID::val_comp(TypifiedID const& other) const {
    return std::strcmp(static_cast<TstringID const&>(other).str, str);
}

void TstringID::dump() const {}
