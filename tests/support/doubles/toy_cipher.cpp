#include "tests/support/doubles/toy_cipher.h"

#include <algorithm>

namespace toy {
namespace {

constexpr char kVersion = 1;

// FNV-1a to take bytes in, SplitMix64 to give numbers out. Taking in is one-to-one
// in each byte, so that a single damaged byte always changes what comes out.
class Mixer {
public:
    explicit Mixer(std::uint64_t lane) { take(lane); }

    // Takes the length as well: "ab","c" is not "a","bc".
    void take(std::string_view bytes) {
        take(std::uint64_t{bytes.size()});
        takePiece(bytes);
    }

    // Of something whose length was taken before.
    void takePiece(std::string_view bytes) {
        for (const char byte : bytes) {
            takeByte(static_cast<unsigned char>(byte));
        }
    }

    void take(std::uint64_t number) {
        for (int shift = 0; shift < 64; shift += 8) {
            takeByte(number >> shift & 0xff);
        }
    }

    std::uint64_t next() {
        state_ += 0x9e3779b97f4a7c15;
        std::uint64_t z = state_;
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9;
        z = (z ^ (z >> 27)) * 0x94d049bb133111eb;
        return z ^ (z >> 31);
    }

private:
    void takeByte(std::uint64_t byte) { state_ = (state_ ^ byte) * 0x100000001b3; }

    std::uint64_t state_ = 0xcbf29ce484222325;
};

// Adds the stream of `mixer` to the bytes; doing it twice undoes it.
void addStream(Mixer& mixer, std::string& bytes) {
    std::uint64_t word = 0;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        word = i % 8 == 0 ? mixer.next() : word >> 8;
        bytes[i] = static_cast<char>(bytes[i] ^ static_cast<char>(word & 0xff));
    }
}

std::string stream(Mixer& mixer, std::size_t size) {
    std::string bytes(size, '\0');
    addStream(mixer, bytes);
    return bytes;
}

std::string nonceBytes(std::uint64_t nonce) {
    std::string bytes(kNonceSize, '\0');
    for (std::size_t i = 0; i < 8; ++i) {
        bytes[i] = static_cast<char>(nonce >> (8 * i) & 0xff);
    }
    return bytes;
}

std::string crypt(std::string_view key, std::string_view nonce, std::string_view text) {
    Mixer mixer(1);
    mixer.take(key);
    mixer.take(nonce);
    std::string out(text);
    addStream(mixer, out);
    return out;
}

void addNumber(std::string& image, std::uint64_t number) {
    for (int shift = 0; shift < 64; shift += 8) {
        image += static_cast<char>(number >> shift & 0xff);
    }
}

}  // namespace

std::string Parameters::image() const {
    std::string image;
    for (const std::uint64_t number :
         {std::uint64_t{iterations}, std::uint64_t{length}, std::uint64_t{firstAlg},
          std::uint64_t{secondAlg}, std::uint64_t{purpose}, std::uint64_t{salt.size()}}) {
        addNumber(image, number);
    }
    return image + salt + password;
}

std::string derive(const Parameters& parameters) {
    Mixer mixer(2);
    mixer.take(parameters.image());
    return stream(mixer, parameters.length);
}

std::string tag(std::string_view key, std::string_view data) {
    std::string both;
    for (const std::uint64_t lane : {3U, 4U}) {
        Mixer mixer(lane);
        mixer.take(key);
        mixer.take(data);
        both += stream(mixer, kTagSize / 2);
    }
    return both;
}

std::string seal(std::string_view key, std::uint64_t nonce, std::string_view plain) {
    const std::string bytes = nonceBytes(nonce);
    const std::string sealed = kVersion + bytes + crypt(key, bytes, plain);
    return sealed + tag(key, sealed);
}

void sealZeros(std::string_view key, std::uint64_t nonce, std::uint64_t size,
               const std::function<void(std::string_view)>& write) {
    const std::string bytes = nonceBytes(nonce);
    Mixer cipher(1);
    cipher.take(key);
    cipher.take(bytes);
    Mixer lanes[] = {Mixer(3), Mixer(4)};
    for (Mixer& lane : lanes) {
        lane.take(key);
        lane.take(std::uint64_t{1 + kNonceSize} + size);
    }
    const auto writeTagged = [&](std::string_view piece) {
        for (Mixer& lane : lanes) {
            lane.takePiece(piece);
        }
        write(piece);
    };
    writeTagged(kVersion + bytes);
    constexpr std::uint64_t kPiece = std::uint64_t{1} << 16;  // whole words of the stream
    for (std::uint64_t done = 0; done < size; done += kPiece) {
        std::string piece(static_cast<std::size_t>(std::min(kPiece, size - done)), '\0');
        addStream(cipher, piece);
        writeTagged(piece);
    }
    for (Mixer& lane : lanes) {
        write(stream(lane, kTagSize / 2));
    }
}

std::optional<std::string> open(std::string_view key, std::string_view sealed) {
    if (sealed.size() < kOverhead || sealed.front() != kVersion) {
        return std::nullopt;
    }
    const std::string_view body = sealed.substr(0, sealed.size() - kTagSize);
    if (tag(key, body) != sealed.substr(body.size())) {
        return std::nullopt;
    }
    return crypt(key, body.substr(1, kNonceSize), body.substr(1 + kNonceSize));
}

}  // namespace toy
