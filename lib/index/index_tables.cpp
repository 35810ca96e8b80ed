#include "lib/index/index_tables.h"

#include <algorithm>
#include <string_view>

#include <fmt/format.h>

#include "format/record_name.h"
#include "lib/base/digits.h"
#include "lib/records/descriptor.h"

namespace fstore {
namespace {

constexpr std::string_view kApplicationBytes = "FSIX";
constexpr std::int64_t kApplication = 0x46534958;  // the same as a number
constexpr std::int64_t kVersion = 3;

// As columns of text have an order and a comparison of their own, all that is no number is bytes.
constexpr const char* kTables = R"(
    CREATE TABLE place(device INTEGER, inode INTEGER);
    CREATE TABLE folder(id INTEGER PRIMARY KEY, path BLOB UNIQUE,
        device INTEGER, inode INTEGER, modified INTEGER, changed INTEGER);
    CREATE TABLE file(id INTEGER PRIMARY KEY, folder INTEGER, file BLOB,
        inode INTEGER, size INTEGER, modified INTEGER, changed INTEGER,
        record INTEGER, bodyunknown INTEGER, look INTEGER, body BLOB,
        kind INTEGER, label BLOB, subject BLOB, issuer BLOB, algorithm BLOB, names BLOB,
        serial BLOB, sha256 BLOB, key BLOB, begins INTEGER, ends INTEGER, ca INTEGER);
    CREATE UNIQUE INDEX by_name ON file(folder, file);
    CREATE INDEX by_body ON file(body, folder) WHERE body IS NOT NULL;
    CREATE INDEX by_sha256 ON file(sha256) WHERE sha256 IS NOT NULL;
    CREATE INDEX by_key ON file(key, kind, record) WHERE key IS NOT NULL;
    CREATE INDEX by_end ON file(ends) WHERE ends IS NOT NULL;
    CREATE INDEX by_look ON file(look) WHERE look <> 0;
    CREATE INDEX by_doubt ON file(folder) WHERE bodyunknown <> 0;
    CREATE INDEX by_rest ON file(folder) WHERE record = 0;
)";

// The columns of a hit.
constexpr std::string_view kHit =
    "SELECT folder, file, look, kind, label, subject, issuer, algorithm, names, serial, sha256, "
    "key, begins, ends, ca FROM file WHERE record = 1 AND ";

std::string bytesOfHex(std::string_view hex) {
    const auto bytes = fromHex(hex);
    return bytes ? std::string(bytes->begin(), bytes->end()) : std::string();
}

std::string hexOf(const std::string& bytes) {
    return toHex({reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size()});
}

std::string joinedLines(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) {
        text += line + "\n";
    }
    return text;
}

std::vector<std::string> linesOf(std::string_view text) {
    std::vector<std::string> lines;
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        lines.emplace_back(text.substr(0, end));
        text.remove_prefix(std::min(text.size(), end == std::string_view::npos ? end : end + 1));
    }
    return lines;
}

// Begins the statement with what a row says, and these values after that.
template <class... More>
SqlStatement& withContents(SqlStatement& statement, std::int64_t folder, const IndexRow& row,
                           const More&... more) {
    const RecordInfo& info = row.info;
    const auto number = [](auto value) { return static_cast<std::int64_t>(value); };
    return statement.with(
        folder, std::string_view(row.file), number(row.isRecord), number(row.isBodyUnknown),
        number(row.look), std::string_view(row.body), number(info.kind),
        std::string_view(info.label), std::string_view(info.subject), std::string_view(info.issuer),
        std::string_view(info.keyAlgorithm), std::string_view(joinedLines(info.altNames)),
        std::string_view(bytesOfHex(info.serial)), std::string_view(bytesOfHex(info.sha256)),
        std::string_view(bytesOfHex(info.keySha256)), info.notBefore, info.notAfter,
        number(info.isCa), more...);
}

IndexHit hitOf(const SqlStatement& row) {
    IndexHit hit;
    hit.folder = row.number(0);
    const std::string file = row.bytes(1);
    hit.name = withoutMarker(file, kDscSuffix);
    hit.look = static_cast<unsigned int>(row.number(2));
    RecordInfo& info = hit.info;
    info.kind = static_cast<Kind>(row.number(3));
    info.label = row.bytes(4);
    info.subject = row.bytes(5);
    info.issuer = row.bytes(6);
    info.keyAlgorithm = row.bytes(7);
    info.altNames = linesOf(row.bytes(8));
    info.serial = hexOf(row.bytes(9));
    info.sha256 = hexOf(row.bytes(10));
    info.keySha256 = hexOf(row.bytes(11));
    info.notBefore = row.maybeNumber(12);
    info.notAfter = row.maybeNumber(13);
    info.isCa = row.number(14) != 0;
    return hit;
}

}  // namespace

bool IndexTables::isIndex(const std::string& file) {
    using namespace std::string_view_literals;
    constexpr std::string_view kMagic = "SQLite format 3\0"sv;
    constexpr std::size_t kPlaceOfApplication = 68;
    try {
        const std::string head = Sql(file).head();
        return head.starts_with(kMagic) &&
               std::string_view(head).substr(kPlaceOfApplication).starts_with(kApplicationBytes);
    } catch (const SqlFailure&) {
        return false;
    }
}

IndexTables::IndexTables(const std::string& file, const FolderStamp& folder) : sql_(file) {
    if (sql_.number("PRAGMA schema_version") == 0) {
        make(folder);
    } else {
        open(folder);
    }
    // A loss of power may take what was written last, which leaves an older state of the index, and
    // that is as good as none: it knows that folders have changed since.
    sql_.run("PRAGMA synchronous = NORMAL; PRAGMA cache_size = -16384; PRAGMA temp_store = MEMORY");
    // Who opens the file reads the whole log.
    sql_.run("PRAGMA wal_autocheckpoint = 100; PRAGMA journal_size_limit = 1048576");
}

void IndexTables::make(const FolderStamp& folder) {
    // While there is no log yet, so that the file itself says from its first page on whose it is.
    sql_.run(
        fmt::format("PRAGMA application_id = {}; PRAGMA journal_mode = WAL", kApplication).c_str());
    Change change(*this);
    if (sql_.number("SELECT count(*) FROM sqlite_schema") != 0) {
        throw SqlFailure::busy();  // another process was faster
    }
    sql_.run(kTables);
    SqlStatement(sql_, "INSERT INTO place VALUES (?, ?)").with(folder.device, folder.inode).run();
    sql_.run(fmt::format("PRAGMA user_version = {}", kVersion).c_str());
    change.commit();
}

void IndexTables::open(const FolderStamp& folder) {
    SqlStatement place(sql_, "SELECT device, inode FROM place");
    if (sql_.number("PRAGMA application_id") != kApplication ||
        sql_.number("PRAGMA user_version") != kVersion || !place.step() ||
        place.number(0) != folder.device || place.number(1) != folder.inode) {
        throw SqlFailure::unusable();
    }
}

IndexTables::Change::Change(IndexTables& tables) : sql_(tables.sql_) {
    sql_.run("BEGIN IMMEDIATE");
}

IndexTables::Change::~Change() {
    if (open_) {
        try {
            sql_.run("ROLLBACK");
        } catch (const SqlFailure&) {
            // what failed before has rolled back itself
        }
    }
}

void IndexTables::Change::commit() {
    sql_.run("COMMIT");
    open_ = false;
}

void IndexTables::Change::commitAndContinue() {
    commit();
    sql_.run("BEGIN IMMEDIATE");
    open_ = true;
}

void IndexTables::emptyLog() {
    sql_.run("PRAGMA wal_checkpoint(TRUNCATE)");
}

std::vector<IndexFolder> IndexTables::folders() {
    std::vector<IndexFolder> found;
    SqlStatement rows(sql_, "SELECT id, path, device, inode, modified, changed FROM folder");
    while (rows.step()) {
        IndexFolder& folder = found.emplace_back();
        folder.id = rows.number(0);
        folder.path = rows.bytes(1);
        if (const auto modified = rows.maybeNumber(4)) {
            folder.stamp = {rows.number(2), rows.number(3), *modified, rows.number(5)};
        }
    }
    return found;
}

IndexFolder IndexTables::addFolder(const std::string& path) {
    SqlStatement(sql_, "INSERT INTO folder(path) VALUES (?)").with(std::string_view(path)).run();
    return {sql_.lastRow(), path, std::nullopt};
}

void IndexTables::removeFolder(std::int64_t id) {
    SqlStatement(sql_, "DELETE FROM file WHERE folder = ?").with(id).run();
    SqlStatement(sql_, "DELETE FROM folder WHERE id = ?").with(id).run();
}

void IndexTables::setStamp(std::int64_t folder, const std::optional<FolderStamp>& stamp) {
    const auto of = [&](std::int64_t FolderStamp::*field) {
        return stamp ? std::optional((*stamp).*field) : std::nullopt;
    };
    SqlStatement(sql_,
                 "UPDATE folder SET device = ?, inode = ?, modified = ?, changed = ? WHERE id = ?")
        .with(of(&FolderStamp::device), of(&FolderStamp::inode), of(&FolderStamp::modified),
              of(&FolderStamp::changed), folder)
        .run();
}

std::uint64_t IndexTables::countFiles() {
    return static_cast<std::uint64_t>(sql_.number("SELECT count(*) FROM file"));
}

void IndexTables::visitFiles(std::int64_t folder, const std::function<void(IndexedFile)>& use) {
    SqlStatement rows(sql_,
                      "SELECT id, file, body, inode, size, modified, changed, look FROM file "
                      "WHERE folder = ? ORDER BY file");
    rows.with(folder);
    while (rows.step()) {
        const auto look = static_cast<unsigned int>(rows.number(7));
        use({rows.number(0), rows.bytes(1), rows.bytes(2),
             FileStamp{rows.number(3), rows.number(4), rows.number(5), rows.number(6)},
             (look & Look::kAlways) != 0});
    }
}

void IndexTables::put(std::int64_t folder, const IndexRow& row) {
    if (!put_) {
        put_.emplace(sql_,
                     "INSERT OR REPLACE INTO file(folder, file, record, bodyunknown, look, "
                     "body, kind, label, subject, issuer, algorithm, names, serial, sha256, "
                     "key, begins, ends, ca, inode, size, modified, changed) "
                     "VALUES (?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?)");
    }
    withContents(*put_, folder, row, row.stamp.inode, row.stamp.size, row.stamp.modified,
                 row.stamp.changed)
        .run();
}

bool IndexTables::says(std::int64_t folder, const IndexRow& row) {
    if (!says_) {
        says_.emplace(sql_,
                      "SELECT 1 FROM file WHERE folder = ? AND file = ? AND record IS ? "
                      "AND bodyunknown IS ? AND look IS ? AND body IS ? AND kind IS ? "
                      "AND label IS ? AND subject IS ? AND issuer IS ? AND algorithm IS ? "
                      "AND names IS ? AND serial IS ? AND sha256 IS ? AND key IS ? "
                      "AND begins IS ? AND ends IS ? AND ca IS ?");
    }
    const bool isThere = withContents(*says_, folder, row).step();
    says_->reset();
    return isThere;
}

void IndexTables::removeFile(std::int64_t folder, const std::string& file) {
    SqlStatement(sql_, "DELETE FROM file WHERE folder = ? AND file = ?")
        .with(folder, std::string_view(file))
        .run();
}

void IndexTables::removeFile(std::int64_t id) {
    SqlStatement(sql_, "DELETE FROM file WHERE id = ?").with(id).run();
}

void IndexTables::visit(SqlStatement& statement, const HitUser& use) {
    while (statement.step()) {
        use(hitOf(statement));
    }
}

void IndexTables::visitDigests(std::string_view from, std::string_view end, const HitUser& use) {
    // With an OR for the end all that is behind it would be read.
    const bool hasEnd = !end.empty();
    SqlStatement rows(
        sql_, fmt::format("{} sha256 >= ?{}", kHit, hasEnd ? " AND sha256 < ?" : "").c_str());
    visit(hasEnd ? rows.with(from, end) : rows.with(from), use);
}

void IndexTables::visitKeys(std::string_view keySha256, const HitUser& use) {
    SqlStatement rows(sql_, fmt::format("{} key = ?", kHit).c_str());
    visit(rows.with(keySha256), use);
}

void IndexTables::visitRecords(std::optional<std::int64_t> latest, const HitUser& use) {
    SqlStatement rows(sql_, fmt::format("{} {}", kHit, latest ? "ends <= ?" : "1").c_str());
    visit(latest ? rows.with(*latest) : rows, use);
}

void IndexTables::visitLooks(unsigned int reasons, const HitUser& use) {
    std::string list;
    for (unsigned int look = 1; look <= Look::kAll; ++look) {
        if ((look & reasons) != 0) {
            list += (list.empty() ? "" : ",") + std::to_string(look);
        }
    }
    SqlStatement rows(sql_, fmt::format("{} look <> 0 AND look IN ({})", kHit, list).c_str());
    visit(rows, use);
}

std::set<std::string> IndexTables::keys() {
    std::set<std::string> keys;
    SqlStatement rows(sql_,
                      "SELECT key FROM file WHERE key IS NOT NULL AND kind = ? AND record = 1");
    rows.with(static_cast<std::int64_t>(Kind::kKey));
    while (rows.step()) {
        keys.insert(hexOf(rows.bytes(0)));
    }
    return keys;
}

void IndexTables::visitRest(const std::function<void(std::int64_t, std::string)>& use) {
    SqlStatement rows(sql_, "SELECT folder, file FROM file WHERE record = 0");
    while (rows.step()) {
        use(rows.number(0), rows.bytes(1));
    }
}

BodyNames::Answer IndexTables::namesOf(std::int64_t folder, const std::string& body) {
    const auto filesOf = [](SqlStatement& rows) {
        std::vector<std::string> files;
        while (rows.step()) {
            std::string file = rows.bytes(0);
            if (isOfARecord(stateBeside(file).value_or(file))) {
                files.push_back(std::move(file));
            }
        }
        return files;
    };
    SqlStatement named(sql_, "SELECT file FROM file WHERE body = ? AND folder = ?");
    SqlStatement unknown(sql_, "SELECT file FROM file WHERE bodyunknown <> 0 AND folder = ?");
    return {filesOf(named.with(std::string_view(body), folder)), filesOf(unknown.with(folder))};
}

}  // namespace fstore
