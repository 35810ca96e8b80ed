// What may be known of a database's records without a look at all of them.
//
// Whoever holds a database may have such knowledge; it is that of the thread that entered. Every
// question may be answered with none: then the records are looked at. An answer has every record
// that is meant, in the order of allRecords(), and perhaps more: so each is read.
#ifndef LIB_RECORDS_LOOKUP_H
#define LIB_RECORDS_LOOKUP_H

#include <cstddef>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "lib/base/name_list.h"
#include "lib/records/address.h"
#include "lib/records/attributes.h"
#include "lib/records/body_owners.h"

namespace fstore {

class Filter;

// Addresses of very many records, in little more memory than their names take.
class AddressList {
public:
    // The folders in the order of allRecords(), with names in any order, and perhaps twice.
    void add(std::string folder, NameList names) {
        names.sort();
        folders_.emplace_back(std::move(folder), std::move(names));
    }

    // Calls use(address) for each, once, in the order of allRecords().
    template <class Use>
    void visit(Use use) const {
        for (const auto& [folder, names] : folders_) {
            for (std::size_t i = 0; i < names.size(); ++i) {
                if (i == 0 || names[i] != names[i - 1]) {
                    use(Address{folder, std::string(names[i])});
                }
            }
        }
    }

    // What is there twice is counted twice.
    std::size_t size() const {
        std::size_t count = 0;
        for (const auto& [folder, names] : folders_) {
            count += names.size();
        }
        return count;
    }

private:
    std::vector<std::pair<std::string, NameList>> folders_;
};

class Lookup : public BodyNames {
public:
    using Addresses = std::optional<std::vector<Address>>;

    // For who has met so many descriptors: whether it is worth asking again, as now there is more
    // to know.
    virtual bool offer(std::size_t descriptors) = 0;

    // The records with a plain digest that begins with these lower-case hexadecimal digits.
    virtual Addresses withDigest(std::string_view digits) = 0;

    // The same of a kind and a whole digest, and of keys by that of the public key.
    virtual Addresses withObject(Kind kind, std::string_view sha256) = 0;
    virtual Addresses keysWith(std::string_view keySha256) = 0;
    // The keys' digests (RecordInfo::keySha256), of those that have one in plain form.
    virtual std::optional<std::set<std::string>> keys() = 0;

    // What may match, in this folder and those in it; with `unlocked` also what has encrypted
    // parts.
    virtual std::optional<AddressList> matching(const Filter& filter, const std::string& folder,
                                                bool unlocked) = 0;

    // The records that no question about an object finds: damaged ones, and, with `unlocked`, those
    // whose kind or digests are encrypted.
    virtual Addresses unsure(bool unlocked) = 0;

    // As allFolders(); reads no folder.
    virtual std::optional<std::vector<std::string>> folders() = 0;

    // Around each change of a record by this thread, which keeps other processes out.
    virtual void willChange(const Address& address) noexcept = 0;
    virtual void changed(const Address& address) noexcept = 0;

    // That of this thread; null for none.
    static Lookup* current() noexcept;

    // Makes one the thread's while it lives. The thread destroys several in reverse order.
    class Use {
    public:
        explicit Use(Lookup& lookup) noexcept;
        Use(const Use&) = delete;
        Use& operator=(const Use&) = delete;
        ~Use();

    private:
        Lookup* const before_;
    };
};

// The change of a record, from before its first file is touched to the end.
class RecordChangeNotice {
public:
    explicit RecordChangeNotice(Address address) noexcept;
    RecordChangeNotice(const RecordChangeNotice&) = delete;
    RecordChangeNotice& operator=(const RecordChangeNotice&) = delete;
    ~RecordChangeNotice();

private:
    Lookup* const lookup_;
    const Address address_;
};

// What ask(lookup) answers, or the result of all(), of which it is asked again when that was much.
template <class Ask, class All>
std::vector<Address> knownOrAll(Ask ask, All all) {
    Lookup* const lookup = Lookup::current();
    if (lookup != nullptr) {
        if (auto known = ask(*lookup)) {
            return std::move(*known);
        }
    }
    std::vector<Address> found = all();
    if (lookup != nullptr && lookup->offer(found.size())) {
        if (auto known = ask(*lookup)) {
            return std::move(*known);
        }
    }
    return found;
}

}  // namespace fstore

#endif  // LIB_RECORDS_LOOKUP_H
