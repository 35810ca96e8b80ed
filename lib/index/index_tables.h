// The tables of the index: folders, and what their descriptors say.
//
// Knows nothing of when they hold. For one thread. What fails throws an SqlFailure.
#ifndef LIB_INDEX_INDEX_TABLES_H
#define LIB_INDEX_INDEX_TABLES_H

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "lib/index/index_row.h"
#include "lib/index/sql.h"
#include "lib/index/stamps.h"
#include "lib/records/body_owners.h"
#include "lib/records/record_info.h"

namespace fstore {

struct IndexFolder {
    std::int64_t id = 0;
    std::string path;  // as allFolders() has it
    std::optional<FolderStamp> stamp;
};

// A descriptor's row, as much of it as tells whether it still holds.
struct IndexedFile {
    std::int64_t id = 0;
    std::string file, body;
    FileStamp stamp;
    bool mustLook = false;  // Look::kAlways
};

// A record that a question found, and as much of it as was asked for.
struct IndexHit {
    std::int64_t folder = 0;
    std::string name;
    unsigned int look = 0;
    RecordInfo info;
};

class IndexTables {
public:
    // Whether a regular file begins as one of ours does, of any version. False when it cannot be
    // read. Changes nothing, whatever the file is.
    static bool isIndex(const std::string& file);

    // The file of `folder`, an empty one or one that was made so; for any other throws a failure
    // that isDamage(), as for one of a newer version or of another folder.
    IndexTables(const std::string& file, const FolderStamp& folder);

    // A transaction that is not committed is undone when it goes.
    class Change {
    public:
        explicit Change(IndexTables& tables);
        Change(const Change&) = delete;
        Change& operator=(const Change&) = delete;
        ~Change();
        void commit();
        // In between, so that no log grows as long as a large database.
        void commitAndContinue();

    private:
        Sql& sql_;
        bool open_ = true;
    };

    // After many changes: else everybody who opens the file reads them again.
    void emptyLog();

    std::vector<IndexFolder> folders();
    IndexFolder addFolder(const std::string& path);
    void removeFolder(std::int64_t id);
    void setStamp(std::int64_t folder, const std::optional<FolderStamp>& stamp);

    // The rows of all folders.
    std::uint64_t countFiles();

    // By the names of the files.
    void visitFiles(std::int64_t folder, const std::function<void(IndexedFile)>& use);
    void put(std::int64_t folder, const IndexRow& row);
    // Whether there is a row that says this, but for its stamp.
    bool says(std::int64_t folder, const IndexRow& row);
    void removeFile(std::int64_t folder, const std::string& file);
    void removeFile(std::int64_t id);

    using HitUser = std::function<void(IndexHit)>;
    // Records whose digest, or that of whose public key, begins with these bytes and is less than
    // `end`, if that is not empty.
    void visitDigests(std::string_view from, std::string_view end, const HitUser& use);
    void visitKeys(std::string_view keySha256, const HitUser& use);
    // All records that end by `latest`; or all, for none.
    void visitRecords(std::optional<std::int64_t> latest, const HitUser& use);
    // Records that have one of these reasons to be looked at.
    void visitLooks(unsigned int reasons, const HitUser& use);

    // The folders and files of what is no record, as leftovers of writes are.
    void visitRest(const std::function<void(std::int64_t, std::string)>& use);

    // The digests of the public keys of all private ones.
    std::set<std::string> keys();

    // What BodyNames answers.
    BodyNames::Answer namesOf(std::int64_t folder, const std::string& body);

private:
    void open(const FolderStamp& folder);
    void make(const FolderStamp& folder);
    void visit(SqlStatement& statement, const HitUser& use);

    Sql sql_;
    std::optional<SqlStatement> put_, says_;  // kept: they run for every record
};

}  // namespace fstore

#endif  // LIB_INDEX_INDEX_TABLES_H
