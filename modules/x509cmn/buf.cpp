#include "modules/x509cmn/buf.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "cmn/no_throw.h"
#include "modules/x509cmn/whole_file.h"

namespace {

constexpr unsigned int kMost = std::numeric_limits<unsigned int>::max();

// What the operations without memory of their own point at.
constinit unsigned char nothing = 0;

}  // namespace

unsigned int Buf::capacity() const {
    return static_cast<unsigned int>(std::min<std::size_t>(bytes_.capacity(), kMost));
}

Status Buf::clear() {
    bytes_.clear();
    return kOk;
}

Status Buf::assign(std::span<const unsigned char> bytes) noexcept {
    return bytes.size() <= kMost && bytes_.assign(bytes) ? kOk : kNoMemory;
}

Status Buf::set(const char* s) {
    if (s == nullptr) {
        return kInvalid;
    }
    return assign({reinterpret_cast<const unsigned char*>(s), std::strlen(s)});
}

Status Buf::set(const unsigned char* data, unsigned int len) {
    return data == nullptr && len != 0 ? kInvalid : assign({data, len});
}

Status Buf::append(const unsigned char* data, unsigned int len) {
    if (data == nullptr && len != 0) {
        return kInvalid;
    }
    return len <= kMost - length() && bytes_.append({data, len}) ? kOk : kNoMemory;
}

unsigned char* Buf::data() {
    return bytes_.data() == nullptr ? &nothing : bytes_.data();
}

unsigned int Buf::length() const {
    return static_cast<unsigned int>(bytes_.size());
}

Status Buf::duplicate(TBuf* other) {
    return other == nullptr ? kInvalid : set(other->data(), other->length());
}

Status Buf::append(TBuf* other) {
    return other == nullptr ? kInvalid : append(other->data(), other->length());
}

// Every byte is looked at, whatever the earlier ones were.
int Buf::compare(TBuf* other) {
    if (other == nullptr || other->length() != length()) {
        return 1;
    }
    const unsigned char* const theirs = other->data();
    const unsigned char* const ours = data();
    unsigned int difference = 0;
    for (std::size_t i = 0; i != bytes_.size(); ++i) {
        difference |= static_cast<unsigned int>(ours[i] ^ theirs[i]);
    }
    return difference != 0 ? 1 : 0;
}

Status Buf::load(const char* path) {
    return path == nullptr ? kInvalid : loadWhole(path, kMost, bytes_);
}

Status Buf::save(const char* path) {
    if (path == nullptr) {
        return kInvalid;
    }
    return noThrow([&] { return saveWhole(path, bytes_.view()); });
}

Status Buf::shift(unsigned int bytes) {
    if (bytes > length()) {
        return kInvalid;
    }
    bytes_.dropFront(bytes);
    return kOk;
}

Status Buf::retreat(unsigned int bytes) {
    if (bytes > length()) {
        return kInvalid;
    }
    bytes_.dropBack(bytes);
    return kOk;
}
