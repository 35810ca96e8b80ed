#include "fstore/commands/cli.h"

#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fstore/commands/commands.h"
#include "fstore/commands/completion_script.h"

namespace fstore {
namespace {

struct Ending {
    int code;
    std::string out;
    std::string err;
};

// How the program ends when its command does what `body` does.
template <class Body>
Ending endOf(Body body, const char* option) {
    Cli cli;
    cli.add("probe", "", [body](Context&) { return body(); });
    const char* const argv[] = {"fstore", "probe", option};
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int code = cli.execute(3, argv);
    return {code, testing::internal::GetCapturedStdout(), testing::internal::GetCapturedStderr()};
}

// Statuses that no database makes the tool see from outside are among these.
TEST(CliTest, EndsWithTheStatusOfTheStore) {
    const struct {
        Status status;
        int code;
        const char* name;
    } rows[] = {
        {kNoMemory, 1, "no-memory"},
        {kInvalid, 4, "invalid"},
        {kWrongPassword, 6, "wrong-password"},
        {kIo, 9, "io"},
        {kNotOpen, 14, "not-open"},
        {kAlreadyOpen, 33, "busy"},
        {kClosed, 35, "closed"},
        {kEnd, 36, "not-found"},
        {kNoObject, 40, "no-service"},
        {kMissing, 50, "missing"},
        {kMalformed, 59, "malformed"},
        {kNoDigest, 74, "no-digest"},
        {7, 125, "foreign"},
        {kUsage, 125, "foreign"},
        {777, 125, "foreign"},
        {0x80000001, 125, "foreign"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.status);
        const auto body = [&row] {
            check(row.status, "cannot do it", "keys/a");
            return kOk;
        };
        const Ending human = endOf(body, "-q");
        EXPECT_EQ(row.code, human.code);
        EXPECT_EQ(0u, human.err.find("fstore: error: cannot do it: "));
        const Ending json = endOf(body, "--json");
        EXPECT_EQ(row.code, json.code);
        EXPECT_EQ("", json.out);
        EXPECT_NE(std::string::npos, json.err.find("\"" + std::string(row.name) + "\""));
        EXPECT_NE(std::string::npos, json.err.find("\"keys/a\""));
    }
}

TEST(CliTest, ExceptionsEndIt) {
    const auto noMemory = []() -> Status { throw std::bad_alloc(); };
    EXPECT_EQ(1, endOf(noMemory, "-q").code);
    const auto strange = []() -> Status { throw std::logic_error("out of range"); };
    const Ending ending = endOf(strange, "-q");
    EXPECT_EQ(125, ending.code);
    EXPECT_EQ("fstore: error: unexpected: out of range\n", ending.err);
}

TEST(CliTest, CodesOfTheToolAreGivenAsTheyAre) {
    for (const Status code : {kOk, kFound, kPartial}) {
        EXPECT_EQ(static_cast<int>(code), endOf([code] { return code; }, "-q").code);
    }
}

enum class Colour { kRed, kBlue };

// What a command line says: a command with an option of each kind.
struct Said {
    std::string address, shape = "round";
    std::vector<std::string> words, marks;
    std::optional<std::string> file;
    std::optional<int> fd;
    unsigned int cost = 17;
    double share = 0.5;
    Colour colour = Colour::kRed;
    bool force = false, quiet = false;
};

class OptionTest : public testing::Test {
protected:
    OptionTest() {
        Command& command = cli_.add("probe", "Look", [this](Context&) {
            ran_ = true;
            return kOk;
        });
        command.argument("ADDRESS", &said_.address, "What to look at");
        command.argument("WORD", &said_.words, "More").required = false;
        Option& shape = command.option("--shape", "SHAPE", &said_.shape, "Its shape");
        shape.showsDefault = true;
        shape.variable = "FSTORE_TEST_SHAPE";
        command.option("-o,--output", "FILE", &said_.file, "Where to");
        command.option("--fd", "N", Number{&said_.fd, 0, 99}, "A descriptor");
        command.option("--cost", "LN", Number{&said_.cost, 14, 22}, "A cost").showsDefault = true;
        command.option("--share", "SHARE", Number{&said_.share, 0, 1}, "A share");
        command.startGroup("Looks");
        command.option("--paint", "COLOUR",
                       Choice(&said_.colour, {{"red", Colour::kRed}, {"blue", Colour::kBlue}}),
                       "Its colour");
        command.option("--mark", "MARK", &said_.marks, "A mark");
        command.flag("-f,--force", &said_.force, "Do it");
        command.flag("--still", &said_.quiet, "Say nothing").excludes = {"--force"};
        cli_.add("secret", "Not shown", [](Context&) { return kOk; }).hide();
    }

    // Runs the program; its exit code.
    int run(std::vector<const char*> words) {
        words.insert(words.begin(), "fstore");
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const int code = cli_.execute(static_cast<int>(words.size()), words.data());
        out_ = testing::internal::GetCapturedStdout();
        err_ = testing::internal::GetCapturedStderr();
        return code;
    }

    Cli cli_;
    Said said_;
    bool ran_ = false;
    std::string out_, err_;
};

TEST_F(OptionTest, TargetsKeepTheirValuesWhenNothingIsGiven) {
    EXPECT_EQ(0, run({"probe", "keys/a"}));
    EXPECT_TRUE(ran_);
    EXPECT_EQ("keys/a", said_.address);
    EXPECT_EQ("round", said_.shape);
    EXPECT_TRUE(said_.words.empty() && said_.marks.empty());
    EXPECT_FALSE(said_.file || said_.fd || said_.force);
    EXPECT_EQ(17u, said_.cost);
    EXPECT_EQ(Colour::kRed, said_.colour);
}

TEST_F(OptionTest, EachKindIsSet) {
    EXPECT_EQ(0, run({"probe", "-o", "x", "--fd=7", "--cost", "14", "--share", "0.25", "--paint",
                      "blue", "--mark", "m", "keys/a", "--mark", "n", "v", "w", "-f"}))
        << err_;
    EXPECT_EQ("x", said_.file);
    EXPECT_EQ(7, said_.fd);
    EXPECT_EQ(14u, said_.cost);
    EXPECT_EQ(0.25, said_.share);
    EXPECT_EQ(Colour::kBlue, said_.colour);
    EXPECT_EQ((std::vector<std::string>{"m", "n"}), said_.marks);
    EXPECT_EQ("keys/a", said_.address);
    EXPECT_EQ((std::vector<std::string>{"v", "w"}), said_.words);
    EXPECT_TRUE(said_.force);
}

// The parser's library would make lists of them.
TEST_F(OptionTest, BracketsAreCharactersLikeOthers) {
    EXPECT_EQ(0,
              run({"probe", "[a,b]", "[x]", "[", "[]", "[y]\x1f", "--mark", "[m,n]", "-o", "[o]"}))
        << err_;
    EXPECT_EQ("[a,b]", said_.address);
    EXPECT_EQ((std::vector<std::string>{"[x]", "[", "[]", "[y]\x1f"}), said_.words);
    EXPECT_EQ((std::vector<std::string>{"[m,n]"}), said_.marks);
    EXPECT_EQ("[o]", said_.file);
    EXPECT_EQ(2, run({"[x]"}));
    EXPECT_NE(std::string::npos, err_.find("\"fstore [x]\";")) << err_;
}

TEST_F(OptionTest, WrongLinesAreRefused) {
    const std::vector<const char*> lines[] = {
        {"probe"},
        {"probe", "a", "--cost", "13"},
        {"probe", "a", "--cost", "23"},
        {"probe", "a", "--cost", "17.5"},
        {"probe", "a", "--cost", "much"},
        {"probe", "a", "--share", "nan"},
        {"probe", "a", "--fd", "-1"},
        {"probe", "a", "--paint", "green"},
        {"probe", "a", "--paint", "0"},
        {"probe", "a", "--output"},
        {"probe", "a", "--force", "--still"},
        {"probe", "a", "--unknown"},
        {"unknown"},
        {},
    };
    for (const auto& line : lines) {
        EXPECT_EQ(2, run(line)) << testing::PrintToString(line);
        EXPECT_EQ("", out_);
        EXPECT_NE(std::string::npos, err_.find(" --help`")) << err_;
    }
    EXPECT_FALSE(ran_);
}

TEST_F(OptionTest, ErrorsSayWhatIsWrongAndWhatWasMeant) {
    const struct {
        std::vector<const char*> line;
        const char* words;
    } rows[] = {
        {{}, "name a command, such as \"fstore ls\"; see `fstore --help`"},
        {{"prob"}, "there is no command \"fstore prob\"; did you mean \"probe\"?; see"},
        {{"-q", "frobnicate", "a"},
         "there is no command \"fstore frobnicate\"; see `fstore --help`"},
        {{"scret"}, "there is no command \"fstore scret\"; see"},  // that one is hidden
        {{"a\nb"}, "there is no command \"fstore a\\x0ab\"; see"},
        {{"probe"}, "\"fstore probe\" needs ADDRESS (What to look at); see `fstore probe --help`"},
        {{"probe", "a", "--forse"},
         "\"fstore probe\" has no option --forse; did you mean \"--force\"?"},
        {{"probe", "a", "--jsno"},
         "\"fstore probe\" has no option --jsno; did you mean \"--json\"?"},
        {{"probe", "a", "--cots=3"},
         "\"fstore probe\" has no option --cots; did you mean \"--cost\"?"},
        {{"--frobnicate"}, "\"fstore\" has no option --frobnicate; see `fstore --help`"},
        {{"probe", "a", "--output"}, "--output needs a value: --output FILE; see `fstore probe"},
        {{"probe", "a", "--dir"}, "--dir needs a value: --dir DIR; see"},
        {{"secret", "word"}, "\"word\" is one argument too many for \"fstore secret\"; see"},
        {{"probe", "a", "-f", "--still"},
         "--force and --still do not go together; see `fstore probe"},
        {{"help", "prob"}, "there is no command \"fstore prob\"; did you mean \"probe\"?"},
    };
    addHelp(cli_);
    for (const auto& row : rows) {
        EXPECT_EQ(2, run(row.line)) << row.words;
        EXPECT_EQ(0u, err_.find("fstore: error: " + std::string(row.words))) << row.words << "\n"
                                                                             << err_;
    }
}

TEST_F(OptionTest, HelpAndVersionAreCommandsToo) {
    addHelp(cli_);
    EXPECT_EQ(0, run({"-q", "help"})) << err_;
    for (const char* const part : {"fstore [OPTIONS]", "  probe ", "  version "}) {
        EXPECT_NE(std::string::npos, out_.find(part)) << out_;
    }
    EXPECT_EQ(0, run({"probe", "--help"}));
    const std::string ofProbe = out_;
    EXPECT_EQ(0, run({"help", "probe"})) << err_;
    EXPECT_EQ(ofProbe, out_);
    EXPECT_EQ(0, run({"--version"}));
    const std::string version = out_;
    EXPECT_EQ(0, run({"version"}));
    EXPECT_EQ(version, out_);
}

TEST_F(OptionTest, ErrorsNameBoundsAndChoices) {
    EXPECT_EQ(2, run({"probe", "a", "--cost", "13"}));
    EXPECT_NE(std::string::npos, err_.find("--cost: \"13\" is no number from 14 to 22")) << err_;
    EXPECT_EQ(2, run({"probe", "a", "--paint", "green"}));
    EXPECT_NE(std::string::npos, err_.find("--paint: \"green\" is not red or blue")) << err_;
}

TEST_F(OptionTest, EnvironmentComesAfterTheLine) {
    ASSERT_EQ(0, setenv("FSTORE_TEST_SHAPE", "square", 1));
    EXPECT_EQ(0, run({"probe", "a"}));
    EXPECT_EQ("square", said_.shape);
    EXPECT_EQ(0, run({"probe", "a", "--shape", "flat"}));
    EXPECT_EQ("flat", said_.shape);
    unsetenv("FSTORE_TEST_SHAPE");
}

TEST_F(OptionTest, HelpShowsWhatIsDeclared) {
    EXPECT_EQ(0, run({"probe", "--help"}));
    EXPECT_FALSE(ran_);
    for (const char* const part : {"fstore probe [OPTIONS] ADDRESS [WORD...]", "-o,--output FILE",
                                   "--cost LN=17", "--shape SHAPE=round", "Looks:", "Its colour"}) {
        EXPECT_NE(std::string::npos, out_.find(part)) << part << "\n" << out_;
    }
    EXPECT_LT(out_.find("Looks:"), out_.find("--paint COLOUR"));
    EXPECT_GT(out_.find("Looks:"), out_.find("--share SHARE"));
    EXPECT_EQ(0, run({"--help"}));
    EXPECT_NE(std::string::npos, out_.find("  probe "));
    EXPECT_EQ(std::string::npos, out_.find("secret"));
}

// A command with commands below it, one of which has an option of the program's name.
class BelowTest : public testing::Test {
protected:
    BelowTest() {
        Command& above = cli_.add("above", "Group", {});
        Command& one = above.subcommand("one", "First", [this](Context& context) {
            ran_ = "one of " + context.globals.folder;
            return kOk;
        });
        one.option("--dir", "DIR", &dir_, "Its own");
        one.argument("WORD", &word_, "A word").required = false;
        above.subcommand("two", "Second", [this](Context&) {
            ran_ = "two";
            return kOk;
        });
    }

    int run(std::vector<const char*> words) {
        words.insert(words.begin(), "fstore");
        testing::internal::CaptureStderr();
        const int code = cli_.execute(static_cast<int>(words.size()), words.data());
        err_ = testing::internal::GetCapturedStderr();
        return code;
    }

    std::vector<std::string> offered(std::vector<std::string> words) {
        words.insert(words.begin(), "fstore");
        std::vector<std::string> texts;
        for (const Completion::Word& word : complete(cli_, words, words.size() - 1).words) {
            texts.push_back(word.text);
        }
        return texts;
    }

    Cli cli_;
    std::string dir_, word_, ran_, err_;
};

TEST_F(BelowTest, RunsTheOneThatIsNamed) {
    EXPECT_EQ(0, run({"above", "two"})) << err_;
    EXPECT_EQ("two", ran_);
}

TEST_F(BelowTest, AnOptionBehindItIsItsOwn) {
    EXPECT_EQ(0, run({"--dir", "all", "above", "one", "--dir", "own", "word"})) << err_;
    EXPECT_EQ("one of all", ran_);
    EXPECT_EQ("own", dir_);
    EXPECT_EQ("word", word_);
}

TEST_F(BelowTest, OneOfThemIsNeeded) {
    for (const std::vector<const char*>& line : {std::vector<const char*>{"above"},
                                                 {"above", "three"},
                                                 {"one"},
                                                 {"above", "two", "word"}}) {
        EXPECT_EQ(2, run(line));
    }
    EXPECT_EQ("", ran_);
}

TEST_F(BelowTest, CompletionOffersThem) {
    EXPECT_EQ((std::vector<std::string>{"one", "two"}), offered({"above", ""}));
    EXPECT_EQ((std::vector<std::string>{"two"}), offered({"-D", "one", "above", "t"}));
    EXPECT_EQ((std::vector<std::string>{}), offered({"above", "two", ""}));
    EXPECT_EQ((std::vector<std::string>{"--dir"}), offered({"above", "one", "--d"}));
}

}  // namespace
}  // namespace fstore
