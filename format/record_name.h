// The names that a record's files have in its folder.
//
// Pure functions of their arguments: they look at no file and remember nothing, and any
// thread may call them. They throw std::bad_alloc for want of memory, which the operations
// that use these names turn into a status.
#ifndef FORMAT_RECORD_NAME_H
#define FORMAT_RECORD_NAME_H

#include <string>
#include <string_view>
#include <vector>

// A descriptor's name ends in kDscSuffix. While a record is written or removed
// its descriptor also exists under that name with a marker behind it.
inline constexpr std::string_view kDscSuffix = ".dsc";
inline constexpr std::string_view kNewMarker = ".$n$";      // written, not yet in place
inline constexpr std::string_view kOldMarker = ".$o$";      // saved until the new one is in place
inline constexpr std::string_view kDeletedMarker = ".$d$";  // on its way out

// "0000002a" gives "0000002a.dsc".
[[nodiscard]] std::string descriptorName(std::string_view record);

// All before the last ".", or the whole name where there is none: "a.b.dsc"
// gives "a.b", ".dsc" gives "".
[[nodiscard]] std::string_view recordName(std::string_view file);

// Whether the name ends in the marker (or kDscSuffix). The marker alone does not count.
[[nodiscard]] constexpr bool hasMarker(std::string_view name, std::string_view marker) {
    return name.size() > marker.size() && name.ends_with(marker);
}

// The name without its marker, which it has.
[[nodiscard]] std::string_view withoutMarker(std::string_view name, std::string_view marker);

// The n-th unique name, 8 lower-case hexadecimal digits.
[[nodiscard]] std::string uniqueName(unsigned int n);

// Whether uniqueName() returns this name for some number.
[[nodiscard]] bool isUniqueName(std::string_view name);

// Whether the name is that of an entry of the folder itself: it is not empty, "." or "..",
// and has no "/" in it.
[[nodiscard]] bool isPlainName(std::string_view name);

// Whether a file of this name can be a record's body: a plain name that no descriptor has
// at any time.
[[nodiscard]] bool isBodyName(std::string_view name);

// folder + "/" + name.
[[nodiscard]] std::string joinPath(std::string_view folder, std::string_view name);

// Reduces the names of a folder's files to its records: all descriptors, then each saved
// descriptor (still with its kOldMarker) whose place is empty. Both groups keep their
// order; all other names are dropped.
void correctFileNameList(std::vector<std::string>& names);

#endif  // FORMAT_RECORD_NAME_H
