// What the contest asks of every store: the same logical work on the same records.
//
// A contender keeps its records in a folder of its own, which is the current one
// while any of its operations runs. Operations throw std::runtime_error when they
// fail: a contest of failures has no winner.
#ifndef BENCH_CONTEST_CONTENDER_H
#define BENCH_CONTEST_CONTENDER_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

// Three attributes and a body; `secret` and `body` are kept encrypted by all but the
// floor.
struct Record {
    std::string name;
    std::string subject;
    std::uint32_t number = 0;
    std::vector<unsigned char> secret;
    std::vector<unsigned char> body;
};

inline void require(bool holds, const char* what) {
    if (!holds) {
        throw std::runtime_error(what);
    }
}

inline constexpr std::size_t kSecretSize = 64;
inline constexpr std::size_t kBodySize = 2048;
inline constexpr const char* kPassword = "correct horse";
inline constexpr const char* kOtherPassword = "battery staple";

inline std::string nameOfRecord(std::size_t index) {
    char name[32];
    std::snprintf(name, sizeof name, "record-%06zu", index);
    return name;
}

// Each version of a record has other bytes.
inline Record makeRecord(std::size_t index, unsigned int version) {
    Record record;
    record.name = nameOfRecord(index);
    record.subject = "subject of " + record.name;
    record.number = version;
    record.secret.resize(kSecretSize);
    record.body.resize(kBodySize);
    auto state = static_cast<std::uint32_t>(index * 977 + version);
    for (auto* const bytes : {&record.secret, &record.body}) {
        for (unsigned char& byte : *bytes) {
            state = state * 1664525U + 1013904223U;
            byte = static_cast<unsigned char>(state >> 24);
        }
    }
    return record;
}

class Contender {
public:
    Contender() = default;
    Contender(const Contender&) = delete;
    Contender& operator=(const Contender&) = delete;
    virtual ~Contender() = default;

    // Makes an empty store in the current folder.
    virtual void create() = 0;

    // Called whenever the current folder has become another one.
    virtual void enter() {}

    // Stores a record, new or in place of one of that name, and returns when a power
    // loss cannot take it any more; remove() likewise.
    virtual void put(const Record& record) = 0;
    virtual void remove(const std::string& name) = 0;

    // The record with everything in plain form.
    virtual void read(const std::string& name, Record& into) = 0;

    // Looks at the name of every record; returns how many there are.
    virtual std::size_t list() = 0;

    // Stores the records [first, end) as fast as may be, durable only as a whole.
    virtual void fill(std::size_t first, std::size_t end) = 0;

    // Opens the store with kPassword, anew when it is open.
    virtual void open() = 0;

    // From kPassword to kOtherPassword, or the other way round.
    virtual void changePassword(const char* /*from*/, const char* /*to*/) {
        throw std::runtime_error("this contender changes no password");
    }
};

struct Entrant {
    std::string name;
    std::unique_ptr<Contender> contender;
};

std::unique_ptr<Contender> makeFloor();
std::unique_ptr<Contender> makeCalls();  // opens nothing and changes no password
std::unique_ptr<Contender> makeStore();  // of all the databases; a StoreHost is started

#endif  // BENCH_CONTEST_CONTENDER_H
