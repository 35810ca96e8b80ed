"""The C header compiles alone, in each language that it promises, without a word from the compiler."""

import pathlib
import subprocess
import unittest

HEADER = pathlib.Path(__file__).resolve().parent.parent.parent / "capi" / "filestore.h"
STRICT = ["-Wall", "-Wextra", "-pedantic", "-Werror", "-Wshadow", "-Wconversion", "-fsyntax-only"]
# Every _INIT is used, so that none lags behind its structure.
UNIT = f"""#include "{HEADER}"
#include "{HEADER}"
struct all {{
    filestore_error error; filestore_callbacks callbacks; filestore_open_options open_options;
    filestore_key key; filestore_info info; filestore_attribute attribute;
    filestore_find_options find; filestore_problem problem; filestore_import_options import_options;
    filestore_export_options export_options; filestore_check_options check;
}};
struct all make(void);
struct all make(void) {{
    struct all all = {{
        FILESTORE_ERROR_INIT, FILESTORE_CALLBACKS_INIT, FILESTORE_OPEN_OPTIONS_INIT,
        FILESTORE_KEY_INIT, FILESTORE_INFO_INIT, FILESTORE_ATTRIBUTE_INIT,
        FILESTORE_FIND_OPTIONS_INIT, FILESTORE_PROBLEM_INIT, FILESTORE_IMPORT_OPTIONS_INIT,
        FILESTORE_EXPORT_OPTIONS_INIT, FILESTORE_CHECK_OPTIONS_INIT}};
    return all;
}}
"""


class HeaderTest(unittest.TestCase):
    def compile(self, compiler, language, standard):
        run = subprocess.run([compiler, "-x", language, f"-std={standard}", *STRICT, "-"],
                             input=UNIT, capture_output=True, text=True, check=False)
        self.assertEqual("", run.stderr)
        self.assertEqual(0, run.returncode)

    def test_c(self):
        for standard in ("c99", "c11", "c17"):
            with self.subTest(standard):
                self.compile("gcc", "c", standard)

    def test_cplusplus(self):
        for standard in ("c++17", "c++20"):
            with self.subTest(standard):
                self.compile("g++", "c++", standard)

    def test_a_fault_would_be_seen(self):
        run = subprocess.run(["gcc", "-x", "c", "-std=c99", *STRICT, "-"],
                             input=UNIT.replace("FILESTORE_KEY_INIT", "FILESTORE_ERROR_INIT"),
                             capture_output=True, text=True, check=False)
        self.assertNotEqual(0, run.returncode)


if __name__ == "__main__":
    unittest.main()
