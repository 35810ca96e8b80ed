// SPDX-License-Identifier: Apache-2.0
// Identifiers of modules and services, and of the modules that holders live in.
//
// An identifier is a 32-bit number or a character string. Identifiers are
// immutable once built, so any thread may compare them.
//
// The order of the virtual operations is a binary contract between modules.
#ifndef CMN_ID_TYPE_H
#define CMN_ID_TYPE_H

#include "cmn/export.h"

class CMN_EXPORT TypifiedID {
public:
    using IDType_t = unsigned int;
    static constexpr IDType_t kNumber = 0;
    static constexpr IDType_t kString = 1;

    constexpr explicit TypifiedID(IDType_t kind) noexcept : type(kind) {}
    constexpr TypifiedID(const TypifiedID&) noexcept = default;
    TypifiedID& operator=(const TypifiedID&) = delete;

    constexpr virtual ~TypifiedID() = default;

    constexpr IDType_t kind() const noexcept { return type; }

    // Compares the values of two identifiers of the same kind; the caller has
    // checked the kinds. The sign is that of (other - this).
    virtual int val_comp(const TypifiedID& other) const = 0;

    // A hook for diagnostics; prints nothing.
    virtual void dump() const = 0;

    // Identifiers of different kinds are never equal; their values are not looked at.
    bool operator==(const TypifiedID& other) const {
        return type == other.type && val_comp(other) == 0;
    }

private:
    IDType_t type;
};

class CMN_EXPORT Tuint32ID : public TypifiedID {
public:
    constexpr explicit Tuint32ID(unsigned int value) noexcept : TypifiedID(kNumber), val(value) {}
    constexpr Tuint32ID(const Tuint32ID&) noexcept = default;
    constexpr ~Tuint32ID() override = default;

    constexpr unsigned int value() const noexcept { return val; }

    // Unsigned: -1 when the other value is smaller, 0 when equal, 1 when greater.
    int val_comp(const TypifiedID& other) const override;
    void dump() const override;

private:
    unsigned int val;
};

class CMN_EXPORT TstringID : public TypifiedID {
public:
    // Copies the text; null counts as the empty text.
    explicit TstringID(const char* s);
    TstringID(const TstringID& other);
    ~TstringID() override;

    const char* text() const noexcept { return str; }

    // Replaces the text by a copy of `s`, or by the empty text when `s` is null.
    void init(const char* s);

    // The sign of strcmp(other's text, this text).
    int val_comp(const TypifiedID& other) const override;
    void dump() const override;

private:
    char* str = nullptr;
};

// The identifiers of this module and of the modules that it calls.
extern Tuint32ID ModuleID;           // each module defines its own value
extern const TypifiedID* pModuleID;  // &ModuleID; every holder records it

#endif  // CMN_ID_TYPE_H
