"""check_groups.py finds functions that sources of one group would take from each other."""

import unittest

from support import ScriptTest


def source(*functions):
    return "namespace {\n\n" + "\n\n".join(functions) + "\n\n}  // namespace\n"


def function(result, name, parameters):
    return f"{result} {name}({parameters}) {{\n    return {{}};\n}}"


# First parameters of two functions.
APART = [
    ("const Record& record", "const UnlockSlot& slot"),
    ("const Record& record", "const std::string& text"),
    ("X509* certificate", "std::string_view text"),
    ("char c", "std::string_view text"),
    ("Kind kind", "Outcome outcome, int more"),
]
TOGETHER = [
    ("const std::string& folder", "std::string_view path"),
    ("const char* text", "std::string_view line, LostPlan& plan"),
    ("bool done", "const char* text"),  # a text becomes a truth sooner than a std::string_view
    ("int code", "std::size_t count"),
    ("const Record& one, Record other", "const Record& record, unsigned int index"),
    ("std::span<const unsigned char> bytes", "const std::vector<unsigned char>& bytes"),
    ("const std::function<void()>& first = {}", "const std::function<void()>& first"),
    ("const T& value", "const T& value, int more"),
    ("", ""),
]


class CheckGroupsTest(ScriptTest):
    def status(self):
        return self.run_script("check_groups.py")[0]

    def test_sources_that_have_nothing_in_common(self):
        self.write("lib/base/a.cpp", source(function("int", "first", "int a")))
        self.write("lib/work/b.cpp", source(function("int", "second", "int a")))
        self.assertEqual(0, self.status())

    def test_first_parameters(self):
        for expected, pairs in ((0, APART), (1, TOGETHER)):
            for one, other in pairs:
                with self.subTest(one=one, other=other):
                    self.write("lib/base/a.cpp", source(function("std::string", "same", one)))
                    self.write("lib/work/b.cpp", source(function("std::string_view", "same", other)))
                    self.assertEqual(expected, self.status())

    def test_a_function_of_a_header_of_the_room(self):
        self.write("fstore/commands/a.h", "int same(const std::string& text);\n")
        self.write("fstore/terminal/b.cpp", source(function("int", "same", "std::string_view text")))
        status, output = self.run_script("check_groups.py")
        self.assertEqual(1, status)
        self.assertIn("same() is in fstore/commands/a.h, fstore/terminal/b.cpp\n", output)

    def test_other_rooms_and_what_a_source_gives_away_do_not_matter(self):
        self.write("lib/base/a.cpp", source(function("int", "same", "int a")))
        self.write("os/b.cpp", source(function("int", "same", "int a")))
        self.write("lib/base/c.cpp", "int Some::same(int a) {\n    return a;\n}\n")
        self.assertEqual(0, self.status())

    def test_overloads_of_one_source(self):
        self.write("lib/base/a.cpp", source(function("int", "same", "int a"),
                                            function("int", "same", "long a")))
        self.assertEqual(0, self.status())

    def test_a_tree_without_rooms_is_a_fault(self):
        self.assertEqual(1, self.status())


if __name__ == "__main__":
    unittest.main()
