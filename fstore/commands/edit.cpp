// fstore edit: a record's body in the user's editor.
#include <array>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>

#include <fmt/format.h>

#include "fstore/commands/commands.h"
#include "fstore/commands/common_options.h"
#include "fstore/commands/record_json.h"
#include "fstore/terminal/json.h"
#include "fstore/terminal/password.h"
#include "lib/base/files.h"
#include "lib/records/record.h"
#include "lib/records/record_info.h"
#include "lib/work/change.h"
#include "lib/work/meant.h"
#include "lib/work/put.h"
#include "os/command.h"
#include "os/memory_folder.h"

namespace fstore {
namespace {

struct EditOptions {
    std::string address;
};

std::string editorOfUser() {
    for (const char* const name : {"VISUAL", "EDITOR"}) {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): this process has one thread
        const char* const value = std::getenv(name);
        if (value != nullptr && *value != '\0') {
            return value;
        }
    }
    return "vi";
}

// The record's own name tells an editor what kind of text it is.
std::string fileIn(const os::MemoryFolder& folder, const Address& address) {
    if (folder.path().empty()) {
        throw Failure(
            kIo,
            "there is no place in memory for the text (/dev/shm, XDG_RUNTIME_DIR), and it "
            "is not written to a disk");
    }
    return joined(folder.path(), address.name);
}

void writeText(const std::string& path, const SecretBytes& body) {
    OutputFile file(path, /*replace=*/false);
    file.write(body);
    file.commit();
}

// A command of several words, as other programs take it: the shell knows how it is quoted. An
// interrupt that the editor makes something else of does not end the shell.
void runEditor(const std::string& editor, const std::string& path) {
    const os::CommandEnd end = os::runOnTerminal(
        {"/bin/sh", "-c", "trap : INT QUIT; " + editor + " \"$@\"", editor, path});
    if (end.error != 0 || end.signal != 0 || end.exitCode != 0) {
        throw Failure(kIo, fmt::format("the editor ({}) failed; nothing was changed", editor),
                      Advice{"set VISUAL or EDITOR to an editor that waits until you are done"});
    }
}

// One record on its way through the editor and back.
class Editing {
public:
    Editing(const EditOptions& options, Context& context)
        : context_(context), address_(parseNewAddress(options.address)) {}

    Status run() {
        refuseInternal(address_);
        if (context_.globals.noInput) {
            throw Failure(kUsage, "an editor needs input; with --no-input use `fstore put`");
        }
        const std::array texts{address_.print()};
        Editable before = readNamed(context_.database, texts, [&] {
            refusePattern(address_);
            return readEditable(context_.database, address_);
        });
        rules_.plain = before.plain;
        rules_.isNew = true;
        rules_.replaced = before.state;
        forgetPasswords();  // the editor inherits the environment
        const os::MemoryFolder folder;
        const std::string path = fileIn(folder, address_);
        writeText(path, before.body);
        for (;;) {
            runEditor(editorOfUser(), path);
            SecretBytes body = textIn(path);
            if (body == before.body) {
                context_.output.note(fmt::format("{} is as it was", address_.print()));
                context_.output.document({{"records", Json::array()}});
                return kOk;
            }
            requireText(body, before.body);
            try {
                return storeOrAsk(before.isThere, body);
            } catch (const Failure& failure) {
                const std::string question =
                    fmt::format("It was not stored: {}. Edit the text again?", failure.what());
                if (!confirm(question, /*noInput=*/false)) {
                    throw;
                }
            }
        }
    }

private:
    // An editor may put something else in the place of the file, or nothing.
    SecretBytes textIn(const std::string& path) const {
        try {
            return InputFile(openRegular(path).file, path).readAll(Record::kMostBody);
        } catch (const Failure& failure) {
            throw Failure(kInvalid,
                          fmt::format("what the editor left cannot be stored, and {} stays as it "
                                      "was: {}",
                                      address_.print(), failure.what()),
                          address_.print());
        }
    }

    // An editor that fails, or a disk that is full, leaves nothing as well.
    void requireText(const SecretBytes& body, const SecretBytes& before) const {
        const std::string name = address_.print();
        const std::string question = fmt::format("The editor left an empty text. Empty {}?", name);
        if (body.empty() && !before.empty() && !confirm(question, /*noInput=*/false)) {
            throw Failure(
                kInvalid, fmt::format("the editor left an empty text; {} stays as it was", name),
                Advice{fmt::format("to empty it, `fstore put -f {} /dev/null`", name)}, name);
        }
    }

    // What another process has made of the record since is not replaced unasked.
    Status storeOrAsk(bool wasThere, const SecretBytes& body) {
        for (;;) {
            try {
                return store(wasThere, body);
            } catch (const RecordExists& there) {
                const std::string question =
                    fmt::format("{} has been changed in the meantime. Replace it all the same?",
                                address_.print());
                if (!confirm(question, /*noInput=*/false)) {
                    throw Failure(kInvalid,
                                  fmt::format("{} has been changed in the meantime; it stays so",
                                              address_.print()),
                                  address_.print());
                }
                rules_.replaced = there.state();
            }
        }
    }

    Status store(bool wasThere, const SecretBytes& body) {
        const std::array named{AddressText::of(address_)};
        return changeNamed(
            context_.database, named,
            [&] {
                if (wasThere && !Record::isThere(address_)) {
                    throw Failure(
                        kMissing,
                        fmt::format("{} has been removed in the meantime", address_.print()),
                        address_.print());
                }
                SecretBytes bytes = body;
                putBody(context_.database, address_, bytes, rules_);
                context_.output.note(fmt::format("stored {}: {} bytes{}", address_.print(),
                                                 body.size(), rules_.plain ? "" : ", encrypted"));
                if (context_.output.json()) {
                    context_.output.document(
                        {{"records", Json::array({toJson(infoOf(Record::read(address_)))})}});
                }
                return kOk;
            },
            needFor(!rules_.plain));
    }

    Context& context_;
    const Address address_;
    PutRules rules_;
};

}  // namespace

void addEdit(Cli& cli) {
    const auto options = std::make_shared<EditOptions>();
    Command& command =
        cli.add("edit", "Change a record's body in your editor",
                [options](Context& context) { return Editing(*options, context).run(); });
    command.argument("ADDRESS", &options->address, "FOLDER/NAME of a record, or of a new one");
}

}  // namespace fstore
