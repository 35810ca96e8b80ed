#include "fstore/terminal/json.h"

#include <algorithm>
#include <type_traits>

#include <nlohmann/json.hpp>

#include "lib/base/printable.h"

namespace fstore {
namespace {

void breakLine(std::string& text, std::size_t depth) {
    text += '\n';
    text.append(2 * depth, ' ');
}

// A string, number, truth value or null.
template <class Value>
std::string scalar(const Value& value) {
    using Library = nlohmann::json;
    return Library(value).dump(-1, ' ', false, Library::error_handler_t::replace);
}

// NOLINTBEGIN(misc-no-recursion): as deep as the commands' own documents are

// "[", the elements in lines of their own, "]"; `print` prints one of them.
template <class Elements, class Print>
void printLines(std::string& text, std::size_t depth, std::string_view brackets,
                const Elements& elements, Print print) {
    text += brackets.front();
    for (const auto& element : elements) {
        if (&element != &elements.front()) {
            text += ',';
        }
        breakLine(text, depth + 1);
        print(element);
    }
    if (!elements.empty()) {
        breakLine(text, depth);
    }
    text += brackets.back();
}

// NOLINTEND(misc-no-recursion)

// Prints all but the end, which it returns.
std::string printElements(const Json::LongArray& array, const Json::TextUser& use) {
    std::string text = "[";
    array.visit([&](std::string_view element) {
        breakLine(text, Json::kLevelOfElements);
        use(text);
        use(element);
        text = ",";
    });
    if (text == "[") {
        return "[]";
    }
    text.clear();
    breakLine(text, Json::kLevelOfElements - 1);
    return text + "]";
}

}  // namespace

Json::Json(std::initializer_list<Member> members) : value_(Object(members)) {}

Json Json::array(std::initializer_list<Json> elements) {
    Json json;
    json.value_ = Array(elements);
    return json;
}

Json Json::array(const std::vector<std::string>& texts) {
    Json json;
    json.value_ = Array(texts.begin(), texts.end());
    return json;
}

Json& Json::operator[](std::string_view name) {
    if (std::holds_alternative<std::nullptr_t>(value_)) {
        value_ = Object();
    }
    Object& members = std::get<Object>(value_);
    const auto found = std::ranges::find(members, name, &Member::first);
    if (found != members.end()) {
        return found->second;
    }
    return members.emplace_back(std::string(name), Json()).second;
}

void Json::push_back(Json element) {
    std::get<Array>(value_).push_back(std::move(element));
}

void Json::append(Json object) {
    Object& members = std::get<Object>(value_);
    std::ranges::move(std::get<Object>(object.value_), std::back_inserter(members));
}

std::string Json::print(std::size_t depth) const {
    std::string text;
    printTo(text, depth);
    return text;
}

void Json::printWith(const LongArray& array, const TextUser& use) const {
    std::string text = "{";
    const Object& members = std::get<Object>(value_);
    for (const Member& member : members) {
        if (&member != &members.front()) {
            text += ',';
        }
        breakLine(text, 1);
        text += scalar(member.first) + ": ";
        if (member.first == array.name) {
            use(text);
            text = printElements(array, use);
        } else {
            member.second.printTo(text, 1);
        }
    }
    breakLine(text, 0);
    use(text + "}");
}

// NOLINTBEGIN(misc-no-recursion): as above
void Json::printTo(std::string& text, std::size_t depth) const {
    if (const auto* const array = std::get_if<Array>(&value_)) {
        printLines(text, depth, "[]", *array,
                   [&](const Json& element) { element.printTo(text, depth + 1); });
    } else if (const auto* const object = std::get_if<Object>(&value_)) {
        printLines(text, depth, "{}", *object, [&](const Member& member) {
            text += scalar(member.first) + ": ";
            member.second.printTo(text, depth + 1);
        });
    } else {
        std::visit(
            [&](const auto& value) {
                using Value = std::decay_t<decltype(value)>;
                if constexpr (!std::is_same_v<Value, Array> && !std::is_same_v<Value, Object>) {
                    text += scalar(value);
                }
            },
            value_);
    }
}
// NOLINTEND(misc-no-recursion)

std::string jsonText(std::string_view text) {
    if (isUtf8(text)) {
        return std::string(text);
    }
    const std::string dumped = scalar(text);
    return nlohmann::json::parse(dumped).get<std::string>();
}

}  // namespace fstore
