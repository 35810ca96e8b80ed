// SPDX-License-Identifier: Apache-2.0
// What an operation of the host returns: a status, and for a failure the reason in words.
#ifndef HOST_RESULT_H
#define HOST_RESULT_H

#include <string>

#include "cmn/status.h"

struct [[nodiscard]] Result {
    Status status = kOk;
    std::string message;  // for the log or the terminal; names the file or module; empty for kOk

    bool ok() const noexcept { return status == kOk; }
};

#endif  // HOST_RESULT_H
