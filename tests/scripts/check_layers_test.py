"""check_layers.py lets through what steps down, catches what climbs, and asks for descriptions."""

import unittest

from support import ScriptTest

GOOD = [
    ("os/fs.h", "<dirent.h>"),
    ("os/handles.h", "<pthread.h>"),
    ("cmn/cmn_rmutex.h", "<pthread.h>"),
    ("cmn/host_mgr.h", '"os/handles.h"'),
    ("api/t_buf.h", '"cmn/cmn_gref.h"'),
    ("client/cmn_abuf.h", '"api/t_buf.h"'),
    ("store/file_store.cpp", '"store/file_store.h"'),
    ("service/db_folders.cpp", '"store/filefunc.h"'),
    ("host/loader.cpp", "<dlfcn.h>"),
    ("modules/pkcs5/pbes.cpp", '"modules/pkcs5/pbes.h"'),
    ("modules/pkcs5/pbes.cpp", "<openssl/evp.h>"),
    ("modules/pkcs5/pbes.cpp", '"modules/common/module_entry.h"'),
    ("modules/common/module_entry.h", '"modules/common/wiped_bytes.h"'),
    ("format/dsc_text.h", '"cmn/status.h"'),
    ("store/dsc_file.cpp", '"format/dsc_text.h"'),
    ("lib/base/files.cpp", '"os/files.h"'),
    ("lib/records/record.cpp", '"format/record_name.h"'),
    ("lib/records/record.cpp", '"client/file_store_exp.h"'),
    ("lib/database/database.cpp", '"lib/records/record.h"'),
    ("lib/database/database.cpp", '"host/store_host.h"'),
    ("lib/pki/decode.cpp", "<openssl/x509.h>"),
    ("fstore/terminal/output.cpp", '"lib/base/printable.h"'),
    ("fstore/commands/show.cpp", '"lib/pki/object.h"'),
    ("fstore/main.cpp", '"fstore/commands/cli.h"'),
    ("fstore/commands/cli.cpp", "<CLI/CLI.hpp>"),
    ("examples/store_key.cpp", '"host/store_host.h"'),
    ("examples/store_key.cpp", '"client/file_store_exp.h"'),
    ("tests/store/filefunc_test.cpp", '"service/db_folders.h"'),
    ("tests/store/filefunc_test.cpp", "<unistd.h>"),
]

BAD = [
    ("os/fs_posix.cpp", '"cmn/status.h"'),
    ("cmn/cmn_ref.h", '"store/file_store.h"'),
    ("cmn/cmn_ref.h", '"api/t_buf.h"'),
    ("cmn/cmn_ref.h", '"cmn/../store/file_store.h"'),
    ("api/t_buf.h", '"client/cmn_abuf.h"'),
    ("client/cmn_abuf.cpp", '"store/file_store.h"'),
    ("store/file_store.cpp", '"service/db_folders.h"'),
    ("store/file_store.cpp", "<unistd.h>"),
    ("store/file_store.cpp", "<sys/stat.h>"),
    ("store/file_store.cpp", "<dirent.h>"),
    ("store/file_store.cpp", "  <dirent.h>"),
    ("store/file_store.cpp", "<filesystem>"),
    ("store/rw_locker.h", "<pthread.h>"),
    ("store/crypto_coder.cpp", "<openssl/evp.h>"),
    ("service/md5.cpp", '"host/loader.h"'),
    ("host/loader.cpp", '"store/file_store.h"'),
    ("host/loader.cpp", '"client/cmn_abuf.h"'),
    ("modules/pkcs5/pbes.cpp", '"modules/x509cmn/buf.h"'),
    ("modules/common/module_entry.h", '"modules/pkcs5/pbes.h"'),
    ("modules/pkcs5/pbes.cpp", '"store/file_store.h"'),
    ("fstore/main.cpp", '"service/s_filestore_mm.h"'),
    ("fstore/main.cpp", "<sys/stat.h>"),
    ("format/dsc_text.cpp", '"os/files.h"'),
    ("format/dsc_text.cpp", '"store/filefunc.h"'),
    ("lib/base/files.cpp", '"lib/records/record.h"'),
    ("lib/base/files.cpp", '"client/file_store_exp.h"'),
    ("lib/base/files.cpp", "<fstream>"),
    ("lib/records/record.cpp", '"lib/database/inspect.h"'),
    ("lib/records/record.cpp", '"host/store_host.h"'),
    ("lib/database/database.cpp", '"lib/pki/decode.h"'),
    ("lib/database/database.cpp", '"fstore/terminal/output.h"'),
    ("lib/database/database.cpp", "<sys/file.h>"),
    ("lib/database/database.cpp", '"service/s_filestore_mm.h"'),
    ("lib/pki/decode.cpp", '"lib/database/inspect.h"'),
    ("lib/cellar/wine.cpp", '"lib/base/error.h"'),
    ("fstore/terminal/output.cpp", '"lib/records/record.h"'),
    ("fstore/terminal/password.cpp", "<termios.h>"),
    ("fstore/commands/export.cpp", "<openssl/x509.h>"),
    ("fstore/commands/cli.h", "<CLI/CLI.hpp>"),
    ("bench/write_bench.cpp", '"store/file_store.h"'),
    ("examples/store_key.cpp", '"service/s_filestore_mm.h"'),
    ("examples/client_module.cpp", '"modules/common/module_entry.h"'),
    ("host/store_host.cpp", '"examples/store_key.h"'),
    ("store/file_store.cpp", '"tests/support/temp_db.h"'),
    ("store/file_store.cpp", '"file_store.h"'),
    ("store/file_store.cpp", '"../cmn/status.h"'),
    ("store/file_store.cpp", "SOME_MACRO"),
    ("utils/strings.h", "<string>"),
    ("api/t_buf.cpp", '"api/t_buf.h"'),
]


ROOMS = ("base", "records", "database", "pki", "terminal", "commands", "pkcs5", "common")


class CheckLayersTest(ScriptTest):
    def write(self, name, text):
        """In a folder that describes its rooms."""
        super().write(f"{name.split('/')[0]}/README.md", "".join(f"`{room}`\n" for room in ROOMS))
        super().write(name, text)

    def test_lets_through_what_steps_down(self):
        for name, include in GOOD:
            self.write(name, "")
        for name, include in GOOD:
            with (self.root / name).open("a", encoding="utf-8") as file:
                file.write(f"#include {include}\n")
        status, output = self.run_script("check_layers.py")
        self.assertEqual(0, status, output)

    def test_catches_each_include_that_climbs(self):
        for name, include in BAD:
            with self.subTest(file=name, include=include):
                self.write(name, f"// fine\n#include {include}\n")
                status, output = self.run_script("check_layers.py")
                self.assertEqual(1, status)
                self.assertIn(f"{name}:", output)
                (self.root / name).unlink()

    def test_names_file_and_line(self):
        self.write("cmn/status.h", '#include <string>\n\n#  include "store/filefunc.h"\n')
        status, output = self.run_script("check_layers.py")
        self.assertEqual(1, status)
        self.assertIn("cmn/status.h:3: cmn/ may not include store/", output)

    def test_prints_each_circle(self):
        self.write("lib/base/a.h", '#include "lib/base/b.h"\n')
        self.write("lib/base/b.h", "// fine\n")
        self.write("lib/base/b.cpp", '#include "lib/base/b.h"\n#include "lib/base/c.h"\n')
        self.write("lib/base/c.h", '#include "lib/base/a.h"\n')
        self.write("fstore/terminal/x.h", '#include "fstore/terminal/y.h"\n')
        self.write("fstore/terminal/y.cpp", '#include "fstore/terminal/x.h"\n')
        self.write("fstore/terminal/y.h", "")
        status, output = self.run_script("check_layers.py")
        self.assertEqual(1, status)
        self.assertIn("circle: lib/base/a -> lib/base/b -> lib/base/c -> lib/base/a\n", output)
        self.assertIn("circle: fstore/terminal/x -> fstore/terminal/y -> fstore/terminal/x\n",
                      output)
        self.assertEqual(2, output.count("circle: "))

    def test_a_source_and_its_header_are_no_circle(self):
        self.write("lib/base/a.cpp", '#include "lib/base/a.h"\n#include "lib/base/b.h"\n')
        self.write("lib/base/a.h", '#include "lib/base/c.h"\n')
        self.write("lib/base/b.h", '#include "lib/base/c.h"\n')
        self.write("lib/base/c.h", "")
        status, output = self.run_script("check_layers.py")
        self.assertEqual(0, status, output)

    def test_each_room_is_described(self):
        for folder in ("os", "lib", "tests"):
            super().write(f"{folder}/a.h", "")
        self.write("fstore/terminal/x.h", "")
        self.write("fstore/pantry/x.h", "")
        status, output = self.run_script("check_layers.py")
        self.assertEqual(1, status)
        for room in ("os", "lib", "tests", "fstore/pantry"):
            self.assertIn(f"{room}/: no README.md", output)
        self.assertNotIn("fstore/terminal", output)

    def test_an_empty_tree_is_no_success(self):
        status, _ = self.run_script("check_layers.py")
        self.assertEqual(1, status)


if __name__ == "__main__":
    unittest.main()
