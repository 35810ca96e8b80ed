// What a crash leaves over, `fstore check --repair` cleans up: it finds no damage, loses
// nothing, and leaves nothing for a second run.
#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "tests/crash/disk_model.h"
#include "tests/crash/harness_test.h"
#include "tests/crash/recording.h"

namespace crash {
namespace {

struct Answer {
    int code;
    std::string output;
};

Answer check(const char* options) {
    const std::string command = std::string(FSTORE) + " -D . --no-input check " + options + " 2>&1";
    // NOLINTNEXTLINE(cert-env33-c): the path is the build's own
    std::FILE* const pipe = ::popen(command.c_str(), "r");
    Answer answer{-1, {}};
    if (pipe == nullptr) {
        return answer;
    }
    char buffer[4096];
    for (std::size_t got = 0; (got = std::fread(buffer, 1, sizeof buffer, pipe)) != 0;) {
        answer.output.append(buffer, got);
    }
    const int status = ::pclose(pipe);
    answer.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return answer;
}

std::vector<std::string> leftovers(const Tree& tree) {
    std::vector<std::string> found;
    for (const auto& [path, node] : tree) {
        const auto ends = [&path = path](std::string_view marker) {
            return path.ends_with(marker);
        };
        if (path.starts_with("db.lost")) {
            continue;  // what nobody acknowledged, and may all the same be wanted
        }
        if (path.starts_with("old_db/") && tree.contains("db")) {
            continue;  // the previous database stays what it was when it was changed
        }
        if (path.starts_with("new_db") || ends(".$n$") || ends(".$o$") || ends(".$d$")) {
            found.push_back(path);
        }
    }
    return found;
}

class ToolRepairTest : public HarnessTest {
protected:
    struct State {
        std::size_t made;  // calls
        Tree tree;
    };

    void expectRepaired(const Workload& workload) {
        const Recording recording = record(workload);
        for (const Model model : {Model::kOrdered, Model::kReordered}) {
            for (const State& state : someStates(recording, model)) {
                SCOPED_TRACE(workload.name + ", model " + nameOf(model) + ", power lost after " +
                             std::to_string(state.made) + " calls\n" + describe(state.tree));
                clearCurrentFolder();
                writeCurrentFolder(state.tree);
                const Answer repair = check("--repair");
                if (!state.tree.contains("db") && !state.tree.contains("old_db")) {
                    ASSERT_EQ(static_cast<int>(kMissing), repair.code) << repair.output;
                    continue;  // there is nothing yet, and nothing has been promised
                }
                ASSERT_EQ(0, repair.code) << repair.output;
                const std::string noted = "db.state";  // when the check was: not what it did
                std::filesystem::remove(noted);
                const Tree repaired = readCurrentFolder();
                EXPECT_EQ(std::vector<std::string>{}, leftovers(repaired)) << repair.output;
                const Answer again = check("");
                EXPECT_EQ(0, again.code) << again.output;
                std::filesystem::remove(noted);
                EXPECT_EQ(describe(repaired), describe(readCurrentFolder())) << again.output;
                std::filesystem::remove_all("db.lost");  // the oracle knows the store alone
                std::filesystem::remove("db.lock");
                EXPECT_EQ("",
                          judge(recover(recording.question), recording.allowedAfter(state.made)))
                    << repair.output;
                count("crash states repaired by the tool");
                if (HasFailure()) {
                    return;
                }
            }
        }
    }

private:
    // A few of all that the model allows, each as likely as the others.
    std::vector<State> someStates(const Recording& recording, Model model) {
        const std::size_t most = isFull_ ? 40 : 2;
        std::vector<State> chosen;
        std::size_t seen = 0;
        Disk disk(recording.start);
        for (std::size_t made = 0; made <= recording.calls.size(); ++made) {
            if (made > 0) {
                disk.apply(recording.calls[made - 1]);
            }
            (void)disk.forEachTree(model, {64, 8, 2, 1}, random_, [&](const Tree& tree) {
                const std::size_t place = random_() % ++seen;
                if (chosen.size() < most) {
                    chosen.push_back({made, tree});
                } else if (place < most) {
                    chosen[place] = {made, tree};
                }
            });
        }
        return chosen;
    }
};

TEST_F(ToolRepairTest, CleansUpAfterEachWorkload) {
    each(workloads(), 1, [&](const Workload& workload) { expectRepaired(workload); });
}

}  // namespace
}  // namespace crash
