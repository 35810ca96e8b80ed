// What judges the commands of the tool is itself put to the test: a folder in which something is
// missing, wrong or left over is a violation, and so is a command that syncs nothing.
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/crash/tool/tool_crash.h"

namespace crash {
namespace {

namespace fs = std::filesystem;

using testing::HasSubstr;

using Change = std::function<void()>;

const ToolWorkload& workload(const std::string& name) {
    const auto& all = toolWorkloads();
    return *std::find_if(all.begin(), all.end(),
                         [&](const ToolWorkload& one) { return one.name == name; });
}

std::string textOf(const fs::path& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

void write(const fs::path& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

// The one file below the folder with these bytes.
fs::path fileWith(const fs::path& folder, const std::string& bytes) {
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        if (entry.is_regular_file() && textOf(entry) == bytes) {
            return entry.path();
        }
    }
    throw std::runtime_error("no file has the bytes " + bytes);
}

fs::path keptDatabase() {
    for (const auto& entry : fs::directory_iterator(".")) {
        if (entry.path().filename().string().starts_with("db-")) {
            return entry.path();
        }
    }
    throw std::runtime_error("no database was kept");
}

void replaceIn(const fs::path& path, const std::string& from, const std::string& to) {
    std::string text = textOf(path);
    const std::size_t at = text.find(from);
    if (at == std::string::npos) {
        throw std::runtime_error(path.string() + " has no " + from);
    }
    write(path, text.replace(at, from.size(), to));
}

class ToolOracleTest : public testing::Test {
protected:
    ToolOracleTest() {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread is there yet
        (void)::setenv("FILESTORE_MODULES", MODULES, 1);
    }

    // The verdict about the folder that the command leaves, or finds, and somebody changes.
    static std::string afterwards(const ToolRecording& recording, Acknowledged acknowledged,
                                  const Change& change) {
        clearCurrentFolder();
        writeCurrentFolder(recording.start);
        (void)run(recording.workload.command);
        change();
        return recoverAndJudge(recording, acknowledged);
    }
    static std::string before(const ToolRecording& recording, Acknowledged acknowledged,
                              const Change& change) {
        clearCurrentFolder();
        writeCurrentFolder(recording.start);
        change();
        return recoverAndJudge(recording, acknowledged);
    }

private:
    Scratch scratch_;
};

constexpr auto nothing = [] {};
constexpr const char* kOtherKeyFile =
    "fstore-key-1:3b9c358f36f0a31b6ad3e14f309c7cf198ac9246e8316f9ce543d5b19ac02b80:7502baf7\n";
constexpr const char* kOrphan = "an orphan's bytes";  // as the workloads leave them

TEST_F(ToolOracleTest, WhatIsDoneIsRightAndWhatIsNotDoneIsNotAcknowledged) {
    for (const char* const name :
         {"init", "put_new", "put_over", "set", "rm", "import", "passwd", "passwd_keep_old",
          "restore", "restore_replace", "check_undo", "check_purge", "backup", "get_over"}) {
        SCOPED_TRACE(name);
        const ToolRecording recording = record(workload(name));
        EXPECT_EQ("", afterwards(recording, Acknowledged::kYes, nothing));
        EXPECT_EQ("", afterwards(recording, Acknowledged::kNo, nothing));
        EXPECT_EQ("", before(recording, Acknowledged::kNo, nothing));
        EXPECT_NE("", before(recording, Acknowledged::kYes, nothing));
    }
}

TEST_F(ToolOracleTest, EveryLossIsAViolation) {
    const struct {
        const char* workload;
        Change change;
        const char* verdict;
    } rows[] = {
        {"put_over", [] { fs::remove("db/keys/k.dsc"); }, "record keys/k is gone"},
        {"put_over", [] { write(fileWith("db/lsps", "plain"), "PLAIN"); }, "record lsps/plain is"},
        {"put_over", [] { fs::copy("db/keys/k.dsc", "db/keys/z.dsc"); }, "record keys/z is"},
        {"put_over",
         [] {
             for (const char* const name : {"key", "kdf", "kdf-copy"}) {
                 fs::remove(fs::path("db") / (std::string(name) + ".dsc"));
             }
         },
         "./key"},
        {"rm", [] { fs::remove_all("db"); }, "the database is gone"},
        {"key_rm", [] { write("sheet", kOtherKeyFile); }, "it opens with"},
        {"set", [] { replaceIn("db/keys/k.dsc", "00000004 00000102 x", "4 102 x"); }, "check"},
        {"passwd", [] { fs::copy("db", "old_db", fs::copy_options::recursive); }, "./old_db"},
        {"passwd_with_kept_and_copy", [] { fs::remove_all("db-20250101T000000Z"); },
         "a database that was kept is gone"},
        {"passwd", [] { fs::copy("db", "db-20250101T000000Z", fs::copy_options::recursive); },
         "a database was kept that nobody wants"},
        {"check_repair", [] { fs::remove(fileWith("db.lost", kOrphan)); },
         "no file has the bytes any more"},
        {"check_repair",
         [] { fs::remove(fileWith("db.lost", kOrphan).parent_path().parent_path() / "plan"); },
         "without a plan"},
        {"get_over", [] { write("out", "ol"); }, "file out is: ol"},
        {"get_over", [] { fs::remove("out"); }, "file out is gone"},
    };
    for (const auto& row : rows) {
        const ToolRecording recording = record(workload(row.workload));
        for (const auto acknowledged : {Acknowledged::kNo, Acknowledged::kYes}) {
            EXPECT_THAT(afterwards(recording, acknowledged, row.change), HasSubstr(row.verdict))
                << row.workload;
        }
    }
}

TEST_F(ToolOracleTest, WhatWasToBeKeptMustBeOnceItIsAcknowledged) {
    const ToolRecording recording = record(workload("passwd_keep_old"));
    const auto lose = [] { fs::remove_all(keptDatabase()); };
    EXPECT_EQ("", afterwards(recording, Acknowledged::kNo, lose));
    EXPECT_THAT(afterwards(recording, Acknowledged::kYes, lose),
                HasSubstr("a database that was kept is gone"));
}

TEST_F(ToolOracleTest, WhatStoodAsideBeforeIsNotLost) {
    const ToolRecording recording = record(workload("restore_replace_with_foreign_old"));
    EXPECT_THAT(before(recording, Acknowledged::kNo, [] { fs::remove_all("old_db"); }),
                HasSubstr("the database in ./old_db is gone"));
}

TEST_F(ToolOracleTest, ACommandThatSyncsNothingIsFound) {
    for (const char* const name : {"init", "put_over", "rm", "passwd", "restore_replace",
                                   "check_undo", "check_purge", "backup", "get", "export"}) {
        SCOPED_TRACE(name);
        ToolRecording recording = record(workload(name));
        std::erase_if(recording.calls, [](const fault::Event& event) {
            return event.call == fault::Call::kFsync || event.call == fault::Call::kSyncfs;
        });
        std::mt19937 random{1};
        ToolPowerLoss loss(recording, {16, 4, 4, 1}, {1000, 1000, 1000}, random);
        EXPECT_NE("", loss.findViolation(Model::kOrdered));
    }
}

}  // namespace
}  // namespace crash
