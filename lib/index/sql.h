// SQLite, as far as the index needs it: a file, statements, and failures as exceptions.
//
// Nothing here is of the whole process: no setting, no other program's default. A connection
// belongs to one thread and does not survive a fork: who forks has closed it, or the child leaves
// it alone.
#ifndef LIB_INDEX_SQL_H
#define LIB_INDEX_SQL_H

#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

namespace fstore {

// Ends at the index's border: it is never what a command fails with.
class SqlFailure : public std::exception {
public:
    explicit SqlFailure(int code) : code_(code) {}
    static SqlFailure busy();      // another process has it
    static SqlFailure unusable();  // not a file of ours: isDamage()

    const char* what() const noexcept override;

    // Whether the file itself is wrong; not so of one that is locked, or may not be written.
    bool isDamage() const noexcept;
    bool isFull() const noexcept;

private:
    const int code_;
};

class Sql {
public:
    // A regular file by an absolute path without links. It is there, perhaps empty.
    explicit Sql(const std::string& file);

    // Statements without results.
    void run(const char* statements);
    // The first column of the first row.
    std::int64_t number(const char* query);

    // The first bytes of the file, zeros after its end. Takes no lock, and reads nothing else.
    static constexpr std::size_t kHeadSize = 100;
    std::string head();

    // The last row that was inserted.
    std::int64_t lastRow() const noexcept;

private:
    friend class SqlStatement;
    struct Close {
        void operator()(sqlite3* connection) const noexcept;
    };
    std::unique_ptr<sqlite3, Close> connection_;
};

class SqlStatement {
public:
    SqlStatement(Sql& sql, const char* text);

    // Begins again with these values, from the first one on.
    template <class... Values>
    SqlStatement& with(const Values&... values) {
        reset();
        int at = 0;
        (bind(++at, values), ...);
        return *this;
    }

    // The next row; false when there is none, and the statement is at its beginning.
    bool step();
    // For what has no rows.
    void run() { (void)step(); }
    // Ends it before its last row.
    void reset() noexcept;

    std::int64_t number(int column) const;
    std::optional<std::int64_t> maybeNumber(int column) const;
    std::string bytes(int column) const;  // empty for none

private:
    void bind(int at, std::int64_t value);
    void bind(int at, const std::optional<std::int64_t>& value);
    void bind(int at, std::string_view bytes);  // as bytes, whatever they are; none for empty ones

    struct Finalize {
        void operator()(sqlite3_stmt* statement) const noexcept;
    };
    std::unique_ptr<sqlite3_stmt, Finalize> statement_;
};

}  // namespace fstore

#endif  // LIB_INDEX_SQL_H
