#include "tests/crash/oracle.h"

#include <algorithm>
#include <sstream>

namespace crash {
namespace {

template <class List, class Value>
void addOnce(List& list, const Value& value) {
    if (std::find(list.begin(), list.end(), value) == list.end()) {
        list.push_back(value);
    }
}

// Takes the first that equals `contents` out of the list.
bool take(std::vector<Contents>& list, const Found& found) {
    const auto at = std::find_if(list.begin(), list.end(), [&](const Contents& contents) {
        return whole(contents) == found;
    });
    if (at == list.end()) {
        return false;
    }
    list.erase(at);
    return true;
}

}  // namespace

std::string judge(const Observation& seen, const Allowed& allowed) {
    std::ostringstream wrong;
    for (const std::string& fault : seen.faults) {
        wrong << "  " << fault << '\n';
    }
    if (seen.passwords.size() != 1) {
        wrong << "  " << seen.passwords.size() << " passwords open the database\n";
    }
    for (const std::string& password : seen.passwords) {
        const auto& right = allowed.passwords;
        if (std::find(right.begin(), right.end(), password) == right.end()) {
            wrong << "  opens with \"" << password << "\"\n";
        }
    }
    std::vector<Contents> unnamed = allowed.unnamed;
    std::vector<Contents> inDoubt = allowed.unnamedInDoubt;
    for (const auto& [id, found] : seen.records) {
        const auto known = allowed.records.find(id);
        if (known == allowed.records.end()) {
            if (found != kAbsent && !take(unnamed, found) && !take(inDoubt, found)) {
                wrong << "  unknown record " << id << ": " << found << '\n';
            }
            continue;
        }
        const std::vector<Found>& states = known->second;
        if (std::find(states.begin(), states.end(), found) == states.end()) {
            wrong << "  record " << id << ": " << found << '\n';
            for (const Found& state : states) {
                wrong << "    allowed: " << state << '\n';
            }
        }
    }
    for (const Contents& missing : unnamed) {
        wrong << "  not found: the unnamed record of " << missing << '\n';
    }
    for (const auto& [id, states] : allowed.records) {
        if (!seen.records.contains(id) &&
            std::find(states.begin(), states.end(), kAbsent) == states.end()) {
            wrong << "  record " << id << " was not looked for\n";
        }
    }
    return wrong.str();
}

Oracle::Oracle(const Observation& start) {
    allowed_.passwords = start.passwords;
    for (const auto& [id, found] : start.records) {
        allowed_.records[id] = {found};
    }
}

void Oracle::begin(const Step& step) {
    switch (step.act) {
        case Act::kWrite:
            if (nameOf(step.id).empty()) {
                allowed_.unnamedInDoubt.push_back(step.contents);
                break;
            }
            [[fallthrough]];
        case Act::kRemove: {
            std::vector<Found>& states =
                allowed_.records.try_emplace(step.id, std::vector<Found>{kAbsent}).first->second;
            addOnce(states, step.act == Act::kRemove ? kAbsent : whole(step.contents));
            break;
        }
        case Act::kRecrypt:
            addOnce(allowed_.passwords, step.password);
            break;
        default:
            break;
    }
}

void Oracle::end(const Step& step, Status status) {
    if (status != kOk) {
        return;
    }
    switch (step.act) {
        case Act::kWrite:
            if (nameOf(step.id).empty()) {
                take(allowed_.unnamedInDoubt, whole(step.contents));
                allowed_.unnamed.push_back(step.contents);
            } else {
                allowed_.records[step.id] = {whole(step.contents)};
            }
            break;
        case Act::kRemove:
            allowed_.records[step.id] = {kAbsent};
            break;
        case Act::kRecrypt:
            allowed_.passwords = {step.password};
            break;
        default:
            break;
    }
}

}  // namespace crash
