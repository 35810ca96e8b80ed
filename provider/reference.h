// The PEM block that stands for a record:
//
//     -----BEGIN FSTORE URI-----
//     base64 of the URI
//     -----END FSTORE URI-----
#ifndef PROVIDER_REFERENCE_H
#define PROVIDER_REFERENCE_H

#include <optional>
#include <string>

#include "provider/core.h"

namespace provider {

// Reads one PEM block, and what stands in front of it. The URI, or none when it is a block of
// another type, or no PEM: that is for others, and is left as soon as it shows. Throws
// kBadReference for a block of ours that cannot be read.
std::optional<std::string> readReference(const Core& core, OSSL_CORE_BIO* in);

}  // namespace provider

#endif  // PROVIDER_REFERENCE_H
