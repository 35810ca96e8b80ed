// A program with a fault, to see that what watches memory sees it: `loses leak|read|nothing FILE`
// reads the key of a PEM file, then loses it, reads from what it has freed, or does neither.
#include <cstdio>
#include <string>

#include <openssl/pem.h>

namespace {

EVP_PKEY* loadKey(const char* path) {
    BIO* const file = BIO_new_file(path, "r");
    EVP_PKEY* const key = PEM_read_bio_PrivateKey(file, nullptr, nullptr, nullptr);
    BIO_free(file);
    return key;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string fault = argc == 3 ? argv[1] : "";
    EVP_PKEY* const key = argc == 3 ? loadKey(argv[2]) : nullptr;
    if (key == nullptr) {
        return 1;
    }
    for (int i = 0; fault == "leak" && i < 10; ++i) {
        (void)loadKey(argv[2]);  // of one, a copy of its address may be left somewhere
    }
    unsigned char* der = nullptr;
    const int size = i2d_PrivateKey(key, &der);
    EVP_PKEY_free(key);
    OPENSSL_free(der);
    if (fault == "read" && size > 0) {
        std::printf("%d\n", der[0]);
    }
    return 0;
}
