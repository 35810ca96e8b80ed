// Writes the database of the present build's shape: make_shape_database FOLDER.
// Its files are kept in tests/data/shapes, one folder a shape.
#include <cstdio>
#include <filesystem>

#include "tests/store/shape_database.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        (void)std::fprintf(stderr, "usage: make_shape_database FOLDER\n");
        return 2;
    }
    const std::filesystem::path target = std::filesystem::absolute(argv[1]);
    std::filesystem::create_directories(target);
    const TestStore store(kShapePassword);
    if (!writeShapeRecords()) {
        return 1;
    }
    std::filesystem::copy(TestStore::kFolder, target);
    return 0;
}
