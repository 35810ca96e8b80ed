// Whatever is read as a backup: what is refused is refused with a failure of our own,
// and what is accepted is, byte for byte, the archive that we make of its entries.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <vector>

#include "lib/archive/archive.h"
#include "lib/base/error.h"

namespace {

using Bytes = std::span<const unsigned char>;

void copyEntry(const fstore::ArchiveEntry& entry, fstore::ArchiveReader& reader,
               fstore::ArchiveWriter& writer) {
    if (entry.isFolder) {
        writer.addFolder(entry);
        return;
    }
    writer.beginFile(entry);
    for (Bytes piece = reader.read(); !piece.empty(); piece = reader.read()) {
        writer.write(piece);
    }
    writer.endFile();
}

std::vector<unsigned char> copyOf(Bytes archive) {
    std::vector<unsigned char> copy;
    fstore::ArchiveReader reader([&archive](std::span<unsigned char> piece) {
        const std::size_t size = std::min(piece.size(), archive.size());
        std::copy_n(archive.begin(), size, piece.begin());
        archive = archive.subspan(size);
        return size;
    });
    fstore::ArchiveWriter writer(
        [&copy](Bytes piece) { copy.insert(copy.end(), piece.begin(), piece.end()); });
    while (const auto entry = reader.next()) {
        copyEntry(*entry, reader, writer);
    }
    (void)writer.finish();
    return copy;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const Bytes archive(data, size);
    try {
        if (!std::ranges::equal(copyOf(archive), archive)) {
            std::abort();
        }
    } catch (const fstore::Failure& failure) {
        if (failure.status() != kMalformed) {
            std::abort();
        }
    }
    return 0;
}
