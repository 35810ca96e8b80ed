// A host program is a module of its own among those that it loads: its holders
// record this identifier. Numbers of real modules begin above it.
#include "cmn/export.h"
#include "cmn/id_type.h"

CMN_BUILT_FIRST constinit Tuint32ID ModuleID(1);
