// What makes a test program a module of its own: the identifier of the store.
#include "cmn/export.h"
#include "cmn/id_type.h"

CMN_BUILT_FIRST constinit Tuint32ID ModuleID(107);
