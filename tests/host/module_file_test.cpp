#include "host/module_file.h"

#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <link.h>

#include "cmn/cmn_obj_mgr.h"
#include "cmn/status.h"
#include "tests/host/probe_files.h"
#include "tests/support/temp_dir.h"

namespace {

using support::TempDir;
using testing::HasSubstr;

std::string goodModule() {
    return support::readFile(moduleFile("probe1"));
}

ElfW(Ehdr) headerOf(const std::string& bytes) {
    ElfW(Ehdr) header;
    std::memcpy(&header, bytes.data(), sizeof(header));
    return header;
}

// The file's offset of the end of what is mapped.
std::size_t endOfSegments(const std::string& bytes) {
    const ElfW(Ehdr) header = headerOf(bytes);
    std::size_t end = 0;
    for (std::size_t i = 0; i < header.e_phnum; ++i) {
        ElfW(Phdr) segment;
        std::memcpy(&segment, bytes.data() + header.e_phoff + i * sizeof(segment), sizeof(segment));
        if (segment.p_type == PT_LOAD) {
            end = std::max<std::size_t>(end, segment.p_offset + segment.p_filesz);
        }
    }
    return end;
}

TEST(ModuleFileTest, OpensAModule) {
    ModuleFile file;
    const Result opened = ModuleFile::open(moduleFile("probe1"), file);
    ASSERT_EQ(kOk, opened.status) << opened.message;
    EXPECT_EQ("", opened.message);
    EXPECT_NE(nullptr, file.entry());
    EXPECT_NE(nullptr, file.makeObject());
    EXPECT_EQ(moduleFile("probe1"), file.path());
    EXPECT_EQ(0, file.objects().size());

    const Result closed = file.close();
    EXPECT_EQ(kOk, closed.status) << closed.message;
}

TEST(ModuleFileTest, RegistryIsNotThatOfTheHost) {
    ModuleFile one;
    ModuleFile two;
    ASSERT_TRUE(ModuleFile::open(moduleFile("probe1"), one).ok());
    ASSERT_TRUE(ModuleFile::open(moduleFile("probe2"), two).ok());
    EXPECT_NE(&ObjectManager, &one.objects());
    EXPECT_NE(&ObjectManager, &two.objects());
    EXPECT_NE(&one.objects(), &two.objects());
}

TEST(ModuleFileTest, PathMayBeRelativeOrALink) {
    const TempDir dir;
    std::filesystem::create_symlink(moduleFile("probe1"), dir / "link.so");
    const support::WorkingDir entered(dir.path());
    ModuleFile file;
    const Result opened = ModuleFile::open("link.so", file);
    ASSERT_EQ(kOk, opened.status) << opened.message;
    EXPECT_EQ(moduleFile("probe1"), file.path());
}

TEST(ModuleFileTest, OneFileIsMappedOnceAndACopyIsAnother) {
    const TempDir dir;
    std::filesystem::copy_file(moduleFile("probe1"), dir / "copy.so");
    std::filesystem::create_hard_link(dir / "copy.so", dir / "second name.so");
    ModuleFile original;
    ModuleFile copy;
    ModuleFile secondName;
    ASSERT_TRUE(ModuleFile::open(moduleFile("probe1"), original).ok());
    ASSERT_TRUE(ModuleFile::open(dir / "copy.so", copy).ok());
    ASSERT_TRUE(ModuleFile::open(dir / "second name.so", secondName).ok());
    EXPECT_FALSE(copy.sameAs(original));
    EXPECT_NE(&copy.objects(), &original.objects());
    EXPECT_TRUE(secondName.sameAs(copy));
}

TEST(ModuleFileTest, TellsWhenTheFileStaysMapped) {
    ModuleFile first;
    ModuleFile second;
    ASSERT_TRUE(ModuleFile::open(moduleFile("probe1"), first).ok());
    ASSERT_TRUE(ModuleFile::open(moduleFile("probe1"), second).ok());
    const Result closed = first.close();
    EXPECT_EQ(kIo, closed.status);
    EXPECT_THAT(closed.message, HasSubstr(moduleFile("probe1")));
    EXPECT_EQ(kOk, second.close().status);
}

TEST(ModuleFileTest, MissingFilesAreMissing) {
    const TempDir dir;
    support::writeFile(dir / "file", "");
    std::filesystem::create_symlink("nowhere", dir / "dangling");
    for (const char* const name : {"nothing.so", "no folder/x.so", "file/x.so", "dangling"}) {
        SCOPED_TRACE(name);
        ModuleFile file;
        const Result opened = ModuleFile::open(dir / name, file);
        EXPECT_EQ(kMissing, opened.status);
        EXPECT_THAT(opened.message, HasSubstr(dir / name));
    }
    ModuleFile file;
    EXPECT_EQ(kMissing, ModuleFile::open("", file).status);
    EXPECT_EQ(kMissing, ModuleFile::open("libc.so.6", file).status)
        << "no search in system folders";
}

TEST(ModuleFileTest, FilesThatAreNoModuleAreTold) {
    const std::string good = goodModule();
    const std::size_t end = endOfSegments(good);
    ASSERT_LE(end, good.size());
    std::string otherClass = good;
    otherClass[EI_CLASS] = otherClass[EI_CLASS] == ELFCLASS64 ? ELFCLASS32 : ELFCLASS64;
    std::string otherMachine = good;
    otherMachine[offsetof(ElfW(Ehdr), e_machine)] = '\x2a';
    std::string farTable = good;
    const ElfW(Off) far = static_cast<ElfW(Off)>(-16);
    std::memcpy(farTable.data() + offsetof(ElfW(Ehdr), e_phoff), &far, sizeof(far));
    const struct {
        const char* name;
        std::string bytes;
        const char* reason;
    } rows[] = {
        {"empty", "", "too short"},
        {"text", "not a module\n", "too short"},
        {"long text", std::string(20000, 'x'), "invalid ELF header"},
        {"the other word size", otherClass, "ELF"},
        {"another machine", otherMachine, ""},
        {"magic alone", good.substr(0, 4), "too short"},
        {"header cut", good.substr(0, sizeof(ElfW(Ehdr)) - 1), "too short"},
        {"header alone", good.substr(0, sizeof(ElfW(Ehdr))), "is cut short"},
        {"segment table cut", good.substr(0, sizeof(ElfW(Ehdr)) + 60), "is cut short"},
        {"segment table nowhere", farTable, "is cut short"},
        {"first page alone", good.substr(0, 4096), "is cut short"},
        {"half of what is mapped", good.substr(0, end / 2), "is cut short"},
        {"last mapped byte cut", good.substr(0, end - 1), "is cut short"},
    };
    const TempDir dir;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const std::string path = dir / (std::string(row.name) + ".so");
        support::writeFile(path, row.bytes);
        ModuleFile file;
        const Result opened = ModuleFile::open(path, file);
        EXPECT_EQ(kMalformed, opened.status);
        EXPECT_THAT(opened.message, HasSubstr(path));
        EXPECT_THAT(opened.message, HasSubstr(row.reason));
    }
}

TEST(ModuleFileTest, OtherThingsThanFilesAreTold) {
    const TempDir dir;
    std::filesystem::create_directory(dir / "folder.so");
    ASSERT_EQ(0, mkfifo((dir / "fifo.so").c_str(), 0600));
    for (const char* const name : {"folder.so", "fifo.so"}) {
        SCOPED_TRACE(name);
        ModuleFile file;
        const Result opened = ModuleFile::open(dir / name, file);
        EXPECT_EQ(kMalformed, opened.status);
        EXPECT_THAT(opened.message, HasSubstr("not a regular file"));
    }
}

TEST(ModuleFileTest, SharedObjectsWithoutTheFunctionsOfAModuleAreTold) {
    const struct {
        const char* file;
        const char* lacking;
    } rows[] = {{"probe_no_entry", "GetInterfaceClass"}, {"probe_no_manager", "GetObjectManager"}};
    for (const auto& row : rows) {
        ModuleFile file;
        const Result opened = ModuleFile::open(moduleFile(row.file), file);
        EXPECT_EQ(kMalformed, opened.status);
        EXPECT_THAT(opened.message, HasSubstr(row.lacking));
    }
}

TEST(ModuleFileTest, RefusedFilesAreUnmapped) {
    {
        ModuleFile file;
        ASSERT_FALSE(ModuleFile::open(moduleFile("probe_no_entry"), file).ok());
    }
    // Would be told as kIo were it still mapped.
    ModuleFile again;
    ASSERT_FALSE(ModuleFile::open(moduleFile("probe_no_entry"), again).ok());
    EXPECT_EQ(kOk, again.close().status);
}

}  // namespace
