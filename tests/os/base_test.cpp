#include "os/base.h"

#include "tests/os/base_cases.h"
