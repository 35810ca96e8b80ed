// SQLite with the program's own encryption of what is secret, and SQLCipher, which
// encrypts every page by itself.
//
// Both libraries export the same names, so neither is linked: each is loaded by itself
// and called through pointers.
#include <dlfcn.h>

#include <filesystem>
#include <map>

#include <sqlite3.h>

#include "bench/contest/gcm.h"
#include "bench/contest/others.h"

namespace {

struct Api {
    explicit Api(const char* file) : library(dlopen(file, RTLD_NOW | RTLD_LOCAL)) {
        require(library != nullptr, "sql: no library");
        load(open, "sqlite3_open_v2");
        load(close, "sqlite3_close");
        load(exec, "sqlite3_exec");
        load(prepare, "sqlite3_prepare_v2");
        load(finalize, "sqlite3_finalize");
        load(step, "sqlite3_step");
        load(reset, "sqlite3_reset");
        load(bindText, "sqlite3_bind_text");
        load(bindBlob, "sqlite3_bind_blob");
        load(bindInt64, "sqlite3_bind_int64");
        load(columnText, "sqlite3_column_text");
        load(columnBlob, "sqlite3_column_blob");
        load(columnInt64, "sqlite3_column_int64");
        load(columnBytes, "sqlite3_column_bytes");
    }

    template <class Function>
    void load(Function& function, const char* name) {
        function = reinterpret_cast<Function>(dlsym(library, name));
        require(function != nullptr, "sql: no function");
    }

    void* library;  // stays loaded
    decltype(&sqlite3_open_v2) open;
    decltype(&sqlite3_close) close;
    decltype(&sqlite3_exec) exec;
    decltype(&sqlite3_prepare_v2) prepare;
    decltype(&sqlite3_finalize) finalize;
    decltype(&sqlite3_step) step;
    decltype(&sqlite3_reset) reset;
    decltype(&sqlite3_bind_text) bindText;
    decltype(&sqlite3_bind_blob) bindBlob;
    decltype(&sqlite3_bind_int64) bindInt64;
    decltype(&sqlite3_column_text) columnText;
    decltype(&sqlite3_column_blob) columnBlob;
    decltype(&sqlite3_column_int64) columnInt64;
    decltype(&sqlite3_column_bytes) columnBytes;
};

// An open database with its statements.
class Connection {
public:
    Connection(const Api& api, const std::string& setup) : api_(api) {
        require(api_.open("store.sqlite", &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE,
                          nullptr) == SQLITE_OK,
                "sql: no database");
        run(setup.c_str());
        run("CREATE TABLE IF NOT EXISTS record (name TEXT PRIMARY KEY, subject TEXT, "
            "number INTEGER, secret BLOB, body BLOB)");
        put = prepared("INSERT OR REPLACE INTO record VALUES (?, ?, ?, ?, ?)");
        get = prepared("SELECT subject, number, secret, body FROM record WHERE name = ?");
        remove = prepared("DELETE FROM record WHERE name = ?");
        list = prepared("SELECT name FROM record");
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection() {
        for (sqlite3_stmt* const statement : {put, get, remove, list}) {
            (void)api_.finalize(statement);
        }
        (void)api_.close(db_);
    }

    void run(const char* sql) {
        require(api_.exec(db_, sql, nullptr, nullptr, nullptr) == SQLITE_OK, "sql: no execution");
    }

    sqlite3_stmt* put = nullptr;
    sqlite3_stmt* get = nullptr;
    sqlite3_stmt* remove = nullptr;
    sqlite3_stmt* list = nullptr;

private:
    sqlite3_stmt* prepared(const char* sql) {
        sqlite3_stmt* statement = nullptr;
        require(api_.prepare(db_, sql, -1, &statement, nullptr) == SQLITE_OK, "sql: no statement");
        return statement;
    }

    const Api& api_;
    sqlite3* db_ = nullptr;
};

class Sql : public Contender {
public:
    Sql(const char* library, std::string setup, bool encrypts)
        : api_(library), setup_(std::move(setup)), encrypts_(encrypts) {}

    void create() override { enter(); }

    void enter() override {
        std::unique_ptr<Connection>& found = connections_[std::filesystem::current_path()];
        if (found == nullptr) {
            found = std::make_unique<Connection>(api_, setup_);
        }
        db_ = found.get();
    }

    void open() override {
        connections_.erase(std::filesystem::current_path());
        enter();
    }

    void put(const Record& record) override {
        const Blob secret = kept(record.secret);
        const Blob body = kept(record.body);
        bind(db_->put, 1, record.name);
        bind(db_->put, 2, record.subject);
        require(api_.bindInt64(db_->put, 3, record.number) == SQLITE_OK, "sql: no number");
        bind(db_->put, 4, secret);
        bind(db_->put, 5, body);
        finish(db_->put);
    }

    void remove(const std::string& name) override {
        bind(db_->remove, 1, name);
        finish(db_->remove);
    }

    void read(const std::string& name, Record& into) override {
        sqlite3_stmt* const get = db_->get;
        bind(get, 1, name);
        require(api_.step(get) == SQLITE_ROW, "sql: no record");
        into.subject = reinterpret_cast<const char*>(api_.columnText(get, 0));
        into.number = static_cast<std::uint32_t>(api_.columnInt64(get, 1));
        take(get, 2, into.secret);
        take(get, 3, into.body);
        require(api_.reset(get) == SQLITE_OK, "sql: no end of a read");
    }

    std::size_t list() override {
        std::size_t count = 0;
        while (api_.step(db_->list) == SQLITE_ROW) {
            count += *api_.columnText(db_->list, 0) != '\0' ? 1 : 0;
        }
        require(api_.reset(db_->list) == SQLITE_OK, "sql: no end of a list");
        return count;
    }

    void fill(std::size_t first, std::size_t end) override {
        db_->run("BEGIN");
        for (std::size_t index = first; index < end; ++index) {
            put(makeRecord(index, 0));
        }
        db_->run("COMMIT");
    }

private:
    using Blob = std::vector<unsigned char>;

    Blob kept(const Blob& plain) { return encrypts_ ? gcm_.seal(plain) : plain; }

    void take(sqlite3_stmt* from, int column, Blob& into) {
        const auto* const bytes = static_cast<const unsigned char*>(api_.columnBlob(from, column));
        const auto size = static_cast<std::size_t>(api_.columnBytes(from, column));
        if (encrypts_) {
            gcm_.open(bytes, size, into);
        } else {
            into.assign(bytes, bytes + size);
        }
    }

    void bind(sqlite3_stmt* to, int index, const std::string& text) {
        require(api_.bindText(to, index, text.data(), static_cast<int>(text.size()),
                              SQLITE_STATIC) == SQLITE_OK,
                "sql: no text");
    }
    void bind(sqlite3_stmt* to, int index, const Blob& bytes) {
        require(api_.bindBlob(to, index, bytes.data(), static_cast<int>(bytes.size()),
                              SQLITE_STATIC) == SQLITE_OK,
                "sql: no bytes");
    }

    void finish(sqlite3_stmt* statement) {
        require(api_.step(statement) == SQLITE_DONE && api_.reset(statement) == SQLITE_OK,
                "sql: not done");
    }

    const Api api_;
    const std::string setup_;
    const bool encrypts_;
    Gcm gcm_{kPassword};
    std::map<std::string, std::unique_ptr<Connection>> connections_;
    Connection* db_ = nullptr;
};

constexpr const char* kWal = "PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL;";
constexpr const char* kRollback = "PRAGMA journal_mode = DELETE; PRAGMA synchronous = FULL;";

}  // namespace

void addSql(std::vector<Entrant>& entrants) {
    constexpr const char* kSqlite = "libsqlite3.so.0";
    entrants.push_back({"SQLite, WAL", std::make_unique<Sql>(kSqlite, kWal, true)});
    entrants.push_back({"SQLite, rollback", std::make_unique<Sql>(kSqlite, kRollback, true)});
    const std::string key = std::string("PRAGMA key = '") + kPassword + "';";
    entrants.push_back(
        {"SQLCipher, WAL", std::make_unique<Sql>("libsqlcipher.so.0", key + kWal, false)});
}
