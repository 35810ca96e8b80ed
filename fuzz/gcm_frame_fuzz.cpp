// Any message, and any bytes in a frame's place: what was encrypted decrypts to
// itself, and not when any byte of the frame is another, missing or too many.
#include <memory>
#include <string>

#include "client/cmn_abuf.h"
#include "fuzz/input.h"
#include "modules/common/gcm_frame.h"
#include "tests/support/doubles/double_services.h"

namespace {

std::span<const unsigned char> view(const std::string& bytes) {
    return {reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size()};
}

Status decrypt(const GcmFrame& cipher, const std::string& frame, std::string& plain) {
    aBuf into("");
    const Status status = cipher.decrypt(view(frame), *into.target());
    plain.assign(reinterpret_cast<const char*>(into.datap()), into.len());
    require(status == kOk || plain.empty());
    return status;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const DoubleServices services;  // which remember each call
    Input input(data, size);
    constexpr std::size_t kSizes[] = {16, 24, 32};
    std::string key = input.bytes();
    const bool isKey = GcmFrame::isKeySize(key.size());
    std::unique_ptr<GcmFrame> cipher;
    require(GcmFrame::make(view(key), cipher) == (isKey ? kOk : kInvalid));
    if (!isKey) {
        key.resize(kSizes[key.size() % 3]);
        require(GcmFrame::make(view(key), cipher) == kOk);
    }
    const std::size_t place = input.byte();
    const auto change = static_cast<char>(input.byte() | 1);
    const std::string message = input.rest();
    std::string plain;
    const Status status = decrypt(*cipher, message, plain);
    require(status == kIo || status == kMalformed);  // nobody but us has the key

    aBuf encrypted("");
    require(cipher->encrypt(view(message), *encrypted.target()) == kOk);
    std::string frame(reinterpret_cast<const char*>(encrypted.datap()), encrypted.len());
    require(frame.size() == message.size() + GcmFrame::kOverhead);
    require(decrypt(*cipher, frame, plain) == kOk && plain == message);
    require(decrypt(*cipher, frame + 'x', plain) != kOk);
    require(decrypt(*cipher, frame.substr(0, place % frame.size()), plain) != kOk);
    frame[place % frame.size()] = static_cast<char>(frame[place % frame.size()] ^ change);
    require(decrypt(*cipher, frame, plain) != kOk);
    return 0;
}
