// Text of any length that is written once, from its beginning to its end, and read later: the
// output of a command, the rows of a long table. It takes little memory.
//
// What is beyond a few MiB goes into a file without a name, in $TMPDIR or /tmp, encrypted with a
// key that is nowhere else: it may be what a command shows of encrypted records. Where there can
// be no such file, or it cannot grow, the text stays in memory.
//
// For one thread. Throws kIo when what was written cannot be read back.
#ifndef LIB_BASE_SPILL_H
#define LIB_BASE_SPILL_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace fstore {

class Spill {
public:
    // It is written and read in pieces of this size, of which the first so many stay in memory.
    static constexpr std::size_t kPiece = 1 << 16;
    static constexpr std::size_t kPiecesInMemory = 32;

    Spill();
    Spill(Spill&&) noexcept;
    Spill& operator=(Spill&&) noexcept;
    ~Spill();

    void add(std::string_view text);
    void clear();

    std::uint64_t size() const noexcept { return pieces_.size() * kPiece + last_.size(); }

    // Reads from a position on. The Spill lives longer, and nothing is added meanwhile.
    class Reader {
    public:
        explicit Reader(const Spill& spill, std::uint64_t from = 0);
        Reader(const Reader&) = delete;
        Reader& operator=(const Reader&) = delete;

        // What is left of a piece; empty at the end. Lives until the next call.
        std::string_view next();

        // Exactly so many bytes, which there are.
        std::string take(std::size_t size);

    private:
        const Spill* spill_;
        std::size_t piece_;
        std::string text_;  // of the piece
        std::string_view left_;
        std::size_t skipped_;  // of the piece that comes next
    };

private:
    class File;

    std::string pieceAt(std::size_t index) const;
    void keep(std::string piece);

    std::vector<std::string> pieces_;  // empty for one in the file, which is there at its place
    std::string last_;                 // shorter than a piece
    std::unique_ptr<File> file_;
    bool hasNoFile_ = false;
};

}  // namespace fstore

#endif  // LIB_BASE_SPILL_H
