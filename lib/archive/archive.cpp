#include "lib/archive/archive.h"

#include <algorithm>
#include <utility>

#include <fmt/format.h>

#include "lib/base/bytes.h"
#include "lib/base/digits.h"
#include "lib/base/error.h"
#include "lib/base/printable.h"

namespace fstore {
namespace {

constexpr std::size_t kPiece = 1 << 18;
constexpr std::size_t kMostName = 255;  // of a file system
constexpr unsigned int kManifestMode = 0600;
constexpr tar::Block kZeros{};

[[noreturn]] void failOnArchive(const std::string& what) {
    throw Failure(kMalformed, what);
}

[[noreturn]] void failOnPath(const std::string& path, const char* why) {
    throw Failure(kMalformed, fmt::format("the entry {} {}", printable(path), why));
}

// Whether the path is "db" or leads to something below it.
bool isInside(std::string_view path) {
    if (path.size() > tar::kMostPath || path.find('\0') != std::string_view::npos) {
        return false;
    }
    for (bool first = true;; first = false) {
        const std::size_t slash = path.find('/');
        const std::string_view name = path.substr(0, slash);
        if (name.empty() || name == "." || name == ".." || name.size() > kMostName ||
            (first && name != kArchiveRoot)) {
            return false;
        }
        if (slash == std::string_view::npos) {
            return true;
        }
        path.remove_prefix(slash + 1);
    }
}

// What is in a folder comes right behind it: "a", "a/x", "a.b".
bool comesBefore(std::string_view a, std::string_view b) {
    return std::ranges::lexicographical_compare(a, b, [](char x, char y) {
        const auto rank = [](char c) { return c == '/' ? 0 : static_cast<unsigned char>(c); };
        return rank(x) < rank(y);
    });
}

std::string_view folderInArchive(std::string_view path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? std::string_view() : path.substr(0, slash);
}

// A line of the manifest that ends in a path, as the program sha256sum writes it.
std::string lineOf(const std::string& head, const std::string& path) {
    std::string escaped;
    for (const char c : path) {
        escaped += c == '\n' ? "\\n" : c == '\\' ? "\\\\" : std::string(1, c);
    }
    return (escaped == path ? "" : "\\") + head + escaped + "\n";
}

bool isZero(std::span<const unsigned char> bytes) {
    return std::ranges::all_of(bytes, [](unsigned char byte) { return byte == 0; });
}

tar::Header headerOf(const ArchiveEntry& entry) {
    return {entry.isFolder ? tar::Type::kFolder : tar::Type::kFile, entry.mode, entry.size,
            entry.path};
}

}  // namespace

void Manifest::check(const ArchiveEntry& entry) const {
    if (!isInside(entry.path)) {
        failOnPath(entry.path, "does not belong to a database");
    }
    if (!last_.empty() && !comesBefore(last_, entry.path)) {
        failOnPath(entry.path, "is out of order, or occurs twice");
    }
    const std::string_view folder = folderInArchive(entry.path);
    const bool isRoot = folder.empty();
    if (isRoot ? !entry.isFolder : std::ranges::find(folders_, folder) == folders_.end()) {
        failOnPath(entry.path, "is in a folder that the archive does not contain");
    }
    if (entry.size > tar::kMostSize || (entry.isFolder && entry.size != 0)) {
        failOnPath(entry.path, "has an impossible size");
    }
    if (entry.mode > 0777) {
        failOnPath(entry.path, "has an impossible mode");
    }
}

std::string Manifest::add(const ArchiveEntry& entry, std::string lines) {
    check(entry);
    if (last_.empty()) {
        lines = "# filestore backup 1\n" + lines;
    }
    last_ = entry.path;
    while (!folders_.empty() && folders_.back() != folderInArchive(entry.path)) {
        folders_.pop_back();
    }
    totals_.bytes += entry.size;
    digest_.add(lines);
    size_ += lines.size();
    return lines;
}

std::string Manifest::addFolder(const ArchiveEntry& entry) {
    std::string lines =
        add(entry, "# " + lineOf(fmt::format("folder {:04o} ", entry.mode), entry.path));
    folders_.push_back(entry.path);
    ++totals_.folders;
    return lines;
}

std::string Manifest::addFile(const ArchiveEntry& entry, const Sha256Digest& digest) {
    ++totals_.files;
    return add(entry, fmt::format("# file {:04o} {}\n", entry.mode, entry.size) +
                          lineOf(toHex(digest) + "  ", entry.path));
}

std::string Manifest::finish() {
    if (totals_.folders == 0) {
        failOnArchive("it is empty");
    }
    std::string line = fmt::format("# end: {} folders, {} files\n", totals_.folders, totals_.files);
    digest_.add(line);
    size_ += line.size();
    totals_.manifest = digest_.finish();
    return line;
}

void ArchiveWriter::addFolder(const ArchiveEntry& entry) {
    text_.add(manifest_.addFolder(entry));
    put(headerOf(entry));
}

void ArchiveWriter::beginFile(const ArchiveEntry& entry) {
    manifest_.check(entry);
    file_ = entry;
    left_ = entry.size;
    digest_ = Sha256();
    put(headerOf(entry));
}

void ArchiveWriter::write(std::span<const unsigned char> bytes) {
    if (bytes.size() > left_) {
        failOnPath(file_.path, "grew while it was being read");
    }
    left_ -= bytes.size();
    digest_.add(bytes);
    sink_(bytes);
}

void ArchiveWriter::endFile() {
    if (left_ != 0) {
        failOnPath(file_.path, "shrank while it was being read");
    }
    pad(file_.size);
    text_.add(manifest_.addFile(file_, digest_.finish()));
}

ArchiveTotals ArchiveWriter::finish() {
    text_.add(manifest_.finish());
    put({tar::Type::kFile, kManifestMode, text_.size(), kManifestName});
    Spill::Reader manifest(text_);
    for (std::string_view piece = manifest.next(); !piece.empty(); piece = manifest.next()) {
        sink_(bytesOf(piece));
    }
    pad(text_.size());
    sink_(kZeros);
    sink_(kZeros);
    return manifest_.totals();
}

void ArchiveWriter::put(const tar::Header& header) {
    sink_(tar::print(header));
}

void ArchiveWriter::pad(std::uint64_t size) {
    sink_(std::span(kZeros).first(tar::paddingOf(size)));
}

std::optional<ArchiveEntry> ArchiveReader::next() {
    if (file_) {
        endFile();
    }
    const tar::Header header = readHeader();
    if (header.path == kManifestName) {
        readManifest(header);
        return std::nullopt;
    }
    ArchiveEntry entry{header.type == tar::Type::kFolder, header.path, header.mode, header.size};
    if (entry.isFolder) {
        (void)manifest_.addFolder(entry);
    } else {
        manifest_.check(entry);
        file_ = entry;
        left_ = entry.size;
        digest_ = Sha256();
    }
    return entry;
}

std::span<const unsigned char> ArchiveReader::read() {
    piece_.resize(kPiece);
    const auto piece =
        std::span(piece_).first(static_cast<std::size_t>(std::min<std::uint64_t>(left_, kPiece)));
    fill(piece);
    left_ -= piece.size();
    digest_.add(piece);
    return piece;
}

void ArchiveReader::endFile() {
    while (!read().empty()) {
    }
    skipPadding(file_->size);
    (void)manifest_.addFile(*file_, digest_.finish());
    file_.reset();
}

void ArchiveReader::fill(std::span<unsigned char> bytes) {
    while (!bytes.empty()) {
        const std::size_t got = source_(bytes);
        if (got == 0) {
            failOnArchive("the archive is truncated");
        }
        bytes = bytes.subspan(got);
    }
}

void ArchiveReader::skipPadding(std::uint64_t size) {
    tar::Block block;
    const auto padding = std::span(block).first(tar::paddingOf(size));
    fill(padding);
    if (!isZero(padding)) {
        failOnArchive("the archive is damaged: the padding between files is not zero");
    }
}

tar::Header ArchiveReader::readBlock() {
    tar::Block block;
    fill(block);
    if (isZero(block)) {
        failOnArchive("the archive has no manifest");
    }
    auto header = tar::parse(block);
    if (!header) {
        failOnArchive("not a backup made by fstore, or a damaged one");
    }
    return std::move(*header);
}

tar::Header ArchiveReader::readHeader() {
    tar::Header header = readBlock();
    if (header.type != tar::Type::kLongPath) {
        return header;
    }
    std::string record(std::min<std::uint64_t>(header.size, 2 * tar::kMostPath), '\0');
    fill({reinterpret_cast<unsigned char*>(record.data()), record.size()});
    skipPadding(record.size());
    auto path = tar::parseLongPath(record);
    header = readBlock();
    if (!path || header.type == tar::Type::kLongPath ||
        path->substr(0, tar::kShortPath) != header.path) {
        failOnArchive("the archive is damaged: a long path cannot be read");
    }
    header.path = std::move(*path);
    return header;
}

void ArchiveReader::readManifest(const tar::Header& header) {
    (void)manifest_.finish();
    const ArchiveTotals& totals = manifest_.totals();
    const bool fits = header.type == tar::Type::kFile && header.mode == kManifestMode &&
                      header.size == manifest_.size();
    left_ = fits ? header.size : 0;
    digest_ = Sha256();
    while (!read().empty()) {
    }
    if (!fits || digest_.finish() != totals.manifest) {
        failOnArchive("the archive is damaged: its contents do not match its manifest");
    }
    skipPadding(header.size);
    tar::Block end;
    for (int i = 0; i < 2; ++i) {
        fill(end);
        if (!isZero(end)) {
            failOnArchive("the archive is damaged: there is data after its manifest");
        }
    }
    if (source_(std::span(end).first(1)) != 0) {
        failOnArchive("there is data after the archive");
    }
}

}  // namespace fstore
