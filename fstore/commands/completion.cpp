// fstore completion: the shells' scripts, and the answers that these ask for.
#include <limits>
#include <memory>

#include "fstore/commands/commands.h"
#include "fstore/commands/completion_script.h"
#include "fstore/commands/shell_scripts.h"
#include "fstore/terminal/json.h"

namespace fstore {
namespace {

struct Question {
    unsigned int index = 0;
    std::vector<std::string> words;
};

Status runScript(const char* script, Context& context) {
    if (context.output.json()) {
        context.output.document({{"script", script}});
    } else {
        context.output.raw(script);
    }
    return kOk;
}

// A line that says which files fit as well, then one a word: the word, a tab and what
// it is. Control characters cannot be offered, for they end a line or a word.
Status runQuestion(const Question& question, const Cli& cli, Context& context) {
    const Completion completion = complete(cli, question.words, question.index);
    constexpr const char* kFiles[] = {":words", ":files", ":folders"};
    std::string text = kFiles[static_cast<int>(completion.files)];
    text += '\n';
    for (const Completion::Word& word : completion.words) {
        const bool clean = word.text.find_first_of("\n\t") == std::string::npos;
        if (clean) {
            text += word.text + (word.description.empty() ? "" : "\t" + word.description) + "\n";
        }
    }
    context.output.raw(text);
    return kOk;
}

}  // namespace

void addCompletion(Cli& cli) {
    const auto script = std::make_shared<const char*>();
    Command& print = cli.add("completion", "Print a shell's completion script",
                             [script](Context& context) { return runScript(*script, context); });
    print.argument(
        "SHELL",
        Choice(script.get(), {{"bash", kBashScript}, {"zsh", kZshScript}, {"fish", kFishScript}}),
        "bash, zsh or fish");

    const auto question = std::make_shared<Question>();
    Command& answer = cli.add(
        "complete", "Answer a completion script",
        [question, &cli](Context& context) { return runQuestion(*question, cli, context); });
    answer.hide();  // not for people
    answer.argument("INDEX", Number{&question->index, 0, std::numeric_limits<unsigned int>::max()},
                    "Of the word under the cursor");
    answer.argument("WORD", &question->words, "The words of the command line, after \"--\"")
        .required = false;
}

}  // namespace fstore
