// The password of an input file, and how much work trying it may cost.
#ifndef LIB_PKI_PASSWORD_H
#define LIB_PKI_PASSWORD_H

#include <cstdint>

#include <openssl/x509.h>

#include "lib/pki/part.h"

namespace fstore {

// The rounds that an algorithm takes to turn a password into a key; 0 for an unknown one,
// which OpenSSL then refuses.
std::uint64_t roundsOf(const X509_ALGOR& algorithm);

// The password of one file. Throws kMalformed when the attempts cost more than kMostIterations
// in all.
class FilePassword {
public:
    explicit FilePassword(const InputPassword& ask) : ask_(ask) {}
    FilePassword(const FilePassword&) = delete;
    FilePassword& operator=(const FilePassword&) = delete;

    // The user's password, for `rounds` rounds.
    const SecretText& get(std::uint64_t rounds);

    // The result of attempt(text, length) for the password that fits, or else null or false.
    // Tries the absent one, the empty one and the user's; once one has fitted, only that one.
    template <class Attempt>
    auto find(std::uint64_t rounds, Attempt attempt) {
        if (known_ == Known::kNothing) {
            for (const Known blank : {Known::kAbsent, Known::kEmpty}) {
                spend(rounds);
                if (auto opened = attempt(blank == Known::kAbsent ? nullptr : "", 0)) {
                    known_ = blank;
                    return opened;
                }
            }
        } else if (known_ != Known::kUsers) {
            spend(rounds);
            return attempt(known_ == Known::kAbsent ? nullptr : "", 0);
        }
        const SecretText& password = get(rounds);
        auto opened = attempt(password.c_str(), static_cast<int>(password.size()));
        if (opened) {
            known_ = Known::kUsers;
        }
        return opened;
    }

    // The same for a key that stands alone: of several in a file each may have the empty password
    // or the user's. The empty one is tried if that takes little time.
    template <class Attempt>
    auto findForKey(std::uint64_t rounds, Attempt attempt) {
        if (rounds <= leftForEmpty_) {
            leftForEmpty_ -= rounds;
            if (auto opened = attempt("", 0)) {
                return opened;
            }
        }
        const SecretText& password = get(rounds);
        return attempt(password.c_str(), static_cast<int>(password.size()));
    }

private:
    // A second of work, and more than the keys of cautious programs take.
    static constexpr std::uint64_t kMostForEmpty = 1'000'000;

    enum class Known { kNothing, kAbsent, kEmpty, kUsers };

    void spend(std::uint64_t rounds);

    const InputPassword& ask_;
    Known known_ = Known::kNothing;
    std::uint64_t left_ = kMostIterations;
    std::uint64_t leftForEmpty_ = kMostForEmpty;
};

}  // namespace fstore

#endif  // LIB_PKI_PASSWORD_H
