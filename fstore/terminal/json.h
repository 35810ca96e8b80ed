// JSON documents, as the commands put them together:
//
//     Json json = {{"address", jsonText(address)}, {"body", {{"size", 3}, {"encrypted", true}}}};
//     json["altNames"] = Json::array();
//     json["altNames"].push_back("example.org");
//
// Members keep their order. The library that knows how JSON is spelled is seen by json.cpp
// alone: to compile its type took each command longer than all else.
#ifndef FSTORE_TERMINAL_JSON_H
#define FSTORE_TERMINAL_JSON_H

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace fstore {

class Json {
public:
    using Member = std::pair<std::string, Json>;

    // From what it stands for, without a cast. Null by default; a list of pairs is an object.
    Json() = default;
    Json(bool value) : value_(value) {}
    template <std::signed_integral Number>
    Json(Number value) : value_(std::int64_t{value}) {}
    template <std::unsigned_integral Number>
    Json(Number value) : value_(std::uint64_t{value}) {}
    Json(std::string text) : value_(std::move(text)) {}
    Json(std::string_view text) : value_(std::string(text)) {}
    Json(const char* text) : value_(std::string(text)) {}
    Json(std::initializer_list<Member> members);

    static Json array(std::initializer_list<Json> elements = {});
    static Json array(const std::vector<std::string>& texts);

    // The member of this name, made if there is none; only of an object, which null becomes.
    Json& operator[](std::string_view name);
    // Only of an array.
    void push_back(Json element);

    // Adds the members of another object, none of which it has; only to an object.
    void append(Json object);

    // In lines, indented by two blanks a level, inside of so many levels. What is not UTF-8 becomes
    // the replacement character.
    std::string print(std::size_t depth = 0) const;

    // An array that nobody keeps as a whole: visit(each) calls each(element) for its elements,
    // which are printed inside of kLevelOfElements.
    using TextUser = std::function<void(std::string_view)>;
    struct LongArray {
        std::string_view name;
        std::function<void(const TextUser& each)> visit;
    };
    static constexpr std::size_t kLevelOfElements = 2;

    // As print(), of an object, in calls of use(text), with the array in place of its member of
    // that name.
    void printWith(const LongArray& array, const TextUser& use) const;

private:
    using Array = std::vector<Json>;
    using Object = std::vector<Member>;

    void printTo(std::string& text, std::size_t depth) const;

    std::variant<std::nullptr_t, bool, std::int64_t, std::uint64_t, std::string, Array, Object>
        value_;
};

// The text for a JSON document: what is not UTF-8 becomes the replacement character.
std::string jsonText(std::string_view text);

}  // namespace fstore

#endif  // FSTORE_TERMINAL_JSON_H
