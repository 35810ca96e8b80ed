// A program that loads keys by way of OpenSSL as servers do: again and again, in children, in
// several library contexts, and with the provider unloaded in between.
//
//     loads repeat COUNT FILE    the key of a PEM file so often; not one byte of the heap stays
//     loads load FILE            once
//     loads forks COUNT FILE     in eight threads, of a process that forks all the time
//     loads unload COUNT FILE    in eight threads, each in library contexts that come and go
//     loads fork FILE            in the parent, then in two generations of children
//     loads contexts COUNT FILE  in so many library contexts, each with the provider
//     loads threads COUNT FILE   in eight threads, COUNT times each
//     loads search URI FILE ALIAS  the certificate of a file in a folder, in each way
//     loads newer URI            the certificate of a pair, by the entry point of OpenSSL 3.2 and
//                                later
//
// OPENSSL_CONF has the provider. Says what went wrong, and ends with 1.
#include <dirent.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <openssl/core_dispatch.h>
#include <openssl/core_names.h>
#include <openssl/core_object.h>
#include <openssl/decoder.h>
#include <openssl/err.h>
#include <openssl/params.h>
#include <openssl/pem.h>
#include <openssl/provider.h>
#include <openssl/store.h>
#include <openssl/x509.h>

#include "tests/provider/counted_heap.h"

namespace {

[[noreturn]] void fail(const std::string& what) {
    std::printf("%s\n", what.c_str());
    ERR_print_errors_fp(stdout);
    std::exit(1);
}

void require(bool done, const std::string& what) {
    if (!done) {
        fail(what);
    }
}

void loadKey(const std::string& path, OSSL_LIB_CTX* context = nullptr) {
    BIO* const file = BIO_new_file(path.c_str(), "r");
    require(file != nullptr, "cannot open " + path);
    EVP_PKEY* const key =
        PEM_read_bio_PrivateKey_ex(file, nullptr, nullptr, nullptr, context, nullptr);
    BIO_free(file);
    require(key != nullptr, "no key in " + path);
    EVP_PKEY_free(key);
}

int openDescriptors() {
    DIR* const folder = opendir("/proc/self/fd");
    int count = 0;
    while (folder != nullptr && readdir(folder) != nullptr) {
        ++count;
    }
    closedir(folder);
    return count;
}

// The first loads fill caches, of libcrypto above all. Then no block and no descriptor may stay.
void repeat(int count, const std::string& path) {
    for (int i = 0; i < 10; ++i) {
        loadKey(path);
    }
    const counted::Heap before = counted::heap();
    const int descriptors = openDescriptors();
    for (int i = 0; i < count; ++i) {
        loadKey(path);
    }
    const counted::Heap after = counted::heap();
    require(after == before, std::to_string(after.blocks - before.blocks) + " blocks of " +
                                 std::to_string(after.bytes - before.bytes) + " bytes stay");
    require(openDescriptors() == descriptors, "a descriptor stays open");
}

int inChild(const std::function<void()>& work) {
    const pid_t child = fork();
    if (child == 0) {
        work();
        _exit(0);
    }
    int status = 0;
    return waitpid(child, &status, 0) == child ? status : -1;
}

void forks(const std::string& path) {
    loadKey(path);
    const int status = inChild([&] {
        loadKey(path);
        require(inChild([&] { loadKey(path); }) == 0, "a child of a child cannot load");
    });
    require(status == 0, "a child cannot load");
    loadKey(path);
}

void contexts(int count, const std::string& path) {
    const char* const configuration = std::getenv("OPENSSL_CONF");
    for (int i = 0; i < count; ++i) {
        OSSL_LIB_CTX* const one = OSSL_LIB_CTX_new();
        OSSL_LIB_CTX* const other = OSSL_LIB_CTX_new();
        require(OSSL_LIB_CTX_load_config(one, configuration) == 1 &&
                    OSSL_LIB_CTX_load_config(other, configuration) == 1,
                "configuration");
        loadKey(path, one);
        loadKey(path, other);
        OSSL_LIB_CTX_free(one);  // which unloads the provider
        loadKey(path, other);
        OSSL_LIB_CTX_free(other);
    }
}

void threads(int count, const std::string& path) {
    std::vector<std::thread> running;
    for (int i = 0; i < 8; ++i) {
        running.emplace_back([&] {
            for (int load = 0; load < count; ++load) {
                loadKey(path);
            }
        });
    }
    for (std::thread& thread : running) {
        thread.join();
    }
}

// A child of a process that was in the midst of a load may load nothing, but it ends, and so does
// its parent's load.
void forksDuringLoads(int count, const std::string& path) {
    std::atomic<bool> goesOn{true};
    std::thread forking([&] {
        while (goesOn) {
            const pid_t child = fork();
            if (child == 0) {
                _exit(0);
            }
            (void)waitpid(child, nullptr, 0);
        }
    });
    threads(count, path);
    goesOn = false;
    forking.join();
}

void unloadDuringLoads(int count, const std::string& path) {
    std::vector<std::thread> running;
    for (int i = 0; i < 8; ++i) {
        running.emplace_back([&] { contexts(count, path); });
    }
    for (std::thread& thread : running) {
        thread.join();
    }
}

// How many certificates the search finds in the folder.
int found(const std::string& uri, OSSL_STORE_SEARCH* search) {
    OSSL_STORE_CTX* const store = OSSL_STORE_open(uri.c_str(), nullptr, nullptr, nullptr, nullptr);
    require(store != nullptr && search != nullptr, "cannot open " + uri);
    require(
        OSSL_STORE_expect(store, OSSL_STORE_INFO_CERT) == 1 && OSSL_STORE_find(store, search) == 1,
        "cannot search " + uri);
    int count = 0;
    while (OSSL_STORE_eof(store) == 0) {
        OSSL_STORE_INFO* const info = OSSL_STORE_load(store);
        if (info != nullptr) {
            count += OSSL_STORE_INFO_get_type(info) == OSSL_STORE_INFO_CERT ? 1 : 0;
            OSSL_STORE_INFO_free(info);
        }
    }
    OSSL_STORE_close(store);
    OSSL_STORE_SEARCH_free(search);
    return count;
}

void searchFor(const std::string& uri, const std::string& path, const std::string& alias) {
    BIO* const file = BIO_new_file(path.c_str(), "r");
    X509* const certificate = PEM_read_bio_X509(file, nullptr, nullptr, nullptr);
    require(certificate != nullptr, "no certificate in " + path);
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    require(X509_pubkey_digest(certificate, EVP_sha256(), digest, &size) == 1 &&
                X509_digest(certificate, EVP_sha1(), digest, &size) == 1,
            "digest");
    X509_NAME* const subject = X509_get_subject_name(certificate);
    X509_NAME* const issuer = X509_get_issuer_name(certificate);
    ASN1_INTEGER* const serial = X509_get_serialNumber(certificate);
    require(found(uri, OSSL_STORE_SEARCH_by_name(subject)) == 1, "by subject");
    require(found(uri, OSSL_STORE_SEARCH_by_issuer_serial(issuer, serial)) == 1,
            "by issuer and serial number");
    require(found(uri, OSSL_STORE_SEARCH_by_key_fingerprint(EVP_sha1(), digest, size)) == 1,
            "by digest");
    require(found(uri, OSSL_STORE_SEARCH_by_alias(alias.c_str())) == 1, "by alias");
    require(found(uri, OSSL_STORE_SEARCH_by_alias("nothing")) == 0, "by an alias that is none");
    digest[0] = static_cast<unsigned char>(digest[0] ^ 1);
    require(found(uri, OSSL_STORE_SEARCH_by_key_fingerprint(EVP_sha1(), digest, size)) == 0,
            "by another digest");
    X509_free(certificate);
    BIO_free(file);
}

// As libcrypto sees the provider's tables, of which that of 3.0 does not use all.
const OSSL_DISPATCH* storeFunctions(OSSL_PROVIDER* provider) {
    int mayNotKeep = 0;
    const OSSL_ALGORITHM* const stores =
        OSSL_PROVIDER_query_operation(provider, OSSL_OP_STORE, &mayNotKeep);
    require(stores != nullptr && stores->implementation != nullptr, "no STORE");
    return stores->implementation;
}

template <class Function>
Function* functionOf(const OSSL_DISPATCH* functions, int number) {
    for (; functions->function_id != 0; ++functions) {
        if (functions->function_id == number) {
            return reinterpret_cast<Function*>(functions->function);
        }
    }
    fail("no function " + std::to_string(number));
}

int keepType(const OSSL_PARAM parameters[], void* argument) {
    return OSSL_PARAM_get_int(OSSL_PARAM_locate_const(parameters, OSSL_OBJECT_PARAM_TYPE),
                              static_cast<int*>(argument));
}

void openAsNewer(const std::string& uri) {
    constexpr int kOpenEx = 10;
    OSSL_PROVIDER* const provider = OSSL_PROVIDER_load(nullptr, "fstore");
    require(provider != nullptr, "no provider");
    void* const context = OSSL_PROVIDER_get0_provider_ctx(provider);
    const OSSL_DISPATCH* const functions = storeFunctions(provider);
    using OpenEx = void*(void*, const char*, const OSSL_PARAM*, OSSL_PASSPHRASE_CALLBACK*, void*);
    OpenEx* const open = functionOf<OpenEx>(functions, kOpenEx);
    auto* const load = functionOf<OSSL_FUNC_store_load_fn>(functions, OSSL_FUNC_STORE_LOAD);
    auto* const close = functionOf<OSSL_FUNC_store_close_fn>(functions, OSSL_FUNC_STORE_CLOSE);
    int expected = OSSL_STORE_INFO_CERT;
    const OSSL_PARAM parameters[] = {OSSL_PARAM_construct_int(OSSL_STORE_PARAM_EXPECT, &expected),
                                     OSSL_PARAM_construct_end()};
    require(open(context, "file:///nothing", parameters, nullptr, nullptr) == nullptr,
            "opens what is another loader's");
    void* const store = open(context, uri.c_str(), parameters, nullptr, nullptr);
    require(store != nullptr, "cannot open " + uri);
    int type = 0;
    require(load(store, keepType, &type, nullptr, nullptr) == 1, "cannot load " + uri);
    require(type == OSSL_OBJECT_CERT, "not what was expected, but " + std::to_string(type));
    require(close(store) == 1, "close");
    OSSL_PROVIDER_unload(provider);
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> words(argv + 1, argv + argc);
    const std::string what = words.empty() ? "" : words[0];
    if (what == "repeat" && words.size() == 3) {
        repeat(std::stoi(words[1]), words[2]);
    } else if (what == "load" && words.size() == 2) {
        loadKey(words[1]);
    } else if (what == "forks" && words.size() == 3) {
        forksDuringLoads(std::stoi(words[1]), words[2]);
    } else if (what == "unload" && words.size() == 3) {
        unloadDuringLoads(std::stoi(words[1]), words[2]);
    } else if (what == "fork" && words.size() == 2) {
        forks(words[1]);
    } else if (what == "contexts" && words.size() == 3) {
        contexts(std::stoi(words[1]), words[2]);
    } else if (what == "threads" && words.size() == 3) {
        threads(std::stoi(words[1]), words[2]);
    } else if (what == "search" && words.size() == 4) {
        searchFor(words[1], words[2], words[3]);
    } else if (what == "newer" && words.size() == 2) {
        openAsNewer(words[1]);
    } else {
        fail("unknown words");
    }
    return 0;
}
