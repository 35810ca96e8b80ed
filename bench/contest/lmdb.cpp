// LMDB with the program's own encryption of what is secret.
#include <cstring>
#include <filesystem>
#include <map>
#include <string_view>

#include <lmdb.h>

#include "bench/contest/gcm.h"
#include "bench/contest/others.h"

namespace {

void requireDone(int result, const char* what) {
    require(result == MDB_SUCCESS, what);
}

class Environment {
public:
    Environment() {
        requireDone(mdb_env_create(&env), "lmdb: no environment");
        requireDone(mdb_env_set_mapsize(env, std::size_t{4} << 30), "lmdb: no map");
        requireDone(mdb_env_open(env, ".", 0, 0640), "lmdb: no database");
        MDB_txn* txn = nullptr;
        requireDone(mdb_txn_begin(env, nullptr, 0, &txn), "lmdb: no transaction");
        requireDone(mdb_dbi_open(txn, nullptr, 0, &dbi), "lmdb: no table");
        requireDone(mdb_txn_commit(txn), "lmdb: no commit");
    }
    Environment(const Environment&) = delete;
    Environment& operator=(const Environment&) = delete;
    ~Environment() { mdb_env_close(env); }

    MDB_env* env = nullptr;
    MDB_dbi dbi = 0;
};

MDB_val valueOf(std::string_view text) {
    return {text.size(), const_cast<char*>(text.data())};
}

class Lmdb : public Contender {
public:
    void create() override { enter(); }

    void enter() override {
        std::unique_ptr<Environment>& found = environments_[std::filesystem::current_path()];
        if (found == nullptr) {
            found = std::make_unique<Environment>();
        }
        db_ = found.get();
    }

    void open() override {
        environments_.erase(std::filesystem::current_path());
        enter();
    }

    void put(const Record& record) override {
        MDB_txn* const txn = begin(0);
        put(txn, record);
        requireDone(mdb_txn_commit(txn), "lmdb: no commit");
    }

    void remove(const std::string& name) override {
        MDB_txn* const txn = begin(0);
        MDB_val key = valueOf(name);
        requireDone(mdb_del(txn, db_->dbi, &key, nullptr), "lmdb: no removal");
        requireDone(mdb_txn_commit(txn), "lmdb: no commit");
    }

    void read(const std::string& name, Record& into) override {
        MDB_txn* const txn = begin(MDB_RDONLY);
        MDB_val key = valueOf(name);
        MDB_val value{};
        requireDone(mdb_get(txn, db_->dbi, &key, &value), "lmdb: no record");
        const auto* next = static_cast<const unsigned char*>(value.mv_data);
        into.subject = reinterpret_cast<const char*>(next);
        next += into.subject.size() + 1;
        std::memcpy(&into.number, next, sizeof into.number);
        next += sizeof into.number;
        for (auto* const part : {&into.secret, &into.body}) {
            std::uint32_t size = 0;
            std::memcpy(&size, next, sizeof size);
            next += sizeof size;
            gcm_.open(next, size, *part);
            next += size;
        }
        mdb_txn_abort(txn);
    }

    std::size_t list() override {
        MDB_txn* const txn = begin(MDB_RDONLY);
        MDB_cursor* cursor = nullptr;
        requireDone(mdb_cursor_open(txn, db_->dbi, &cursor), "lmdb: no cursor");
        std::size_t count = 0;
        MDB_val key{};
        MDB_val value{};
        while (mdb_cursor_get(cursor, &key, &value, MDB_NEXT) == MDB_SUCCESS) {
            count += key.mv_size != 0 ? 1 : 0;
        }
        mdb_cursor_close(cursor);
        mdb_txn_abort(txn);
        return count;
    }

    void fill(std::size_t first, std::size_t end) override {
        MDB_txn* const txn = begin(0);
        for (std::size_t index = first; index < end; ++index) {
            put(txn, makeRecord(index, 0));
        }
        requireDone(mdb_txn_commit(txn), "lmdb: no commit");
    }

private:
    MDB_txn* begin(unsigned int flags) {
        MDB_txn* txn = nullptr;
        requireDone(mdb_txn_begin(db_->env, nullptr, flags, &txn), "lmdb: no transaction");
        return txn;
    }

    void put(MDB_txn* txn, const Record& record) {
        std::string bytes = record.subject + '\0';
        const auto append = [&bytes](const void* data, std::size_t size) {
            bytes.append(static_cast<const char*>(data), size);
        };
        append(&record.number, sizeof record.number);
        for (const auto* const part : {&record.secret, &record.body}) {
            const std::vector<unsigned char> sealed = gcm_.seal(*part);
            const auto size = static_cast<std::uint32_t>(sealed.size());
            append(&size, sizeof size);
            append(sealed.data(), sealed.size());
        }
        MDB_val key = valueOf(record.name);
        MDB_val value = valueOf(bytes);
        requireDone(mdb_put(txn, db_->dbi, &key, &value, 0), "lmdb: no put");
    }

    Gcm gcm_{kPassword};
    std::map<std::string, std::unique_ptr<Environment>> environments_;
    Environment* db_ = nullptr;
};

}  // namespace

void addLmdb(std::vector<Entrant>& entrants) {
    entrants.push_back({"LMDB", std::make_unique<Lmdb>()});
}
