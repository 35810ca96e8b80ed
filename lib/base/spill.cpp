#include "lib/base/spill.h"

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <utility>

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include "lib/base/error.h"
#include "os/files.h"
#include "os/fs.h"
#include "os/handles.h"
#include "os/process.h"
#include "ossl/owner.h"

namespace fstore {
namespace {

constexpr std::size_t kCipherKey = 32;
constexpr std::size_t kCipherBlock = 16;
constexpr mode_t kForOwner = 0600;

os::File openUnnamed() {
    const char* const asked = ::secure_getenv("TMPDIR");
    const char* const folder = asked != nullptr && *asked == '/' ? asked : "/tmp";
    return os::openFile(folder, O_TMPFILE | O_RDWR | O_EXCL, kForOwner);
}

[[noreturn]] void failToRead() {
    throw Failure(kIo, "cannot read back what was kept in a temporary file");
}

}  // namespace

// Each piece has its place, and its own part of the cipher's counter.
class Spill::File {
public:
    // None where there can be none.
    static std::unique_ptr<File> make() {
        auto made = std::make_unique<File>();
        made->file_ = openUnnamed();
        const bool isGood = made->file_ && made->cipher_ != nullptr &&
                            RAND_priv_bytes(made->key_.data(), static_cast<int>(kCipherKey)) == 1;
        return isGood ? std::move(made) : nullptr;
    }

    File() = default;
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    ~File() { OPENSSL_cleanse(key_.data(), key_.size()); }

    // False when the file cannot have it.
    bool write(std::size_t index, const std::string& piece) {
        const std::string encrypted = crypt(index, piece);
        const os::QuietWrites quiet;
        std::size_t done = 0;
        while (done < encrypted.size()) {
            const ssize_t stored = os::pwrite(file_.get(), encrypted.data() + done,
                                              encrypted.size() - done, placeOf(index, done));
            if (stored <= 0) {
                return false;
            }
            done += static_cast<std::size_t>(stored);
        }
        return true;
    }

    std::string read(std::size_t index) {
        std::string encrypted(kPiece, '\0');
        std::size_t done = 0;
        while (done < kPiece) {
            const ssize_t got = os::pread(file_.get(), encrypted.data() + done, kPiece - done,
                                          placeOf(index, done));
            if (got <= 0) {
                failToRead();
            }
            done += static_cast<std::size_t>(got);
        }
        return crypt(index, encrypted);
    }

private:
    static off_t placeOf(std::size_t index, std::size_t done) {
        return static_cast<off_t>(index * kPiece + done);
    }

    // Both ways.
    std::string crypt(std::size_t index, const std::string& text) {
        std::array<unsigned char, kCipherBlock> counter{};
        std::uint64_t block = std::uint64_t{index} * (kPiece / kCipherBlock);
        for (auto byte = counter.rbegin(); block != 0; ++byte, block >>= 8) {
            *byte = static_cast<unsigned char>(block);
        }
        std::string made(text.size(), '\0');
        int size = 0;
        const bool done =
            EVP_CipherInit_ex2(context_.get(), cipher_.get(), key_.data(), counter.data(), 1,
                               nullptr) == 1 &&
            EVP_CipherUpdate(context_.get(), reinterpret_cast<unsigned char*>(made.data()), &size,
                             reinterpret_cast<const unsigned char*>(text.data()),
                             static_cast<int>(text.size())) == 1;
        if (!done) {
            failToRead();
        }
        return made;
    }

    os::File file_;
    std::array<unsigned char, kCipherKey> key_{};
    ossl::Owner<EVP_CIPHER, EVP_CIPHER_free> cipher_{
        EVP_CIPHER_fetch(nullptr, "AES-256-CTR", nullptr)};
    ossl::Owner<EVP_CIPHER_CTX, EVP_CIPHER_CTX_free> context_{EVP_CIPHER_CTX_new()};
};

Spill::Spill() = default;
Spill::Spill(Spill&&) noexcept = default;
Spill& Spill::operator=(Spill&&) noexcept = default;
Spill::~Spill() = default;

void Spill::add(std::string_view text) {
    while (last_.size() + text.size() >= kPiece) {
        const std::size_t fits = kPiece - last_.size();
        last_ += text.substr(0, fits);
        text.remove_prefix(fits);
        keep(std::exchange(last_, {}));
    }
    last_ += text;
}

void Spill::clear() {
    *this = Spill();
}

void Spill::keep(std::string piece) {
    const std::size_t index = pieces_.size();
    if (index >= kPiecesInMemory && !hasNoFile_) {
        if (!file_) {
            file_ = File::make();
        }
        if (file_ && file_->write(index, piece)) {
            pieces_.emplace_back();
            return;
        }
        hasNoFile_ = true;
    }
    pieces_.push_back(std::move(piece));
}

std::string Spill::pieceAt(std::size_t index) const {
    if (index >= pieces_.size()) {
        return last_;
    }
    return pieces_[index].empty() ? file_->read(index) : pieces_[index];
}

Spill::Reader::Reader(const Spill& spill, std::uint64_t from)
    : spill_(&spill),
      piece_(static_cast<std::size_t>(from / kPiece)),
      skipped_(static_cast<std::size_t>(from % kPiece)) {}

std::string_view Spill::Reader::next() {
    if (left_.empty() && piece_ <= spill_->pieces_.size()) {
        text_ = spill_->pieceAt(piece_++);
        left_ = std::string_view(text_).substr(std::exchange(skipped_, 0));
    }
    return std::exchange(left_, {});
}

std::string Spill::Reader::take(std::size_t size) {
    std::string taken;
    while (taken.size() < size) {
        const std::string_view found = next();
        if (found.empty()) {
            failToRead();
        }
        const std::size_t wanted = std::min(size - taken.size(), found.size());
        taken += found.substr(0, wanted);
        left_ = found.substr(wanted);
    }
    return taken;
}

}  // namespace fstore
