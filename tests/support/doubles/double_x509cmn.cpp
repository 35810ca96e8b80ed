#include "tests/support/doubles/double_x509cmn.h"

#include <fstream>
#include <iterator>
#include <utility>

#include "cmn/no_throw.h"

namespace {

// Null is told as no bytes, which is what it stands for.
std::string_view view(const unsigned char* data, unsigned int len) {
    return data == nullptr ? std::string_view()
                           : std::string_view(reinterpret_cast<const char*>(data), len);
}

bool isMissing(const unsigned char* data, unsigned int len) {
    return data == nullptr && len != 0;
}

// As the service promises, want of memory is a status.
template <class Change>
Status put(Change change) {
    return noThrow([&] {
        change();
        return kOk;
    });
}

}  // namespace

// A buffer of another module is told by what it holds as well; doubles are looked
// into, as asking them would be recorded.
std::string bytesOf(TBuf* buf) {
    if (buf == nullptr) {
        return {};
    }
    if (const auto* const ours = dynamic_cast<const DoubleBuf*>(buf)) {
        return ours->bytes();
    }
    return std::string(view(buf->data(), buf->length()));
}

std::string tell(TBuf* buf) {
    return buf == nullptr ? "no buffer" : "buffer " + bytesOf(buf);
}

DoubleBuf::DoubleBuf(Watch watch, std::string bytes)
    : TBuf(kType), Watched(std::move(watch)), bytes_(std::move(bytes)) {}

unsigned int DoubleBuf::capacity() const {
    (void)watch_->called(*this, "capacity");
    return static_cast<unsigned int>(bytes_.capacity());
}

Status DoubleBuf::clear() {
    if (const Status s = watch_->called(*this, "clear"); s != kOk) {
        return s;
    }
    bytes_.clear();
    return kOk;
}

Status DoubleBuf::set(const char* s) {
    if (const Status told = watch_->called(*this, "set", s); told != kOk) {
        return told;
    }
    if (s == nullptr) {
        return kInvalid;
    }
    return put([&] { bytes_.assign(s); });
}

Status DoubleBuf::set(const unsigned char* data, unsigned int len) {
    if (const Status told = watch_->called(*this, "set", view(data, len)); told != kOk) {
        return told;
    }
    if (isMissing(data, len)) {
        return kInvalid;
    }
    return put([&] { bytes_.assign(view(data, len)); });
}

Status DoubleBuf::append(const unsigned char* data, unsigned int len) {
    if (const Status told = watch_->called(*this, "append", view(data, len)); told != kOk) {
        return told;
    }
    if (isMissing(data, len)) {
        return kInvalid;
    }
    return put([&] { bytes_.append(view(data, len)); });
}

unsigned char* DoubleBuf::data() {
    (void)watch_->called(*this, "data");
    return reinterpret_cast<unsigned char*>(bytes_.data());
}

unsigned int DoubleBuf::length() const {
    (void)watch_->called(*this, "length");
    return static_cast<unsigned int>(bytes_.size());
}

Status DoubleBuf::duplicate(TBuf* other) {
    if (const Status told = watch_->called(*this, "duplicate", other); told != kOk) {
        return told;
    }
    if (other == nullptr) {
        return kInvalid;
    }
    return put([&] { bytes_ = bytesOf(other); });
}

Status DoubleBuf::append(TBuf* other) {
    if (const Status told = watch_->called(*this, "append", other); told != kOk) {
        return told;
    }
    if (other == nullptr) {
        return kInvalid;
    }
    return put([&] { bytes_ += bytesOf(other); });
}

int DoubleBuf::compare(TBuf* other) {
    (void)watch_->called(*this, "compare", other);
    return other != nullptr && bytes_ == bytesOf(other) ? 0 : 1;
}

Status DoubleBuf::load(const char* path) {
    if (const Status told = watch_->called(*this, "load", path); told != kOk) {
        return told;
    }
    if (path == nullptr) {
        return kInvalid;
    }
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        return kMissing;
    }
    bytes_.assign(std::istreambuf_iterator<char>(file), {});
    return kOk;
}

Status DoubleBuf::save(const char* path) {
    if (const Status told = watch_->called(*this, "save", path); told != kOk) {
        return told;
    }
    if (path == nullptr) {
        return kInvalid;
    }
    std::ofstream file(path, std::ios::binary);
    file.write(bytes_.data(), static_cast<std::streamsize>(bytes_.size()));
    return file.flush() ? kOk : kIo;
}

Status DoubleBuf::shift(unsigned int n) {
    if (const Status told = watch_->called(*this, "shift", n); told != kOk) {
        return told;
    }
    if (n > bytes_.size()) {
        return kInvalid;
    }
    bytes_.erase(0, n);
    return kOk;
}

Status DoubleBuf::retreat(unsigned int n) {
    if (const Status told = watch_->called(*this, "retreat", n); told != kOk) {
        return told;
    }
    if (n > bytes_.size()) {
        return kInvalid;
    }
    bytes_.resize(bytes_.size() - n);
    return kOk;
}

DoubleX509Cmn::DoubleX509Cmn(unsigned int objectType)
    : X509CmnSrv_I(objectType), Watched(std::make_shared<CallWatch>()) {}

// A new buffer of what `bytes` gives; null when memory is short.
template <class Bytes>
TBuf* DoubleX509Cmn::make(Bytes bytes) {
    TBuf* made = nullptr;
    (void)noThrow([&] {
        made = new DoubleBuf(watch_, bytes());
        return kOk;
    });
    return made;
}

TBuf* DoubleX509Cmn::createTBuf() {
    const bool fails = watch_->called(*this, "createTBuf") != kOk;
    return fails ? nullptr : make([] { return std::string(); });
}

TBuf* DoubleX509Cmn::createTBuf(const char* s) {
    const bool fails = watch_->called(*this, "createTBuf", s) != kOk || s == nullptr;
    return fails ? nullptr : make([&] { return std::string(s); });
}

TBuf* DoubleX509Cmn::createTBuf(const unsigned char* data, unsigned int len) {
    const bool fails =
        watch_->called(*this, "createTBuf", view(data, len)) != kOk || isMissing(data, len);
    return fails ? nullptr : make([&] { return std::string(view(data, len)); });
}

TBuf* DoubleX509Cmn::createTBuf(TBuf* src) {
    const bool fails = watch_->called(*this, "createTBuf", src) != kOk || src == nullptr;
    return fails ? nullptr : make([&] { return bytesOf(src); });
}
