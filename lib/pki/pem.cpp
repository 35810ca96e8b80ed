#include "lib/pki/pem.h"

#include <algorithm>
#include <utility>

#include <fmt/format.h>

#include "lib/base/error.h"
#include "lib/pki/der.h"
#include "lib/pki/ossl.h"

namespace fstore {
namespace {

// Types are shorter; a line that ends in no dashes may be of any length.
constexpr std::size_t kMostType = 64;

constexpr std::string_view kBegin = "BEGIN";
constexpr std::string_view kEnd = "END";

// Other programs pass over control characters, and bytes beyond ASCII at the end of a line. The
// latter are the blanks of web pages more often than not.
bool isBlank(char c) {
    return static_cast<unsigned char>(c) <= ' ' || static_cast<unsigned char>(c) >= 0x80;
}

char upper(char c) {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

bool isWordPart(char c) {
    return (upper(c) >= 'A' && upper(c) <= 'Z') || (c >= '0' && c <= '9');
}

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && isBlank(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && isBlank(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

// Takes the first line off; it ends in a line feed, a carriage return or both.
std::string_view takeLine(std::string_view& rest) {
    const std::size_t end = std::min(rest.find_first_of("\r\n"), rest.size());
    const std::string_view line = rest.substr(0, end);
    rest.remove_prefix(end);
    rest.remove_prefix(rest.starts_with("\r\n") ? 2 : std::min<std::size_t>(rest.size(), 1));
    return line;
}

// The bytes of the dash that the text begins with; 0 for none. Word processors make long
// dashes, U+2010 to U+2015 or U+2212, of pairs.
std::size_t dashAtFront(std::string_view text) {
    if (text.starts_with('-')) {
        return 1;
    }
    constexpr std::size_t kLong = 3;
    const bool isLong = text.size() >= kLong &&
                        ((text.starts_with("\xE2\x80") && text[2] >= '\x90' && text[2] <= '\x95') ||
                         text.starts_with("\xE2\x88\x92"));
    return isLong ? kLong : 0;
}

std::size_t dashAtBack(std::string_view text) {
    if (text.ends_with('-')) {
        return 1;
    }
    constexpr std::size_t kLong = 3;
    return text.size() >= kLong ? dashAtFront(text.substr(text.size() - kLong)) : 0;
}

// "X509 CRL", "EC PARAMETERS": what PEM blocks are called, and hardly anything else.
bool isUsualType(std::string_view type) {
    constexpr std::string_view kLastWords[] = {"CERTIFICATE", "CRL",   "KEY",    "REQUEST",
                                               "PARAMETERS",  "PKCS7", "PKCS12", "CMS"};
    const std::size_t blank = type.find_last_of(' ');
    const std::string_view last = type.substr(blank == std::string_view::npos ? 0 : blank + 1);
    return std::ranges::find(kLastWords, last) != std::end(kLastWords);
}

// BEGIN or END with its type and its dashes, in a line.
struct Mark {
    bool begins;
    std::string type;
    std::size_t from, to;  // of the dashes in front, and past those behind
};

// The dashes in front of a word, with the blanks between them.
struct DashesBefore {
    std::size_t from;
    unsigned int count = 0;

    DashesBefore(std::string_view line, std::size_t word) : from(word) {
        for (std::string_view left = line.substr(0, word); !left.empty();) {
            const std::size_t dash = dashAtBack(left);
            if (dash == 0 && !isBlank(left.back())) {
                break;
            }
            left.remove_suffix(std::max<std::size_t>(dash, 1));
            if (dash != 0) {
                from = left.size();
                count += dash == 1 ? 1 : 2;
            }
        }
    }
};

// The mark whose word stands at `at`. Two dashes in front make a mark of any type. With
// fewer it takes the usual capitals and a usual type: text in front of a block may speak of a
// beginning, too.
std::optional<Mark> markAt(std::string_view line, std::size_t at, bool begins) {
    const std::string_view word = begins ? kBegin : kEnd;
    const std::size_t after = at + word.size();
    if ((at > 0 && isWordPart(line[at - 1])) || (after < line.size() && isWordPart(line[after]))) {
        return std::nullopt;
    }
    std::size_t to = after;
    while (to < line.size() && to - after < kMostType && dashAtFront(line.substr(to)) == 0) {
        ++to;
    }
    std::string type(trimmed(line.substr(after, to - after)));
    std::ranges::transform(type, type.begin(), upper);
    while (const std::size_t dash = dashAtFront(line.substr(to))) {
        to += dash;
    }
    const DashesBefore dashes(line, at);
    if (dashes.count < 2 && !(line.substr(at).starts_with(word) && isUsualType(type))) {
        return std::nullopt;
    }
    return Mark{begins, std::move(type), dashes.from, to};
}

bool standsAt(std::string_view line, std::size_t at, std::string_view word) {
    return std::ranges::equal(line.substr(at, word.size()), word, {}, upper);
}

// The first mark that begins at or behind `at`.
std::optional<Mark> nextMark(std::string_view line, std::size_t at) {
    for (; at < line.size(); ++at) {
        const bool begins = standsAt(line, at, kBegin);
        if (begins || standsAt(line, at, kEnd)) {
            if (auto mark = markAt(line, at, begins)) {
                return mark;
            }
        }
    }
    return std::nullopt;
}

// Gathers blocks from marks, line by line.
class Finder {
public:
    Finder(std::string_view text, std::size_t most) : text_(text), most_(most) {}

    std::vector<PemBlock> find() {
        for (std::string_view rest = text_; !rest.empty();) {
            ++number_;
            lookAt(takeLine(rest));
        }
        close(text_.size(), PemBlock::Shape::kNoEnd);
        return std::move(blocks_);
    }

private:
    void lookAt(std::string_view line) {
        const auto start = static_cast<std::size_t>(line.data() - text_.data());
        for (auto mark = nextMark(line, 0); mark; mark = nextMark(line, mark->to)) {
            if (mark->begins) {
                close(start + mark->from, PemBlock::Shape::kNoEnd);
                add(PemBlock::Shape::kNoEnd, *mark, line);
                isOpen_ = true;
            } else if (isOpen_) {
                close(start + mark->from, PemBlock::Shape::kWhole);
            } else if (isUsualType(mark->type)) {
                add(PemBlock::Shape::kNoBegin, *mark, line);
                blocks_.back().text = behindDashes(text_.substr(past_, start + mark->from - past_));
            }
            past_ = start + mark->to;
        }
    }

    // What is behind the last line with dashes, which may be what is left of a BEGIN.
    static std::string_view behindDashes(std::string_view text) {
        const std::size_t dashes = text.rfind("--");
        if (dashes != std::string_view::npos) {
            text.remove_prefix(dashes);
            (void)takeLine(text);
        }
        return text;
    }

    void add(PemBlock::Shape shape, const Mark& mark, std::string_view line) {
        if (blocks_.size() == most_) {
            throw Failure(kInvalid, fmt::format("the file has more than {} PEM blocks", most_));
        }
        blocks_.push_back({shape, mark.type, number_, line.substr(0, mark.from), {}});
    }

    // Ends the block that is open, if one is, in front of `at`.
    void close(std::size_t at, PemBlock::Shape shape) {
        if (isOpen_) {
            // Two marks may share the dashes between them.
            blocks_.back().text = text_.substr(past_, std::max(at, past_) - past_);
            blocks_.back().shape = shape;
            isOpen_ = false;
        }
    }

    std::string_view text_;
    std::size_t most_;
    unsigned int number_ = 0;  // of the line
    std::vector<PemBlock> blocks_;
    bool isOpen_ = false;   // the last block has not ended yet
    std::size_t past_ = 0;  // the last mark
};

// Lines of a block without what all of them begin with: "> ", "# ".
class Lines {
public:
    explicit Lines(const PemBlock& block) : rest_(block.text), margin_(trimmed(block.margin)) {
        std::string_view rest = rest_;
        (void)takeLine(rest);  // what is left of BEGIN's line
        while (!rest.empty()) {
            const std::string_view line = trimmed(takeLine(rest));
            if (!line.empty() && !line.starts_with(margin_)) {
                margin_ = {};  // it stands in front of BEGIN alone
            }
        }
    }

    bool atEnd() const { return rest_.empty(); }
    std::string_view take() {
        std::string_view line = takeLine(rest_);
        line = trimmed(line.substr(0, line.find('\0')));  // other programs look no further
        if (!isFirst_ && line.starts_with(margin_)) {
            line = trimmed(line.substr(margin_.size()));
        }
        isFirst_ = false;
        return line;
    }

private:
    std::string_view rest_;
    std::string_view margin_;
    bool isFirst_ = true;
};

bool isDigit(char c) {
    return isWordPart(c) || c == '+' || c == '/';
}

// Gathers digits of base 64. Padding may be missing; what is decoded has a length of its own.
class Digits {
public:
    // False when the line holds something else.
    bool add(std::string_view line) {
        for (const char c : line) {
            if (isOver_) {
                break;
            }
            const bool isPadding = c == '=';
            if (c == '-') {
                isOver_ = !digits_.empty();  // before that it belongs to BEGIN
            } else if (isPadding || (isPadded_ && isDigit(c))) {
                if (!isPadding) {
                    return false;
                }
                isPadded_ = true;
            } else if (isDigit(c)) {
                digits_.push_back(static_cast<unsigned char>(c));
            } else if (!isBlank(c)) {
                return false;
            }
        }
        return true;
    }

    std::optional<SecretBytes> decoded() {
        constexpr std::size_t kGroup = 4, kGroupBytes = 3;
        const std::size_t missing = (kGroup - digits_.size() % kGroup) % kGroup;
        if (digits_.empty() || missing == kGroup - 1) {
            return std::nullopt;
        }
        digits_.insert(digits_.end(), missing, '=');
        SecretBytes bytes(digits_.size() / kGroup * kGroupBytes);
        if (EVP_DecodeBlock(bytes.data(), digits_.data(), static_cast<int>(digits_.size())) < 0) {
            return std::nullopt;
        }
        bytes.resize(bytes.size() - missing);
        return bytes;
    }

private:
    SecretBytes digits_;
    bool isPadded_ = false;
    bool isOver_ = false;
};

bool hasColon(std::string_view line) {
    return line.find(':') != std::string_view::npos;
}

// The lines up to the last one with a colon, which no digit is.
std::size_t linesOfFields(const PemBlock& block) {
    std::size_t count = 0, number = 0;
    for (Lines lines(block); !lines.atEnd();) {
        ++number;
        count = hasColon(lines.take()) ? number : count;
    }
    return count;
}

// The lines up to an empty one: other programs take any words for a header.
std::size_t linesOfWords(const PemBlock& block) {
    std::size_t number = 0;
    bool hasText = false;
    for (Lines lines(block); !lines.atEnd(); ++number) {
        const bool isEmpty = lines.take().empty();
        if (isEmpty && hasText) {
            break;
        }
        hasText = hasText || !isEmpty;
    }
    return number;
}

std::optional<PemContent> contentBehind(std::size_t header, const PemBlock& block) {
    PemContent content;
    Digits digits;
    std::size_t number = 0;
    for (Lines lines(block); !lines.atEnd(); ++number) {
        const std::string_view line = lines.take();
        if (number >= header) {
            if (!digits.add(line)) {
                return std::nullopt;
            }
        } else if (hasColon(line)) {  // others may be digits of a secret after all
            content.header += line;
            content.header += '\n';
        }
    }
    auto der = digits.decoded();
    if (!der) {
        return std::nullopt;
    }
    content.der = std::move(*der);
    return content;
}

// Whether nothing speaks for digits that are not a part of it, or for others that are.
bool isPlausible(const PemContent& content) {
    return !content.header.empty() || endOfSequence(content.der) == content.der.size();
}

}  // namespace

std::vector<PemBlock> findPemBlocks(std::string_view text, std::size_t most) {
    return Finder(text, most).find();
}

std::optional<PemContent> contentOf(const PemBlock& block) {
    auto content = contentBehind(linesOfFields(block), block);
    if (!content || !isPlausible(*content)) {
        auto behindWords = contentBehind(linesOfWords(block), block);
        if (behindWords && (!content || isPlausible(*behindWords))) {
            return behindWords;
        }
    }
    return content;
}

}  // namespace fstore
