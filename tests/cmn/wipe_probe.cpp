#include "tests/cmn/wipe_probe.h"

#include "cmn/wipe.h"

void leaveLocalWiped(Fill fill) {
    unsigned char secret[kProbeSize];
    fill(secret);
    wipe(secret, sizeof secret);
}

void leaveLocalAsItIs(Fill fill) {
    unsigned char secret[kProbeSize];
    fill(secret);
}

void freeHeapWiped(Fill fill) {
    auto* const secret = new unsigned char[kProbeSize];
    fill(secret);
    wipe(secret, kProbeSize);
    delete[] secret;
}

void freeHeapAsItIs(Fill fill) {
    auto* const secret = new unsigned char[kProbeSize];
    fill(secret);
    delete[] secret;
}
