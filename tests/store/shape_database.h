// A small database that 32-bit and 64-bit builds write alike and read from each other.
#ifndef TESTS_STORE_SHAPE_DATABASE_H
#define TESTS_STORE_SHAPE_DATABASE_H

#include <string>
#include <utility>
#include <vector>

#include "tests/support/test_store.h"

inline constexpr const char* kShapePassword = "shape";

// The records in the order of their writing.
const std::vector<std::pair<std::string, Contents>>& shapeRecords();

// Writes them through a store that was opened with kShapePassword. False when one
// could not be written.
bool writeShapeRecords();

#endif  // TESTS_STORE_SHAPE_DATABASE_H
