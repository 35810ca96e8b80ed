#include "lib/index/sql.h"

#include <new>

#include <sqlite3.h>

namespace fstore {
namespace {

// Of an extended code.
int primary(int code) {
    return code & 0xFF;
}

void requireOk(int code) {
    if (primary(code) == SQLITE_NOMEM) {
        throw std::bad_alloc();
    }
    if (code != SQLITE_OK) {
        throw SqlFailure(code);
    }
}

// Waits only for another one's moment of writing. Whoever builds an index holds it for longer, and
// a look at the records is the better way then.
constexpr int kPatience = 20;  // milliseconds

// Nothing in the file is run as a program, and what closes the file leaves its log to the next one:
// a command of some milliseconds does not wait for the disk because of it. Until the log is copied,
// it has at most as many pages as are copied on the way.
void configure(sqlite3* connection) {
    requireOk(sqlite3_extended_result_codes(connection, 1));
    requireOk(sqlite3_busy_timeout(connection, kPatience));
    requireOk(sqlite3_db_config(connection, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr));
    requireOk(sqlite3_db_config(connection, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr));
    requireOk(sqlite3_db_config(connection, SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr));
    requireOk(sqlite3_db_config(connection, SQLITE_DBCONFIG_ENABLE_VIEW, 0, nullptr));
    requireOk(sqlite3_db_config(connection, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr));
}

}  // namespace

SqlFailure SqlFailure::busy() {
    return SqlFailure(SQLITE_BUSY);
}

SqlFailure SqlFailure::unusable() {
    return SqlFailure(SQLITE_FORMAT);
}

const char* SqlFailure::what() const noexcept {
    return sqlite3_errstr(code_);
}

bool SqlFailure::isDamage() const noexcept {
    switch (primary(code_)) {
        case SQLITE_CORRUPT:
        case SQLITE_NOTADB:
        case SQLITE_FORMAT:
        case SQLITE_ERROR:  // a table is missing
        case SQLITE_SCHEMA:
        case SQLITE_CONSTRAINT:
        case SQLITE_MISMATCH:
        case SQLITE_TOOBIG:
            return true;
        case SQLITE_IOERR:
            return code_ == SQLITE_IOERR_SHORT_READ || code_ == SQLITE_IOERR_CORRUPTFS;
        default:
            return false;
    }
}

bool SqlFailure::isFull() const noexcept {
    return primary(code_) == SQLITE_FULL || primary(code_) == SQLITE_IOERR;
}

Sql::Sql(const std::string& file) {
    sqlite3* connection = nullptr;
    const int code = sqlite3_open_v2(file.c_str(), &connection,
                                     SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX |
                                         SQLITE_OPEN_PRIVATECACHE | SQLITE_OPEN_NOFOLLOW,
                                     "unix");
    connection_.reset(connection);  // there is one also after a failure
    requireOk(code);
    configure(connection);
}

void Sql::Close::operator()(sqlite3* connection) const noexcept {
    (void)sqlite3_close_v2(connection);
}

void Sql::run(const char* statements) {
    requireOk(sqlite3_exec(connection_.get(), statements, nullptr, nullptr, nullptr));
}

std::int64_t Sql::number(const char* query) {
    SqlStatement statement(*this, query);
    return statement.step() ? statement.number(0) : 0;
}

// By SQLite's own descriptor, since closing another one would end the locks of other connections.
std::string Sql::head() {
    sqlite3_file* file = nullptr;
    requireOk(sqlite3_file_control(connection_.get(), "main", SQLITE_FCNTL_FILE_POINTER,
                                   static_cast<void*>(&file)));
    std::string bytes(kHeadSize, '\0');
    const int code = file->pMethods->xRead(file, bytes.data(), static_cast<int>(kHeadSize), 0);
    requireOk(code == SQLITE_IOERR_SHORT_READ ? SQLITE_OK : code);
    return bytes;
}

std::int64_t Sql::lastRow() const noexcept {
    return sqlite3_last_insert_rowid(connection_.get());
}

SqlStatement::SqlStatement(Sql& sql, const char* text) {
    sqlite3_stmt* statement = nullptr;
    requireOk(sqlite3_prepare_v2(sql.connection_.get(), text, -1, &statement, nullptr));
    statement_.reset(statement);
}

void SqlStatement::Finalize::operator()(sqlite3_stmt* statement) const noexcept {
    (void)sqlite3_finalize(statement);
}

bool SqlStatement::step() {
    const int code = sqlite3_step(statement_.get());
    if (code == SQLITE_ROW) {
        return true;
    }
    reset();
    if (code != SQLITE_DONE) {
        requireOk(code);
    }
    return false;
}

void SqlStatement::reset() noexcept {
    (void)sqlite3_reset(statement_.get());  // repeats the failure of the step before
}

std::int64_t SqlStatement::number(int column) const {
    return sqlite3_column_int64(statement_.get(), column);
}

std::optional<std::int64_t> SqlStatement::maybeNumber(int column) const {
    if (sqlite3_column_type(statement_.get(), column) == SQLITE_NULL) {
        return std::nullopt;
    }
    return number(column);
}

std::string SqlStatement::bytes(int column) const {
    const void* const bytes = sqlite3_column_blob(statement_.get(), column);
    const int size = sqlite3_column_bytes(statement_.get(), column);
    return bytes == nullptr
               ? std::string()
               : std::string(static_cast<const char*>(bytes), static_cast<std::size_t>(size));
}

void SqlStatement::bind(int at, std::int64_t value) {
    requireOk(sqlite3_bind_int64(statement_.get(), at, value));
}

void SqlStatement::bind(int at, const std::optional<std::int64_t>& value) {
    requireOk(value ? sqlite3_bind_int64(statement_.get(), at, *value)
                    : sqlite3_bind_null(statement_.get(), at));
}

void SqlStatement::bind(int at, std::string_view bytes) {
    requireOk(bytes.empty() ? sqlite3_bind_null(statement_.get(), at)
                            : sqlite3_bind_blob64(statement_.get(), at, bytes.data(), bytes.size(),
                                                  SQLITE_TRANSIENT));
}

}  // namespace fstore
