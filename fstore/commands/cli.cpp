#include "fstore/commands/cli.h"

#include <cstring>
#include <map>
#include <new>
#include <utility>

#include <fmt/format.h>

namespace fstore {
namespace {

// A command line that cannot be read may ask for JSON all the same.
bool asksForJson(int argc, const char* const* argv) {
    for (int i = 1; i < argc && std::strcmp(argv[i], "--") != 0; ++i) {
        if (std::strcmp(argv[i], "--json") == 0) {
            return true;
        }
    }
    return false;
}

// Runs `body` and tells its failure; the exit code.
template <class Body>
int guarded(Output& output, Body body) {
    try {
        return body();
    } catch (const Failure& failure) {
        output.fail(failure);
        return failure.exitCode();
    } catch (const MemoryFailure& memory) {
        output.fail(memory.failure());
        return memory.failure().exitCode();
    } catch (const std::bad_alloc&) {
        output.fail(Failure(kNoMemory, "there is not enough memory"));
        return static_cast<int>(kNoMemory);
    } catch (const std::exception& failure) {
        output.fail(Failure(kForeign, fmt::format("unexpected: {}", failure.what())));
        return static_cast<int>(kForeign);
    }
}

}  // namespace

Cli::Cli() {
    app_.require_subcommand(1);
    app_.fallthrough();
    app_.set_version_flag("--version", "fstore " FSTORE_VERSION);
    app_.set_help_flag("-h,--help", "Print help and exit");
    app_.footer("\"fstore COMMAND --help\" tells about one command.");
    addGlobals();
}

void Cli::addGlobals() {
    const std::map<std::string, Colour> colours{
        {"auto", Colour::kAuto}, {"always", Colour::kAlways}, {"never", Colour::kNever}};
    app_.add_option("-D,--dir", globals_.folder, "The folder that holds \"db\"")
        ->envname("FSTORE_DIR")
        ->type_name("DIR")
        ->capture_default_str();
    app_.add_option("--password-file", globals_.password.file,
                    "Read the password from a file; \"-\" is the standard input")
        ->type_name("FILE");
    app_.add_option("--password-fd", globals_.password.fd,
                    "Read the password from an open descriptor")
        ->type_name("N")
        ->check(CLI::NonNegativeNumber);
    app_.add_flag("--json", globals_.output.json, "Print one JSON document");
    app_.add_flag("-q,--quiet", globals_.output.quiet, "Tell of failures only");
    app_.add_flag("-v,--verbose", globals_.output.verbose, "Tell what is being done");
    app_.add_option("--color", globals_.output.colour, "auto, always or never")
        ->transform(CLI::CheckedTransformer(colours).description(""))
        ->type_name("WHEN");
    app_.add_flag("--no-input", globals_.noInput, "Never ask on the terminal");
    app_.add_option("--lock-timeout", globals_.lockSeconds,
                    "Wait so many seconds for another process")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.0, 1e9).description(""))
        ->capture_default_str();
}

CLI::App& Cli::add(const char* name, const char* description, Run run) {
    CLI::App* const command = app_.add_subcommand(name, description);
    command->fallthrough();
    command->final_callback([this, run = std::move(run)] { chosen_ = run; });
    return *command;
}

int Cli::main(int argc, const char* const* argv) {
    try {
        app_.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        Output output({.json = asksForJson(argc, argv)});
        if (error.get_exit_code() == 0) {  // --help or --version
            return guarded(output, [&] {
                std::ostringstream text;
                (void)app_.exit(error, text, text);
                output.raw(text.str());
                output.flush();
                return static_cast<int>(kOk);
            });
        }
        output.fail(Failure(kUsage, fmt::format("{}; `fstore --help` tells more", error.what())));
        return static_cast<int>(kUsage);
    }
    return runChosen();
}

int Cli::runChosen() {
    Output output(globals_.output);
    return guarded(output, [&] {
        Session session(globals_, output);
        Context context{globals_, output, session};
        int code = static_cast<int>(kOk);
        try {
            code = exitCodeOf(chosen_(context));
        } catch (const std::exception&) {
            if (!output.json()) {
                output.flush();  // what was found before the failure
            }
            throw;
        }
        output.flush();
        return code;
    });
}

}  // namespace fstore
