// fstore completion: the shells' scripts, and the answers that these ask for.
#include <memory>

#include "fstore/commands/commands.h"
#include "fstore/commands/completion_script.h"
#include "fstore/terminal/json.h"

namespace fstore {
namespace {

struct Question {
    std::size_t index = 0;
    std::vector<std::string> words;
};

Status runScript(const std::string& shell, Context& context) {
    const char* const script = completionScript(shell);
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
    const Completion completion = complete(cli.parser(), question.words, question.index);
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
    const auto shell = std::make_shared<std::string>();
    CLI::App& script = cli.add("completion", "Print a shell's completion script",
                               [shell](Context& context) { return runScript(*shell, context); });
    script.add_option("SHELL", *shell, "bash, zsh or fish")
        ->required()
        ->check(CLI::IsMember({"bash", "zsh", "fish"}).description(""));

    const auto question = std::make_shared<Question>();
    CLI::App& answer = cli.add(
        "complete", "Answer a completion script",
        [question, &cli](Context& context) { return runQuestion(*question, cli, context); });
    answer.group("");  // not for people
    answer.add_option("INDEX", question->index, "Of the word under the cursor")->required();
    answer.add_option("WORD", question->words, "The words of the command line, behind \"--\"");
}

}  // namespace fstore
