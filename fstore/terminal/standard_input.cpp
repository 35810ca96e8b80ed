#include "fstore/terminal/standard_input.h"

#include <fmt/format.h>

#include "lib/base/error.h"
#include "lib/base/files.h"

namespace fstore {

void StandardInput::claim(const std::string& what) {
    if (!reader_.empty()) {
        throw Failure(kUsage, reader_ == what
                                  ? fmt::format("the standard input cannot be {} twice", what)
                                  : fmt::format("the standard input cannot be both {} and {}",
                                                reader_, what));
    }
    reader_ = what;
}

void StandardInput::claimIfNamed(const std::string& file, const std::string& what) {
    if (file == kStandardStream) {
        claim(what);
    }
}

}  // namespace fstore
