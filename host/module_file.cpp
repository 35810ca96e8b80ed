#include "host/module_file.h"

#include <dlfcn.h>
#include <fcntl.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <system_error>
#include <utility>
#include <vector>

#include <elf.h>
#include <link.h>

#include "cmn/no_throw.h"
#include "cmn/objmgrfunc.h"
#include "os/files.h"
#include "os/fs.h"

namespace {

constexpr unsigned char kOwnClass = sizeof(void*) == 8 ? ELFCLASS64 : ELFCLASS32;

Result failure(Status status, const std::string& path, const std::string& reason) {
    return {status, path + ": " + reason};
}

Result systemFailure(const std::string& path) {
    const int error = errno;
    const bool missing = error == ENOENT || error == ENOTDIR;
    return failure(missing ? kMissing : kIo, path, std::generic_category().message(error));
}

// True when the file ends before what its header says is to be mapped. Mapping such
// a file succeeds, and the first look beyond its end kills the process. Whatever
// else may be wrong with a file, the dynamic linker tells.
bool isCutShort(int fd, off_t size) {
    ElfW(Ehdr) header{};
    if (size < static_cast<off_t>(sizeof(header)) || !os::readAll(fd, &header, sizeof(header)) ||
        std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 ||
        header.e_ident[EI_CLASS] != kOwnClass || header.e_phentsize != sizeof(ElfW(Phdr))) {
        return false;
    }
    const auto end = static_cast<std::uint64_t>(size);
    const std::size_t tableSize = std::size_t{header.e_phnum} * sizeof(ElfW(Phdr));
    if (header.e_phoff < sizeof(header) || header.e_phoff > end ||
        tableSize > end - header.e_phoff) {
        return true;
    }
    std::vector<char> before(header.e_phoff - sizeof(header));
    std::vector<ElfW(Phdr)> segments(header.e_phnum);
    if (!os::readAll(fd, before.data(), before.size()) ||
        !os::readAll(fd, segments.data(), tableSize)) {
        return true;
    }
    for (const ElfW(Phdr) & segment : segments) {
        if (segment.p_type == PT_LOAD &&
            (segment.p_filesz > end || segment.p_offset > end - segment.p_filesz)) {
            return true;
        }
    }
    return false;
}

Result examine(const std::string& path) {
    os::File file;
    off_t size = 0;
    switch (os::openRegular(path.c_str(), file, size)) {
        case os::Opened::kRegular:
            break;
        case os::Opened::kNotRegular:
            return failure(kMalformed, path, "is not a regular file");
        case os::Opened::kFailed:
            return systemFailure(path);
    }
    if (isCutShort(file.get(), size)) {
        return failure(kMalformed, path, "is cut short");
    }
    return {};
}

// Null when the function is found; otherwise its name.
template <class Function>
const char* find(void* handle, const char* name, Function& function) {
    function = reinterpret_cast<Function>(dlsym(handle, name));
    return function == nullptr ? name : nullptr;
}

std::string dynamicLinkerError() {
    const char* const text = dlerror();  // NOLINT(concurrency-mt-unsafe): this thread's own
    return text == nullptr ? "the dynamic linker gives no reason" : text;
}

}  // namespace

ModuleFile::~ModuleFile() {
    if (handle_ != nullptr) {
        dlclose(handle_);
    }
}

void* ModuleFile::symbol(const char* name) const noexcept {
    return handle_ == nullptr ? nullptr : dlsym(handle_, name);
}

std::string ModuleFile::mappedPath() const {
    return copy_ ? "/proc/self/fd/" + std::to_string(copy_.get()) : path_;
}

Result ModuleFile::open(const std::string& path, ModuleFile& file, Mapping mapping) {
    // Absolute, because the dynamic linker looks a bare name up in folders of its own.
    const std::unique_ptr<char, void (*)(void*)> real(os::realpath(path.c_str(), nullptr),
                                                      std::free);
    if (real == nullptr) {
        return systemFailure(path);
    }
    file.path_ = real.get();
    if (Result examined = examine(file.path_); !examined.ok()) {
        return examined;
    }
    off_t size = 0;
    os::File found;
    if (mapping == Mapping::kOwn &&
        os::openRegular(file.path_.c_str(), found, size) == os::Opened::kRegular) {
        file.copy_ = os::copyInMemory(found);
    }
    file.handle_ = dlopen(file.mappedPath().c_str(), RTLD_NOW | RTLD_LOCAL);
    if (file.handle_ == nullptr) {
        return failure(kMalformed, file.path_, dynamicLinkerError());
    }
    decltype(&GetObjectManager) objects = nullptr;
    for (const char* const lacking : {find(file.handle_, "GetInterfaceClass", file.entry_),
                                      find(file.handle_, "GetObjectManager", objects),
                                      find(file.handle_, "MakeObject", file.makeObject_)}) {
        if (lacking != nullptr) {
            return failure(kMalformed, file.path_,
                           std::string("is no module: it lacks ") + lacking);
        }
    }
    // What it throws may be of a type of the file's own.
    (void)noThrow([&] {
        file.objects_ = objects();
        return kOk;
    });
    if (file.objects_ == nullptr) {
        return failure(kMalformed, file.path_, "gives no object manager");
    }
    return {};
}

Result ModuleFile::close() {
    if (handle_ == nullptr) {
        return {};
    }
    if (dlclose(std::exchange(handle_, nullptr)) != 0) {
        return failure(kIo, path_, dynamicLinkerError());
    }
    if (void* const still = dlopen(mappedPath().c_str(), RTLD_LAZY | RTLD_NOLOAD)) {
        dlclose(still);
        return failure(kIo, path_, "stays mapped after it was unloaded");
    }
    return {};
}
