#!/usr/bin/env python3
"""Proves that the harness sees: builds the store with one small fault at a time and expects a test
to fail. See seeding.py.

    seeded_bugs.py BUILD_FOLDER [--all | NAME...]

Without names a fixed few are tried.
"""
import sys

import seeding

EVERY_DAY = ("body_not_synced", "old_descriptor_deleted_too_early", "removal_deletes_saved_descriptor_and_hopes",
             "copy_not_durable", "write_takes_no_lock")

POWER, DEATH, CALLS, MEMORY, LOCK = ("power_loss_test", "death_test", "failing_call_test",
                                     "failing_allocation_test", "lock_test")
PROGRAMS = (LOCK, POWER, DEATH, CALLS, MEMORY)


# Most faults show when the power is lost.
def Bug(name, file, old, new, first=POWER, also=()):
    return seeding.Bug(name, file, old, new, first, also)


RECORD = "store/record_disk.cpp"
DSC = "store/dsc_file.cpp"
BODY = "store/body_file.cpp"
FILE = "store/record_file.cpp"
LIST = "store/file_store_list.cpp"
NAMES = "store/record_names.cpp"
RECRYPT = "service/recrypt.cpp"
FOLDERS = "service/db_folders.cpp"
FILES = "os/files.cpp"

BUGS = (
    # Writing.
    Bug("body_not_synced", RECORD,
        "if (files.bodyFile && !finish(std::move(files.bodyFile), sync)) {",
        "if (files.bodyFile && !files.bodyFile.close()) {"),
    Bug("descriptor_not_synced", RECORD,
        "if (!finish(std::move(descriptor), sync)) {",
        "if (!descriptor.close()) {"),
    Bug("names_not_synced", RECORD,
        "    if (!os::syncFolder(folderName.c_str())) {\n        undoPublish(",
        "    if (files.descriptor.empty()) {\n        undoPublish("),
    Bug("failed_sync_of_names_ignored", RECORD,
        "undoPublish(files, replaces);\n        return kIo;",
        "(void)replaces;"),
    Bug("published_although_it_failed", RECORD,
        "undoPublish(files, replaces);\n        return kIo;",
        "files.bodyPath->commit();\n        return kIo;", CALLS),
    Bug("new_body_deleted_before_the_undo_is_durable", RECORD,
        "if (files.bodyPath && !(undone && os::syncFolder(folderName.c_str()))) {",
        "if (files.bodyPath && !undone) {"),
    Bug("new_body_deleted_although_published", RECORD,
        "        if (bodyPath) {\n            bodyPath->commit();\n        }\n        isInPlace",
        "        isInPlace"),
    Bug("old_descriptor_deleted_instead_of_moved", RECORD,
        "if (replaces && !moveAside(files.descriptor, files.saved)) {",
        "if (replaces && !deleteFile(files.descriptor)) {"),
    Bug("old_descriptor_deleted_too_early", RECORD,
        "    if (watched::rename(files.newDescriptor->c_str(), files.descriptor.c_str()) != 0) {\n"
        "        if (replaces) {",
        "    (void)deleteFile(files.saved);\n"
        "    if (watched::rename(files.newDescriptor->c_str(), files.descriptor.c_str()) != 0) {\n"
        "        if (replaces) {"),
    Bug("old_body_deleted_too_early", RECORD,
        "    if (!os::syncFolder(folderName.c_str())) {\n        undoPublish(",
        "    (void)removeRecord(folderName, files.saved);\n"
        "    if (!os::syncFolder(folderName.c_str())) {\n        undoPublish("),
    Bug("descriptor_published_before_it_is_complete", RECORD,
        "    files.newDescriptor.emplace(path);\n",
        "    files.newDescriptor.emplace(path);\n"
        "    if (publish(files) != kOk) {\n        return kIo;\n    }\n"),
    Bug("body_of_another_overwritten", RECORD,
        "O_WRONLY | O_CREAT | O_EXCL);", "O_WRONLY | O_CREAT | O_TRUNC);",
        also=(("return os::presence(path.c_str());", "return os::Presence::kAbsent;"),)),
    Bug("failed_body_write_ignored", RECORD,
        "return files.bodyFile && writeBytes(files.bodyFile, bytes) ? kOk : kIo;",
        "(void)(files.bodyFile && writeBytes(files.bodyFile, bytes));\n    return kOk;", CALLS),
    Bug("failed_descriptor_write_ignored", DSC,
        "if (!os::writeAll(opened.get(), text.data(), text.size())) {",
        "if (!os::writeAll(opened.get(), text.data(), text.size()) && text.empty()) {", CALLS),
    Bug("write_takes_no_lock", RECORD,
        "const os::WriteLock locked(RWLocker::lockFor(lockType));\n        return replaceRecord(sync);",
        "return replaceRecord(sync);", LOCK),
    Bug("write_takes_the_lock_of_readers", RECORD,
        "const os::WriteLock locked(RWLocker::lockFor(lockType));\n        return replaceRecord(sync);",
        "const os::ReadLock locked(RWLocker::lockFor(lockType));\n        return replaceRecord(sync);",
        LOCK),
    # Reading.
    Bug("read_takes_no_lock", RECORD,
        "        const os::ReadLock locked(RWLocker::lockFor(lockType));\n"
        "        const Status status = readFiles(path);",
        "        const Status status = readFiles(path);", LOCK),
    Bug("reader_does_not_repair", RECORD,
        "if (status == kMissing) {\n        // A repair",
        "if (status == kNotOpen) {\n        // A repair"),
    Bug("unread_file_taken_for_empty", FILE,
        "    size_ = status.st_size;", "    size_ = static_cast<off_t>(known_);", CALLS),
    Bug("file_that_cannot_be_read_on_taken_for_whole", FILE,
        "        if (got <= 0) {\n            return false;",
        "        if (got <= 0) {\n            return true;", CALLS),
    Bug("flag_of_cipher_form_not_cleared", "store/file_store.cpp",
        "        bodyPending = 0;\n        bodyPresent = 1;",
        "        bodyPresent = 1;"),
    Bug("repair_prefers_the_saved_descriptor", RECORD,
        "const bool done = hasCurrent == os::Presence::kPresent\n",
        "const bool done = hasCurrent == os::Presence::kUnknown\n"),
    # Removing.
    Bug("removal_keeps_saved_descriptor", RECORD,
        "    if (!moveOverSaved(path, saved)) {\n        return kIo;\n    }\n"
        "    if (!moveAside(saved, deleted)) {",
        "    if (!moveAside(path, deleted)) {"),
    Bug("removal_deletes_saved_descriptor_and_hopes", RECORD,
        "    if (!moveOverSaved(path, saved)) {\n        return kIo;\n    }\n"
        "    if (!moveAside(saved, deleted)) {",
        "    if (tryCorrectName(folderName.c_str(), fileName.c_str()) != kOk ||\n"
        "        !moveAside(path, deleted)) {"),
    Bug("removal_not_synced", RECORD,
        "    if (!os::syncFolder(folderName.c_str())) {\n        (void)watched::rename(deleted",
        "    if (folderName.empty()) {\n        (void)watched::rename(deleted"),
    Bug("removal_not_undone", RECORD,
        "        (void)watched::rename(deleted.c_str(), path.c_str());\n",
        "", CALLS),
    Bug("removal_of_the_body_first", RECORD,
        "    if (!moveOverSaved(path, saved)) {",
        "    removeBody(bodyPath);\n"
        "    if (!moveOverSaved(path, saved)) {"),
    Bug("removal_takes_no_lock", RECORD,
        "        const os::WriteLock locked(RWLocker::lockFor(lockType));\n        return removeFiles();",
        "        return removeFiles();", LOCK),
    # Listing.
    Bug("scan_puts_back_over_the_new", "format/record_name.cpp",
        "            return descriptors.contains(withoutMarker(name, kOldMarker));",
        "            return descriptors.contains(\"\");"),
    Bug("scan_does_not_repair", NAMES,
        "    dropPlaced(saved);\n    if", "    saved.clear();\n    if"),
    Bug("unreadable_folder_taken_for_empty", NAMES,
        "    if (!dir) {\n        return kIo;",
        "    if (!dir) {\n        return kOk;", CALLS),
    Bug("listing_that_breaks_off_taken_for_whole", NAMES,
        "return errno == 0 ? kOk : kIo;  // a listing",
        "return kOk;  // a listing", CALLS),
    Bug("scan_takes_no_lock", LIST,
        "        const os::WriteLock locked(RWLocker::lockFor(lockType));\n", "", LOCK),
    # Folders and passwords.
    Bug("old_database_not_put_back", FOLDERS,
        "    switch (os::presence(kPrevious)) {\n        case os::Presence::kPresent:",
        "    switch (os::presence(kPrevious)) {\n        case os::Presence::kPresent:\n            break;\n"
        "        case static_cast<os::Presence>(99):"),
    Bug("unexaminable_old_database_taken_for_none", FOLDERS,
        "        case os::Presence::kUnknown:\n            return false;",
        "        case os::Presence::kUnknown:", CALLS),
    Bug("folders_not_synced", FOLDERS,
        "        if (!os::syncFolder(parent)) {",
        "        if (parent == nullptr) {"),
    Bug("copy_not_durable", RECRYPT,
        "    return opened && os::syncfs(opened.get()) == 0;",
        "    return static_cast<bool>(opened);"),
    Bug("copy_that_breaks_off_taken_for_whole", RECRYPT,
        "duplicateFolder(kLive, kCopy, isOfRecord)", "copyFolder(kLive, kCopy)", CALLS),
    Bug("copy_changed_in_place", RECORD,
        "    if (watched::rename(files.newDescriptor->c_str(), files.descriptor.c_str()) != 0) {\n"
        "        return kIo;",
        "    (void)os::openFile(files.descriptor.c_str(), O_WRONLY | O_TRUNC);\n"
        "    if (watched::rename(files.newDescriptor->c_str(), files.descriptor.c_str()) != 0) {\n"
        "        return kIo;"),
    Bug("swap_not_synced", RECRYPT,
        "const bool durable = os::syncFolder(\".\");", "const bool durable = true;"),
    Bug("live_database_deleted_before_the_swap", RECRYPT,
        "        if (watched::rename(kLive, kPrevious) != 0 ||",
        "        if (removeFolder(kLive) != kOk ||"),
    # What all of it stands on.
    Bug("failed_sync_ignored", FILES,
        "    return uninterrupted([&] { return os::fsync(file.get()); }) == 0 && file.close();",
        "    (void)uninterrupted([&] { return os::fsync(file.get()); });\n    return file.close();"),
    Bug("descriptor_leaks_when_a_sync_fails", FILES,
        "    return uninterrupted([&] { return os::fsync(file.get()); }) == 0 && file.close();",
        "    if (uninterrupted([&] { return os::fsync(file.get()); }) != 0) {\n"
        "        (void)file.release();\n        return false;\n    }\n    return file.close();", CALLS),
    Bug("short_write_taken_for_whole", FILES,
        "    const auto* next = static_cast<const char*>(data);\n    while (size != 0) {",
        "    const auto* next = static_cast<const char*>(data);\n    if (size != 0) {", CALLS),
    Bug("unexaminable_taken_for_absent", FILES,
        "return isAbsent ? Presence::kAbsent : Presence::kUnknown;",
        "(void)isAbsent;\n    return Presence::kAbsent;", CALLS),
)


if __name__ == "__main__":
    sys.exit(seeding.main(__doc__, "seeded bugs", BUGS, EVERY_DAY, PROGRAMS))
