// A backup's file: a tar archive of the folder "db" that ends in a manifest with the
// SHA-256 of every file.
//
// Any tar program lists and unpacks it, and `sha256sum -c MANIFEST.sha256` checks what was
// unpacked. The entries have one order: a folder, then its contents, by the bytes of their
// names. The manifest follows from them, line by line,
//
//     # filestore backup 1
//     # folder 0700 db
//     # file 0600 57
//     <64 hexadecimal digits>  db/key.dsc
//     # end: 1 folders, 1 files
//
// so that comparing it verifies all of the archive: bytes, names, sizes and modes. In a path, a
// line feed is written "\n" and a backslash "\\", and the line then begins with a backslash.
#ifndef LIB_ARCHIVE_ARCHIVE_H
#define LIB_ARCHIVE_ARCHIVE_H

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "format/layout.h"
#include "lib/archive/tar_header.h"
#include "lib/base/sha256.h"
#include "lib/base/spill.h"

namespace fstore {

inline constexpr const char* kManifestName = "MANIFEST.sha256";
inline constexpr const char* kArchiveRoot = layout::kLiveName;

struct ArchiveEntry {
    bool isFolder = false;
    std::string path;  // "db", or below it
    unsigned int mode = 0;
    std::uint64_t size = 0;
};

// What both sides of an archive say about it.
struct ArchiveTotals {
    std::uint64_t folders = 0;
    std::uint64_t files = 0;
    std::uint64_t bytes = 0;  // of all files
    Sha256Digest manifest{};  // its digest, which identifies the whole contents
};

// The manifest of entries as they come, and the order in which they may.
class Manifest {
public:
    // Throws kMalformed for an entry that cannot come here: out of order, twice, not in a
    // folder that has come before, or with a path that leads elsewhere.
    void check(const ArchiveEntry& entry) const;

    // The lines of an entry that check() allows, and the last line.
    std::string addFolder(const ArchiveEntry& entry);
    std::string addFile(const ArchiveEntry& entry, const Sha256Digest& digest);
    std::string finish();

    std::uint64_t size() const noexcept { return size_; }  // of all lines so far
    const ArchiveTotals& totals() const noexcept { return totals_; }

private:
    std::string add(const ArchiveEntry& entry, std::string lines);

    ArchiveTotals totals_;
    Sha256 digest_;  // of all lines so far
    std::uint64_t size_ = 0;
    std::string last_;                  // path
    std::vector<std::string> folders_;  // that the next entry may be in, the innermost last
};

// Writes an archive from its beginning to its end.
class ArchiveWriter {
public:
    using Sink = std::function<void(std::span<const unsigned char>)>;

    // The sink takes each piece, or throws.
    explicit ArchiveWriter(Sink sink) : sink_(std::move(sink)) {}
    ArchiveWriter(const ArchiveWriter&) = delete;
    ArchiveWriter& operator=(const ArchiveWriter&) = delete;

    void addFolder(const ArchiveEntry& entry);

    // A file: its entry, then its bytes in pieces, entry.size in all, then the end.
    // Throws kMalformed when the bytes are more or less.
    void beginFile(const ArchiveEntry& entry);
    void write(std::span<const unsigned char> bytes);
    void endFile();

    // The manifest and the end of the archive.
    ArchiveTotals finish();

private:
    void put(const tar::Header& header);
    void pad(std::uint64_t size);

    Sink sink_;
    Manifest manifest_;
    Spill text_;  // the manifest so far, some 150 bytes a file
    ArchiveEntry file_;
    Sha256 digest_;
    std::uint64_t left_ = 0;  // bytes of the file that have not come
};

// Reads an archive from its beginning to its end, in memory that does not depend on the
// archive. Accepts exactly what ArchiveWriter makes and throws kMalformed for anything else,
// hostile archives among them. What it has returned is verified only when next() has returned
// none.
class ArchiveReader {
public:
    // Fills the front of the piece and returns how many bytes it filled: 0 at the end.
    using Source = std::function<std::size_t(std::span<unsigned char>)>;

    explicit ArchiveReader(Source source) : source_(std::move(source)) {}
    ArchiveReader(const ArchiveReader&) = delete;
    ArchiveReader& operator=(const ArchiveReader&) = delete;

    // The next folder or file; reads what is left of the file before. None when the archive
    // is complete and matches its manifest.
    std::optional<ArchiveEntry> next();

    // The next bytes of the file that next() returned; none at its end.
    std::span<const unsigned char> read();

    const ArchiveTotals& totals() const noexcept { return manifest_.totals(); }

private:
    void fill(std::span<unsigned char> bytes);
    void skipPadding(std::uint64_t size);
    tar::Header readBlock();
    tar::Header readHeader();
    void endFile();
    void readManifest(const tar::Header& header);

    Source source_;
    Manifest manifest_;
    std::optional<ArchiveEntry> file_;
    Sha256 digest_;
    std::uint64_t left_ = 0;
    std::vector<unsigned char> piece_;
};

}  // namespace fstore

#endif  // LIB_ARCHIVE_ARCHIVE_H
