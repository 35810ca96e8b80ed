// The text of a record's descriptor: one attribute a line, and nothing else.
//
// A line is the attribute's type word, a blank, its id, a blank (both numbers
// as 8 lower-case hexadecimal digits), then the data, written as its type requires. This
// code turns lines into data and data into lines: bytes in, value and status out. It knows
// no file, lock, cipher or proxy and remembers nothing between calls; any thread may call
// anything.
//
// No function throws. For want of memory the status is kNoMemory, and a string that was to
// be filled is empty or, when appended to, unchanged.
#ifndef FORMAT_DSC_TEXT_H
#define FORMAT_DSC_TEXT_H

#include <cstddef>
#include <string>
#include <string_view>

#include "cmn/status.h"

// The type word: the data type in bits 0-3, flags above. Only the data type decides how
// data is written; all other bits are carried as they are.
inline constexpr unsigned int kTypeMask = 0xf;
inline constexpr unsigned int kTypeNumber = 1;  // 32 bits in host byte order
inline constexpr unsigned int kTypeBinary = 2;  // any bytes
inline constexpr unsigned int kTypeString = 3;  // text with its terminating NUL
inline constexpr unsigned int kTypeText = 4;    // text without a NUL
inline constexpr unsigned int kFlagEncrypted = 0x01000000;
inline constexpr unsigned int kFlagBody = 0x10000000;  // the line names the body file

// Puts into `out` the text of `size` bytes of data: a number as 8 hexadecimal
// digits, binary bytes as 2 each, a string or text up to its first NUL.
//   kOk         `out` is the text
//   kInvalid    null data
//   kMalformed  not one of the four types, or a number that is not 4 bytes
//               long: half of a number, or a number and more, has no text
// `out` is unchanged after kInvalid and kMalformed.
[[nodiscard]] Status DataToPrint(unsigned int type, const unsigned char* data, unsigned int size,
                                 std::string& out);

// Puts into `out` the data whose text is given. `size` is the room at `out` on
// entry and the number of bytes there on return. Binary text ends at the first
// white space, and a single last digit is a byte of its own; when the room is full, the
// rest is ignored.
//   kOk         `out` holds `size` bytes
//   kInvalid    null text or out; `size` is unchanged
//   kTooSmall   a number, string or text does not fit; `size` is the room it needs
//   kMalformed  not one of the four types, or not a number (`size` is 0); not
//               hexadecimal (`size` bytes before that place are at `out`)
[[nodiscard]] Status PrintToData(unsigned int type, const char* text, unsigned char* out,
                                 unsigned int& size);

// The same for a text that need not end in NUL, nor contain one; `out` is not null.
[[nodiscard]] Status PrintToData(unsigned int type, std::string_view text, unsigned char* out,
                                 unsigned int& size);

// A line taken apart, its data not yet read.
struct DscHead {
    unsigned int type = 0;  // the whole type word
    unsigned int id = 0;
    std::string_view text;  // lies in the line and lives as long as it
};

// Reads the line as the C conversions "%x %x %[^\n]" do: any white space may precede the
// three items and is not part of them, numbers may have a sign, "0x" and any number of
// digits, and the text ends before a line feed. A number that does not fit into 32 bits
// is read as the largest that does, in every build.
//   kOk         `head` is set
//   kInvalid    null line
//   kMalformed  fewer than two numbers
[[nodiscard]] Status parseDscHead(const char* line, DscHead& head);

// Room that is never too small for PrintToData() with this text. The `size` there has 32
// bits: a caller with a larger size_t must check that the room fits.
[[nodiscard]] std::size_t roomForData(const DscHead& head);

// Appends a line, without a line feed, to `out`. Statuses as DataToPrint(),
// with `out` unchanged unless kOk is returned.
[[nodiscard]] Status appendDscLine(unsigned int type, unsigned int id, const unsigned char* data,
                                   unsigned int size, std::string& out);

// A line with its data.
struct DscLine {
    unsigned int type = 0;
    unsigned int id = 0;
    std::string data;
};

// What parses also prints, and what was printed parses to the same value.
//   kOk         `value` is set
//   kInvalid    null line
//   kNoMemory   also when the data would be longer than 32 bits can say
//   kMalformed  as parseDscHead() and PrintToData()
[[nodiscard]] Status parseDscLine(const char* line, DscLine& value);

// Makes `text` the line of `value`, without a line feed. Statuses as
// DataToPrint(), with `text` empty unless kOk is returned.
[[nodiscard]] Status printDscLine(const DscLine& value, std::string& text);

// Whether a line has something to say: it is not blank and no comment ("!" as the first
// character that is not white space).
[[nodiscard]] bool hasContent(const char* line);

// Takes a whole descriptor apart into lines, in one pass and in place.
//
// Lines are those that a loop of fgets() over a buffer that grows by 1024 bytes would read
// as C strings, because descriptors have always been read that way. This matters only if a
// descriptor contains NUL bytes: a NUL hides the rest of what one fgets() took, and what
// the next one takes follows directly. A descriptor without NUL bytes is cut at its line
// feeds, and no byte is moved.
class DscLineReader {
public:
    // Reads the `size` bytes at `bytes`. One more byte, bytes[size], must be writable;
    // data() and size() of a std::string will do. While lines are in use, the owner keeps
    // all of it alive and nobody else writes to it.
    DscLineReader(char* bytes, std::size_t size) noexcept : at_(bytes), end_(bytes + size) {}

    // Moves to the next line that has something to say. `line` ends in NUL instead of
    // its line feed, and is valid as long as the bytes are.
    //   kOk         `line` is set
    //   kEnd        no line is left
    //   kMalformed  a NUL byte at the start of a line; the reading ends
    [[nodiscard]] Status next(const char*& line) noexcept;

    // The same for any line, for those who show what next() leaves out.
    [[nodiscard]] Status nextOfAll(const char*& line) noexcept;

private:
    char* at_;   // the next byte to be read
    char* end_;  // the spare byte
};

#endif  // FORMAT_DSC_TEXT_H
