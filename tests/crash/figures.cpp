#include "tests/crash/figures.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <stdexcept>

#include "gtest/gtest.h"

namespace crash {
namespace {

std::map<std::string, long>& figures() {
    static std::map<std::string, long> figures;
    return figures;
}

double now() {
    using Seconds = std::chrono::duration<double>;
    return Seconds(std::chrono::steady_clock::now().time_since_epoch()).count();
}

double& lastPrint() {
    static double last = now();
    return last;
}

void print() {
    for (const auto& [figure, number] : figures()) {
        std::printf("figure: %s: %ld\n", figure.c_str(), number);
    }
    std::fflush(stdout);
    figures().clear();
    lastPrint() = now();
}

class Printer : public ::testing::EmptyTestEventListener {
    void OnTestEnd(const ::testing::TestInfo& /*test*/) override { print(); }
};

[[maybe_unused]] const bool printing = [] {
    ::testing::UnitTest::GetInstance()->listeners().Append(new Printer);
    return true;
}();

long numberIn(const char* variable, long otherwise) {
    const char* const text = std::getenv(variable);
    return text == nullptr ? otherwise : std::strtol(text, nullptr, 10);
}

}  // namespace

void count(const std::string& figure, long number) {
    constexpr double kMostSeconds = 60;
    figures()[figure] += number;
    if (now() - lastPrint() > kMostSeconds) {
        print();
    }
}

bool isFull() {
    return numberIn("TORTURE_FULL", 0) != 0;
}

Part part() {
    Part part{1, 1};
    const char* const text = std::getenv("TORTURE_PART");
    if (text != nullptr && (std::sscanf(text, "%zu/%zu", &part.index, &part.count) != 2 ||
                            part.index < 1 || part.index > part.count)) {
        throw std::runtime_error(std::string("TORTURE_PART=") + text);
    }
    --part.index;
    return part;
}

Overtime::Overtime()
    : end_(now() + static_cast<double>(numberIn("TORTURE_SECONDS", 0)) /
                       static_cast<double>(part().count)) {}

bool Overtime::isLeft() const {
    return now() < end_;
}

unsigned long seed() {
    return static_cast<unsigned long>(numberIn("TORTURE_SEED", 1)) + part().index;
}

}  // namespace crash
