// A record's descriptor as a file: the text of format/dsc_text.h, its encrypted
// attributes, and the line that names the body file.
#include <cstring>
#include <limits>
#include <memory>
#include <span>
#include <utility>

#include "cmn/no_throw.h"
#include "os/files.h"
#include "store/context.h"
#include "store/file_store.h"
#include "store/record_file.h"

Status FileStore::bringAttr(const Attr& attr, std::string& line) {
    aBuf bytes(attr.data, attr.size);
    if ((attr.type & (kFlagEncrypted | kFlagBody)) == kFlagEncrypted && bytes.target() != nullptr) {
        bytes = encoder.encrypt(bytes);
    }
    if (bytes.target() == nullptr) {
        return kIo;
    }
    line.clear();
    const std::span<const unsigned char> data = bytes.view();
    return appendDscLine(attr.type, attr.id, data.data(), static_cast<unsigned int>(data.size()),
                         line);
}

Status FileStore::parseAttr(const char* line, Attr& attr) {
    DscHead head;
    if (const Status status = parseDscHead(line, head); status != kOk) {
        return status;
    }
    return noThrow([&] {
        const std::size_t room = roomForData(head);
        if (room > std::numeric_limits<unsigned int>::max()) {
            return kNoMemory;
        }
        auto data = std::make_unique_for_overwrite<unsigned char[]>(room);
        auto size = static_cast<unsigned int>(room);
        if (const Status status = PrintToData(head.type, head.text, data.get(), size);
            status != kOk) {
            return status;
        }
        attr.adopt(head.type, head.id, std::move(data), size);
        return kOk;
    });
}

// The whole text, so that the file is written with one call.
Status FileStore::renderDSC(const char* bodyFileName, std::string& text) {
    std::string line;
    const auto append = [&](const Attr& attr) {
        const Status status = bringAttr(attr, line);
        if (status == kOk) {
            text += line;
            text += '\n';
        }
        return status;
    };
    if (bodyFileName != nullptr && *bodyFileName != '\0') {
        Attr reference;
        const unsigned int word =
            kTypeString | kFlagBody | ((bodyFlag & 1) != 0 ? kFlagEncrypted : 0);
        if (const Status status =
                reference.set(word, 0, reinterpret_cast<const unsigned char*>(bodyFileName),
                              static_cast<unsigned int>(std::strlen(bodyFileName) + 1));
            status != kOk) {
            return status;
        }
        if (const Status status = append(reference); status != kOk) {
            return status;
        }
    }
    for (const Attr& attr : attrs) {
        if (const Status status = append(attr); status != kOk) {
            return status;
        }
    }
    return kOk;
}

// Leaves the file open and not yet durable; a failure leaves none.
Status FileStore::writeDscFile(const char* path, const char* bodyFileName, os::File& file) {
    os::TempPath unfinished(path);
    os::File opened = os::createAnew(path);
    if (!opened) {
        unfinished.commit();  // nothing was made
        return kIo;
    }
    std::string text;
    if (const Status status = renderDSC(bodyFileName, text); status != kOk) {
        return status;
    }
    if (!os::writeAll(opened.get(), text.data(), text.size())) {
        if (!Context::mayChange()) {
            unfinished.commit();  // it may be another's by now
        }
        return kIo;
    }
    unfinished.commit();
    file = std::move(opened);
    return kOk;
}

Status FileStore::writeDSC(const char* path, const char* bodyFileName) {
    if (path == nullptr) {
        return kInvalid;
    }
    return noThrow([&] {
        os::File file;
        if (const Status status = writeDscFile(path, bodyFileName, file); status != kOk) {
            return status;
        }
        return os::closeDurably(std::move(file)) ? kOk : kIo;
    });
}

namespace {

constexpr std::size_t kUsualLines = 8;

// The file's bytes with one spare byte behind them, for the line reader: in the file's own
// room, or in `large`.
Status readText(RecordFile& file, std::unique_ptr<char[]>& large, char*& text) {
    text = file.whole();
    if (text != nullptr) {
        return kOk;
    }
    // More than a line could hold is more than memory should be asked for.
    if (file.size() >= std::numeric_limits<unsigned int>::max()) {
        return kNoMemory;
    }
    large = std::make_unique_for_overwrite<char[]>(static_cast<std::size_t>(file.size()) + 1);
    text = large.get();
    return file.copyTo(text) ? kOk : kMalformed;
}

}  // namespace

Status FileStore::readDSC(const char* path, std::vector<Attr>& attrs) {
    if (path == nullptr) {
        return kInvalid;
    }
    return noThrow([&] {
        RecordFile file;
        if (const Status status = file.open(path, kMalformed); status != kOk) {
            return status;
        }
        std::unique_ptr<char[]> large;
        char* text = nullptr;
        if (const Status status = readText(file, large, text); status != kOk) {
            return status;
        }
        attrs.reserve(attrs.size() + kUsualLines);  // or the first few would move each time
        DscLineReader lines(text, static_cast<std::size_t>(file.size()));
        const char* line = nullptr;
        Status status = lines.next(line);
        for (; status == kOk; status = lines.next(line)) {
            Attr attr;
            if (const Status bad = parseAttr(line, attr); bad != kOk) {
                return bad;
            }
            attrs.push_back(std::move(attr));
        }
        return status == kEnd ? kOk : status;
    });
}
