#include "tests/crash/figures.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>

#include "gtest/gtest.h"

namespace crash {
namespace {

std::map<std::string, long>& figures() {
    static std::map<std::string, long> figures;
    return figures;
}

class Printer : public ::testing::Environment {
public:
    void TearDown() override {
        for (const auto& [figure, number] : figures()) {
            std::printf("figure: %s: %ld\n", figure.c_str(), number);
        }
    }
};

[[maybe_unused]] const auto* const printer = ::testing::AddGlobalTestEnvironment(new Printer);

double now() {
    using Seconds = std::chrono::duration<double>;
    return Seconds(std::chrono::steady_clock::now().time_since_epoch()).count();
}

long numberIn(const char* variable, long otherwise) {
    const char* const text = std::getenv(variable);
    return text == nullptr ? otherwise : std::strtol(text, nullptr, 10);
}

}  // namespace

void count(const std::string& figure, long number) {
    figures()[figure] += number;
}

bool isFull() {
    return numberIn("TORTURE_FULL", 0) != 0;
}

Overtime::Overtime() : end_(now() + static_cast<double>(numberIn("TORTURE_SECONDS", 0))) {}

bool Overtime::isLeft() const {
    return now() < end_;
}

unsigned long seed() {
    return static_cast<unsigned long>(numberIn("TORTURE_SEED", 1));
}

}  // namespace crash
