// Where the modules of these tests are: lib/ beside the programs' bin/.
#ifndef TESTS_HOST_PROBE_FILES_H
#define TESTS_HOST_PROBE_FILES_H

#include <filesystem>
#include <string>

inline std::string moduleFolder() {
    return (std::filesystem::canonical("/proc/self/exe").parent_path().parent_path() / "lib")
        .string();
}

inline std::string moduleFile(const std::string& name) {
    return moduleFolder() + "/" + name + ".so";
}

#endif  // TESTS_HOST_PROBE_FILES_H
