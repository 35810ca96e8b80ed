// One record of the store: a name, a folder, typed attributes and an optional body.
//
// Programs use records through the handles of client/file_store_exp.h, which says what
// each operation does that a handle has too. Here is what only the module sees.
//
// On disk a record is a descriptor, a text file of one attribute a line, and a
// body file that the descriptor names; see docs/disk-format.md, and
// docs/crash-safety.md for the order in which they are written. No operation throws.
#ifndef STORE_FILE_STORE_H
#define STORE_FILE_STORE_H

#include <memory>
#include <string>
#include <vector>

#include "api/t_filestore.h"
#include "client/cmn_abuf.h"
#include "client/crypto_coder_exp.h"
#include "cmn/export.h"
#include "cmn/secret_bytes.h"
#include "cmn/status.h"
#include "format/body_reference.h"
#include "format/dsc_text.h"
#include "format/record_name.h"
#include "os/handles.h"
#include "store/crypto_coder.h"
#include "store/file_store_list.h"
#include "store/record_disk.h"
#include "store/rw_locker.h"

class CMN_EXPORT FileStore : public TFileStore {
public:
    // An attribute: its type word (data type and flags, format/dsc_text.h), its id, and
    // its data, which it owns and wipes before it frees it.
    class Attr {
    public:
        Attr() noexcept = default;
        Attr(Attr&& other) noexcept;
        Attr& operator=(Attr&& other) noexcept;
        ~Attr();

        // Takes a copy of the data and the whole type word. Text ends at its NUL for
        // type 3, whatever the size; `pending` stays as it is.
        //   kInvalid    null data
        //   kMalformed  a number that is not 4 bytes long, or text with a line feed
        //   kNoMemory   the attribute is empty then
        [[nodiscard]] Status set(unsigned int newType, unsigned int newId,
                                 const unsigned char* newData, unsigned int newSize);
        // Takes over an array made with new[].
        void adopt(unsigned int newType, unsigned int newId,
                   std::unique_ptr<unsigned char[]> newData, unsigned int newSize) noexcept;
        void clear() noexcept;  // `pending` stays as it is

        unsigned int dataType() const noexcept { return type & kTypeMask; }
        bool isBodyReference() const noexcept { return ::isBodyReference(type, id); }
        std::string_view bytes() const noexcept {
            return {reinterpret_cast<const char*>(data), size};
        }
        std::string text() const;  // the data up to its first NUL

        unsigned int type = 0;
        unsigned int id = 0;
        unsigned int size = 0;          // bytes at `data`
        unsigned char* data = nullptr;  // owned; null when empty
        unsigned int pending = 0;       // 1: the data is still encrypted
    };

    // Whether a write is durable when it returns, and whole at every moment before; or nobody
    // sees the record before the caller has made a whole tree durable.
    enum class Sync { kNow, kLater };

    // Empty and unnamed, in folder ".", with lock and login check.
    FileStore();
    FileStore(const FileStore&) = delete;
    FileStore& operator=(const FileStore&) = delete;
    ~FileStore() override;

    Status init() override;  // kOk, and nothing else; as fini()
    Status fini() override;

    const char* getFolderName() override;
    Status setFolderName(const char* folder) override;
    const char* getName() override;
    Status setName(const char* newName) override;
    const char* getFileName() override;
    Status setFileName(const char* newFileName) override;

    Status decrypt() override;

    Status setBody(const unsigned char* bytes, unsigned int size) override;
    unsigned int getBodySize() override;
    const unsigned char* getBody() override;
    Status setBodyFlag(unsigned int flag) override;
    unsigned int getBodyFlag() override;
    int hasBody() override;

    Status addAttr(unsigned int kind, unsigned int id, const unsigned char* data,
                   unsigned int size) override;
    Status setAttr(unsigned int kind, unsigned int id, const unsigned char* data,
                   unsigned int size) override;
    unsigned int getAttrCount() override;
    unsigned int getAttrType(unsigned int index) override;
    unsigned int getAttrID(unsigned int index) override;
    unsigned int getAttrSize(unsigned int index) override;
    const unsigned char* getAttr(unsigned int index) override;
    Status setAttrFlag(unsigned int index, unsigned int flag) override;
    unsigned int getAttrFlag(unsigned int index) override;
    unsigned int findAttr(unsigned int kind, unsigned int id, const unsigned char* data,
                          unsigned int size) override;
    // kInvalid for an index out of range (setAttrFlag() says kEnd; programs rely on both).
    Status removeAttr(unsigned int index) override;
    Status removeAttrs() override;

    Status read() override;
    Status write() override;
    int isExist() override;
    Status remove() override;

    unsigned int getUniqueID() override;
    Status setLockType(int newType) override;  // RWLocker::kNoLock, or any other
    Status setLoginCheck(int check) override;

    // setFileName() that takes the name over.
    CMN_HIDDEN void adoptFileName(std::string newFileName);

    // write(), with the choice of durability.
    [[nodiscard]] Status store(Sync sync);

    // The steps of the above, for the descriptor and for the body file.

    // `line` becomes the attribute's line, without line feed; data with the encrypted flag
    // is encrypted. kIo when the cipher returned nothing, otherwise as DataToPrint().
    [[nodiscard]] Status bringAttr(const Attr& attr, std::string& line);
    // Statuses of parseDscHead() and PrintToData(); `pending` is not set.
    [[nodiscard]] static Status parseAttr(const char* line, Attr& attr);
    // Writes a whole descriptor, durably. `bodyFileName` may be null or empty for
    // none. A failure leaves no file, but for that of the durable close.
    [[nodiscard]] Status writeDSC(const char* path, const char* bodyFileName);
    // Appends the descriptor's attributes; at a bad line those before it are appended.
    //   kMissing    it cannot be opened
    //   kNoMemory   also when its size has more than 32 bits
    //   kMalformed  it cannot be read, or a line is bad
    [[nodiscard]] static Status readDSC(const char* path, std::vector<Attr>& attrs);
    // Writes the body file, durably, encrypted when flagged; kIo, with no file left
    // but for a failure of the durable close. An empty body file cannot be written.
    [[nodiscard]] Status writeBody(const char* path);
    // kMissing when it cannot be opened, kIo when it cannot be read whole.
    [[nodiscard]] Status readBody(const char* path);
    // Deletes a descriptor of this name and the body file that it names, if that is
    // a plain name.
    //   kInvalid  null argument      kMissing  no such file
    //   kIo       not deleted        others    as readDSC(); nothing is deleted
    [[nodiscard]] static Status removeObj(const char* folder, const char* fileName);

private:
    struct NewFiles;

    CMN_HIDDEN bool isPending() const;
    CMN_HIDDEN Status decryptBody(aBuf& cipher);
    CMN_HIDDEN Status decryptAttr(Attr& attr, aBuf& cipher);
    CMN_HIDDEN bool decryptionRefused() const;

    CMN_HIDDEN aBuf bodyOnDisk();
    CMN_HIDDEN static bool writeBytes(const os::File& file, const aBuf& bytes);
    CMN_HIDDEN Status renderDSC(const char* bodyFileName, std::string& text);
    CMN_HIDDEN Status writeDscFile(const char* path, const char* bodyFileName, os::File& file);

    CMN_HIDDEN Status replaceRecord(Sync sync);
    CMN_HIDDEN Status createBodyFile(NewFiles& files);
    CMN_HIDDEN Status writeNewFiles(NewFiles& files, Sync sync);
    CMN_HIDDEN Status publish(NewFiles& files);
    CMN_HIDDEN Status replaceUnseen(NewFiles& files);
    CMN_HIDDEN void undoPublish(NewFiles& files, bool replaced);
    CMN_HIDDEN Status readFiles(const std::string& path);
    CMN_HIDDEN Status adoptBody(const Attr& reference);
    CMN_HIDDEN Status removeFiles();

    std::string folderName = ".";
    std::string name;
    std::string fileName;
    SecretBytes body;
    unsigned int bodyFlag = 0;     // 1: encrypted on disk
    unsigned int bodyPending = 0;  // 1: `body` is still encrypted
    std::vector<Attr> attrs;
    aCryptoEncoder encoder;  // the service's, taken at every write
    aCryptoDecoder decoder;  // the service's, taken at every successful read
    int lockType = 0;
    int loginCheck = 1;
    int bodyPresent = 0;
    unsigned int uniqueID;
};

#endif  // STORE_FILE_STORE_H
