#include "lib/pki/openssh.h"

#include <array>
#include <cstdint>
#include <initializer_list>
#include <string_view>
#include <utility>

#include <fmt/format.h>

#include "lib/base/error.h"
#include "lib/base/printable.h"
#include "lib/pki/made.h"
#include "lib/pki/ossl.h"
#include "lib/pki/pkcs8.h"
#include "lib/pki/secret_key.h"

namespace fstore {
namespace {

using Bytes = std::span<const unsigned char>;
using SecretNumber = ossl::Owner<BIGNUM, BN_clear_free>;

[[noreturn]] void failDamagedSsh() {
    throw Failure(kMalformed, "the OpenSSH key is damaged");
}

std::string_view sshText(Bytes bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// The fields of such a key, one after the other.
class SshFields {
public:
    explicit SshFields(Bytes bytes) : rest_(bytes) {}

    Bytes take(std::size_t count) {
        if (count > rest_.size()) {
            failDamagedSsh();
        }
        const Bytes taken = rest_.first(count);
        rest_ = rest_.subspan(count);
        return taken;
    }
    std::uint32_t number() {
        std::uint32_t value = 0;
        for (const unsigned char byte : take(sizeof value)) {
            value = value << 8 | byte;
        }
        return value;
    }
    Bytes string() { return take(number()); }
    std::string_view text() { return sshText(string()); }

private:
    Bytes rest_;
};

SecretNumber bigNumberOf(Bytes bytes) {
    return made(SecretNumber(BN_bin2bn(bytes.data(), static_cast<int>(bytes.size()), nullptr)));
}

// A value of DER.
SecretBytes derOf(unsigned char tag, const SecretBytes& value) {
    SecretBytes der = {tag};
    if (value.size() < 0x80) {
        der.push_back(static_cast<unsigned char>(value.size()));
    } else {
        der.push_back(0x82);  // two bytes of length: no key that is accepted has more
        der.push_back(static_cast<unsigned char>(value.size() >> 8));
        der.push_back(static_cast<unsigned char>(value.size()));
    }
    der.insert(der.end(), value.begin(), value.end());
    return der;
}

SecretBytes joinedDer(std::initializer_list<SecretBytes> values) {
    SecretBytes all;
    for (const SecretBytes& value : values) {
        all.insert(all.end(), value.begin(), value.end());
    }
    return all;
}

constexpr unsigned char kSequence = 0x30, kInteger = 0x02, kOctets = 0x04, kParameters = 0xA0;

SecretBytes derInteger(const BIGNUM* number) {
    // A zero in front, so that none looks negative.
    SecretBytes bytes(static_cast<std::size_t>(BN_num_bytes(number)) + 1);
    (void)BN_bn2bin(number, bytes.data() + 1);
    const bool needsZero = bytes.size() == 1 || (bytes[1] & 0x80) != 0;
    return derOf(kInteger, needsZero ? bytes : SecretBytes(bytes.begin() + 1, bytes.end()));
}

SecretBytes pkcs8FromDer(const SecretBytes& der) {
    auto key = keyFromPlain(der);
    if (!key) {
        failDamagedSsh();
    }
    return std::move(*key);
}

// d modulo p - 1
SecretNumber exponentFor(const BIGNUM* d, const BIGNUM* prime) {
    using Context = ossl::Owner<BN_CTX, BN_CTX_free>;
    const Context context = made(Context(BN_CTX_secure_new()));
    const SecretNumber less = made(SecretNumber(BN_dup(prime)));
    SecretNumber result = made(SecretNumber(BN_new()));
    if (BN_sub_word(less.get(), 1) != 1 || BN_is_zero(less.get()) ||
        BN_mod(result.get(), d, less.get(), context.get()) != 1) {
        failDamagedSsh();
    }
    return result;
}

SecretBytes rsaKey(SshFields& fields) {
    constexpr std::size_t kNumbers = 6;
    std::array<SecretNumber, kNumbers> numbers;
    for (SecretNumber& number : numbers) {
        const Bytes bytes = fields.string();
        if (bytes.size() > kMostKeyBits / 8 + 1) {
            failDamagedSsh();
        }
        number = bigNumberOf(bytes);
    }
    const auto& [n, e, d, inverse, p, q] = numbers;
    const SecretNumber zero = bigNumberOf({});
    return pkcs8FromDer(derOf(
        kSequence,
        joinedDer({derInteger(zero.get()), derInteger(n.get()), derInteger(e.get()),
                   derInteger(d.get()), derInteger(p.get()), derInteger(q.get()),
                   derInteger(exponentFor(d.get(), p.get()).get()),
                   derInteger(exponentFor(d.get(), q.get()).get()), derInteger(inverse.get())})));
}

SecretBytes ecKey(SshFields& fields) {
    const std::string_view curve = fields.text();
    (void)fields.string();  // the public key, which follows from the private one
    Bytes secret = fields.string();
    const int group = curve == "nistp256"   ? NID_X9_62_prime256v1
                      : curve == "nistp384" ? NID_secp384r1
                      : curve == "nistp521" ? NID_secp521r1
                                            : NID_undef;
    if (group == NID_undef) {
        failDamagedSsh();
    }
    const SecretBytes identifier = ossl::encoded<i2d_ASN1_OBJECT>(OBJ_nid2obj(group));
    while (!secret.empty() && secret.front() == 0) {
        secret = secret.subspan(1);
    }
    constexpr std::size_t kLongest = 66;
    if (secret.empty() || secret.size() > kLongest) {
        failDamagedSsh();
    }
    return pkcs8FromDer(
        derOf(kSequence, joinedDer({{kInteger, 1, 1},
                                    derOf(kOctets, SecretBytes(secret.begin(), secret.end())),
                                    derOf(kParameters, identifier)})));
}

SecretBytes ed25519Key(SshFields& fields) {
    constexpr std::size_t kSeed = 32;
    (void)fields.string();
    const Bytes pair = fields.string();
    if (pair.size() != 2 * kSeed) {
        failDamagedSsh();
    }
    const ossl::Pkey key(
        EVP_PKEY_new_raw_private_key(EVP_PKEY_ED25519, nullptr, pair.data(), kSeed));
    if (key == nullptr) {
        failDamagedSsh();
    }
    return pkcs8Of(*key);
}

SecretBytes keyOfSshType(std::string_view type, SshFields& fields) {
    if (type == "ssh-rsa") {
        return rsaKey(fields);
    }
    if (type.starts_with("ecdsa-sha2-")) {
        return ecKey(fields);
    }
    if (type == "ssh-ed25519") {
        return ed25519Key(fields);
    }
    if (type == "ssh-dss") {
        throw Failure(kMalformed,
                      "a DSA key in OpenSSH's format; on a copy of the file, `ssh-keygen -p -m PEM "
                      "-N '' -f COPY` converts it");
    }
    constexpr std::size_t kShown = 60;
    throw Failure(kMalformed, fmt::format("an OpenSSH key of type {} cannot be imported",
                                          clipped(printable(type), kShown)));
}

}  // namespace

SecretBytes keyFromOpenSsh(Bytes contents, std::string& label) {
    using namespace std::string_view_literals;
    constexpr std::string_view kMagic = "openssh-key-v1\0"sv;
    const ossl::QuietErrors quiet;
    SshFields fields(contents);
    if (sshText(fields.take(kMagic.size())) != kMagic) {
        failDamagedSsh();
    }
    const bool isPlain = fields.text() == "none"sv;
    (void)fields.string();  // how the password is turned into a key
    (void)fields.string();
    const std::uint32_t keys = fields.number();
    (void)fields.string();  // the public key
    if (!isPlain) {
        throw Failure(kMalformed,
                      "an OpenSSH key with a password; on a copy of the file, `ssh-keygen -p -N '' "
                      "-f COPY` takes it off");
    }
    SshFields secret(fields.string());
    const std::uint32_t check = secret.number();
    if (keys != 1 || secret.number() != check) {
        failDamagedSsh();
    }
    const std::string_view type = secret.text();
    SecretBytes key = keyOfSshType(type, secret);
    label = secret.text();
    return key;
}

}  // namespace fstore
