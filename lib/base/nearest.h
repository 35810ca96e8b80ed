// Which name a mistyped one was meant to be.
//
//     Nearest nearest("gett");
//     for (const std::string& name : names) {
//         nearest.offer(name);
//     }
//     nearest.found();  // "get"
//
// For one thread.
#ifndef LIB_BASE_NEAREST_H
#define LIB_BASE_NEAREST_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace fstore {

class Nearest {
public:
    explicit Nearest(std::string_view wanted);

    // Takes time by the product of both lengths, of names that cannot be near none.
    void offer(std::string_view name);

    // Of those offered the first that goes on where the wanted one ends, or else the one with the
    // fewest letters changed, added, left out or exchanged with the next one. Empty when a third of
    // the letters or more would be wrong.
    const std::string& found() const noexcept { return longer_.empty() ? found_ : longer_; }

private:
    std::size_t distanceTo(std::string_view name);

    std::string wanted_;
    std::size_t bound_;  // only what is nearer counts
    std::string found_, longer_;
    std::vector<std::size_t> before_, last_, row_;  // of the distances of beginnings
};

}  // namespace fstore

#endif  // LIB_BASE_NEAREST_H
