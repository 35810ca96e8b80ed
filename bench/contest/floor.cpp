// The floor: a plain program that issues exactly the calls of the steps by which a
// record is stored, one after the other, through stdio and POSIX.
//
// It has no framework, no cipher, no locks and no repair, and its files look like the
// store's. Everything that the store adds is paid on top of this, and everything that
// it arranges better comes off.
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <openssl/evp.h>

#include "bench/contest/files.h"
#include "os/fs.h"

namespace {

constexpr const char* kFolder = "./db/keys";

std::string pathOf(const std::string& folder, const std::string& name) {
    return folder + "/" + name;
}

// Flush, sync, close.
void syncClose(std::FILE* file) {
    require(std::fflush(file) == 0 && os::fsync(fileno(file)) == 0 && std::fclose(file) == 0,
            "floor: a file does not become durable");
}

unsigned int nextNumber = 1;

std::string uniqueName(const std::string& folder) {
    char name[16];
    do {
        std::snprintf(name, sizeof name, "%08x", nextNumber++);
    } while (exists(pathOf(folder, name)));
    return name;
}

std::FILE* openFile(const std::string& path, const char* mode) {
    std::FILE* const file = std::fopen(path.c_str(), mode);
    require(file != nullptr, "floor: no file");
    return file;
}

void appendHex(const std::vector<unsigned char>& bytes, std::string& text) {
    for (const unsigned char byte : bytes) {
        text += "0123456789abcdef"[byte >> 4];
        text += "0123456789abcdef"[byte & 15];
    }
}

void parseHex(const char* text, std::vector<unsigned char>& bytes) {
    const auto digit = [](char c) { return c <= '9' ? c - '0' : c - 'a' + 10; };
    bytes.clear();
    for (; text[0] > ' ' && text[1] > ' '; text += 2) {
        bytes.push_back(static_cast<unsigned char>(digit(text[0]) << 4 | digit(text[1])));
    }
}

void writeBody(const std::string& path, const std::vector<unsigned char>& body,
               void (*close)(std::FILE*)) {
    std::FILE* const file = openFile(path, "wb");
    require(std::fwrite(body.data(), body.size(), 1, file) == 1, "floor: no body");
    close(file);
}

void writeDescriptor(const std::string& path, const std::string& bodyName, const Record& record,
                     void (*close)(std::FILE*)) {
    std::FILE* const file = openFile(path, "wb");
    char number[40];
    std::snprintf(number, sizeof number, "00000001 00000002 %08x\n", record.number);
    std::string secret = "00000002 00000003 ";
    appendHex(record.secret, secret);
    const bool written =
        std::fputs(("10000003 00000000 " + bodyName + "\n").c_str(), file) >= 0 &&
        std::fputs(("00000003 00000001 " + record.subject + "\n").c_str(), file) >= 0 &&
        std::fputs(number, file) >= 0 && std::fputs((secret + "\n").c_str(), file) >= 0;
    require(written, "floor: no descriptor");
    close(file);
}

// Returns the name of the body file.
std::string readDescriptor(const std::string& path, Record& into) {
    std::FILE* const file = openFile(path, "rt");
    std::string body;
    char line[1024];
    while (std::fgets(line, sizeof line, file) != nullptr) {
        char* text = line;
        const unsigned long type = std::strtoul(text, &text, 16);
        const unsigned long id = std::strtoul(text, &text, 16);
        ++text;
        text[std::strcspn(text, "\n")] = '\0';
        if ((type >> 28) != 0 && id == 0) {
            body = text;
        } else if (type == 3) {
            into.subject = text;
        } else if (type == 1) {
            into.number = static_cast<std::uint32_t>(std::strtoul(text, nullptr, 16));
        } else {
            parseHex(text, into.secret);
        }
    }
    require(std::fclose(file) == 0, "floor: no descriptor is read");
    return body;
}

void readBody(const std::string& path, std::vector<unsigned char>& body) {
    std::FILE* const file = openFile(path, "rb");
    require(std::fseek(file, 0, SEEK_END) == 0, "floor: no end of the body");
    body.resize(static_cast<std::size_t>(std::ftell(file)));
    std::rewind(file);
    require(std::fread(body.data(), 1, body.size(), file) == body.size(), "floor: no body is read");
    require(std::fclose(file) == 0, "floor: no body is closed");
}

void removeWithBody(const std::string& folder, const std::string& path) {
    if (!exists(path)) {
        return;
    }
    Record old;
    const std::string body = readDescriptor(path, old);
    removeFile(path);
    removeFile(pathOf(folder, body));
}

// The steps of a write. Records of a copy that nobody sees yet need no folder sync.
void writeRecord(const std::string& folder, const std::string& descriptor, const Record& record,
                 bool syncsFolder) {
    const std::string body = uniqueName(folder);
    writeBody(pathOf(folder, body), record.body, syncClose);
    const std::string path = pathOf(folder, descriptor);
    writeDescriptor(path + ".$n$", body, record, syncClose);
    if (exists(path)) {
        renameFile(path, path + ".$o$");
    }
    renameFile(path + ".$n$", path);
    if (syncsFolder) {
        syncFolder(folder);
    }
    removeWithBody(folder, path + ".$o$");
}

struct Names {
    std::vector<std::string> files;
    std::vector<std::string> folders;
};

// The scan: the listing, and the status of every entry.
Names namesIn(const std::string& folder) {
    Names names;
    DIR* const dir = os::opendir(folder.c_str());
    require(dir != nullptr, "floor: no folder");
    while (const dirent* const entry = os::readdir(dir)) {
        struct stat status {};
        require(os::lstat(pathOf(folder, entry->d_name).c_str(), &status) == 0, "floor: no status");
        if (S_ISREG(status.st_mode)) {
            names.files.emplace_back(entry->d_name);
        } else if (S_ISDIR(status.st_mode) && std::strcmp(entry->d_name, ".") != 0 &&
                   std::strcmp(entry->d_name, "..") != 0) {
            names.folders.emplace_back(entry->d_name);
        }
    }
    os::closedir(dir);
    return names;
}

bool isDescriptor(const std::string& name) {
    return name.size() > 4 && name.compare(name.size() - 4, 4, ".dsc") == 0;
}

void copyFile(const std::string& from, const std::string& to) {
    std::FILE* const source = openFile(from, "rb");
    std::FILE* const target = openFile(to, "wb");
    char chunk[4096];
    while (const std::size_t got = std::fread(chunk, 1, sizeof chunk, source)) {
        require(std::fwrite(chunk, 1, got, target) == got, "floor: no copy");
    }
    require(std::fclose(source) == 0 && std::fclose(target) == 0, "floor: no copy is closed");
}

void copyTree(const std::string& from, const std::string& to) {
    require(os::mkdir(to.c_str(), 0750) == 0, "floor: no folder");
    const Names names = namesIn(from);
    for (const std::string& name : names.files) {
        copyFile(pathOf(from, name), pathOf(to, name));
    }
    for (const std::string& name : names.folders) {
        copyTree(pathOf(from, name), pathOf(to, name));
    }
}

void removeTree(const std::string& folder) {
    if (!exists(folder)) {
        return;
    }
    const Names names = namesIn(folder);
    for (const std::string& name : names.files) {
        removeFile(pathOf(folder, name));
    }
    for (const std::string& name : names.folders) {
        removeTree(pathOf(folder, name));
    }
    removeFile(folder);
}

void rewriteTree(const std::string& folder) {
    const Names names = namesIn(folder);
    Record record;
    for (const std::string& name : names.files) {
        if (isDescriptor(name) && name != "key.dsc") {
            const std::string body = readDescriptor(pathOf(folder, name), record);
            readBody(pathOf(folder, body), record.body);
            writeRecord(folder, name, record, false);
        }
    }
    for (const std::string& name : names.folders) {
        rewriteTree(pathOf(folder, name));
    }
}

std::vector<unsigned char> md5(const char* password) {
    std::vector<unsigned char> digest(16);
    require(EVP_Digest(password, std::strlen(password), digest.data(), nullptr, EVP_md5(),
                       nullptr) == 1,
            "floor: no digest");
    return digest;
}

void deriveKey(const char* password) {
    unsigned char key[16];
    require(PKCS5_PBKDF2_HMAC(password, static_cast<int>(std::strlen(password)), nullptr, 0, 1000,
                              EVP_sha256(), sizeof key, key) == 1,
            "floor: no key");
}

void writePasswordRecord(const std::string& folder, const char* password) {
    std::string line = "00000002 00000001 ";
    appendHex(md5(password), line);
    const std::string path = pathOf(folder, "key.dsc");
    std::FILE* const file = openFile(path + ".$n$", "wb");
    require(std::fputs((line + "\n").c_str(), file) >= 0, "floor: no password record");
    syncClose(file);
    if (exists(path)) {
        renameFile(path, path + ".$o$");
    }
    renameFile(path + ".$n$", path);
    if (exists(path + ".$o$")) {
        removeFile(path + ".$o$");
    }
}

void checkPassword(const std::string& folder, const char* password) {
    Record key;
    (void)readDescriptor(pathOf(folder, "key.dsc"), key);
    require(key.secret == md5(password), "floor: another password");
}

class Floor : public Contender {
public:
    void create() override {
        require(os::mkdir("./db", 0750) == 0 && os::mkdir(kFolder, 0750) == 0, "floor: no folder");
        writePasswordRecord("./db", kPassword);
    }

    void put(const Record& record) override {
        writeRecord(kFolder, record.name + ".dsc", record, true);
    }

    void remove(const std::string& name) override {
        const std::string path = pathOf(kFolder, name + ".dsc");
        renameFile(path, path + ".$d$");
        removeWithBody(kFolder, path + ".$d$");
        syncFolder(kFolder);
    }

    void read(const std::string& name, Record& into) override {
        const std::string body = readDescriptor(pathOf(kFolder, name + ".dsc"), into);
        readBody(pathOf(kFolder, body), into.body);
    }

    std::size_t list() override {
        const Names names = namesIn(kFolder);
        std::vector<std::string> records;
        for (const std::string& name : names.files) {
            if (isDescriptor(name)) {
                records.push_back(name.substr(0, name.size() - 4));
            }
        }
        return records.size();
    }

    void fill(std::size_t first, std::size_t end) override {
        const auto close = [](std::FILE* file) {
            require(std::fclose(file) == 0, "floor: a file is not filled");
        };
        for (std::size_t index = first; index < end; ++index) {
            const Record record = makeRecord(index, 0);
            const std::string body = uniqueName(kFolder);
            writeBody(pathOf(kFolder, body), record.body, close);
            writeDescriptor(pathOf(kFolder, record.name + ".dsc"), body, record, close);
        }
        syncDisk();
    }

    // The password is checked, and a key derived for the encoder and for the decoder.
    void open() override {
        checkPassword("./db", kPassword);
        deriveKey(kPassword);
        deriveKey(kPassword);
    }

    void changePassword(const char* from, const char* to) override {
        checkPassword("./db", from);
        removeTree("./new_db");
        copyTree("./db", "./new_db");
        deriveKey(from);
        deriveKey(to);
        rewriteTree("./new_db");
        writePasswordRecord("./new_db", to);
        deriveKey(to);
        syncDisk();
        removeTree("./old_db");
        renameFile("./db", "./old_db");
        renameFile("./new_db", "./db");
        syncFolder(".");
    }
};

}  // namespace

std::unique_ptr<Contender> makeFloor() {
    return std::make_unique<Floor>();
}
