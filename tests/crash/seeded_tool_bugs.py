#!/usr/bin/env python3
"""Proves that the tests of the tool see: builds the library and the tool with one small fault at a
time, and the harness itself with one, and expects a test to fail. See seeding.py.

    seeded_tool_bugs.py BUILD_FOLDER [--all | NAME...]

Without names a fixed few are tried.
"""
import sys

from seeding import Bug, main

EVERY_DAY = ("token_not_compared", "exported_file_not_synced",
             "old_slot_dropped_before_the_old_folder",
             "body_deleted_that_is_still_named", "one_attribute_not_compared",
             "oracle_passes_over_lost_bytes")

# Beside each fault stands the test that must see it; no other is asked.
OTHERS = ()

ERROR = "lib/base/error.cpp"
FILES = "lib/base/files.cpp"
DRAFT = "os/draft.cpp"
FOLDER_LOCK = "lib/database/folder_lock.cpp"
LOCK_FILE = "lib/database/lock_file.cpp"
INSIDE = "lib/database/inside.cpp"
FOLDERS = "lib/database/folders.cpp"
RECOVERY = "lib/database/recovery.cpp"
CHANGE = "lib/database/password_change.cpp"
LOST = "lib/database/lost.cpp"
LOST_KEY = "lib/database/lost_key.cpp"
PROTECTION = "lib/database/protection.cpp"
FOLDER_CHECK = "lib/database/folder_check.cpp"
TREE = "lib/archive/tree.cpp"
OBJECTS = "lib/work/object_record.cpp"
ORACLE = "tests/crash/tool/tool_state.cpp"
HARNESS = "tests/crash/tool/tool_crash.cpp"
DISK = "tests/crash/disk_model.cpp"


def power(workload):
    return f"tool_crash_test:*LosesPower/{workload}"


def calls(workload):
    return f"tool_crash_test:*MeetsACallThatFails/{workload}"


def plain(workload):
    return f"tool_crash_test:*DoesWhatItIsFor/{workload}"


def lost(test):
    return f"lost_lock_test:*{test}"


def locking(test):
    return f"fstore_locking_test.py:LockFileTest.{test}"


BUGS = (
    # The lock.
    Bug("token_not_compared", FOLDER_LOCK,
        "    return holder->token == token_ ? std::string()",
        "    return !holder->token.empty() ? std::string()",
        lost("OnlyTheTokenSavesWhatTheOtherHostHasWritten/rm")),
    Bug("lock_not_taken_again", FOLDER_LOCK,
        "    switch (os::lockFile(file_.file(), os::LockKind::kExclusive, 0)) {",
        "    switch (os::Locked::kYes) {", lost("ALockThatTheSystemRefusesIsLost/rm")),
    Bug("lock_file_not_signed", FOLDER_LOCK,
        "            if (writes && token_.empty()) {", "            if (!writes) {",
        locking("test_a_writer_says_who_it_is")),
    Bug("unsigned_lock_between_hosts", FOLDER_LOCK,
        "    if (!file_.write(holder) && asks()) {", "    if (!file_.write(holder) && token_ == \"x\") {",
        lost("ALockThatCannotBeSignedIsNoneBetweenHosts/rm")),
    Bug("replaced_lock_file_believed", FOLDER_LOCK,
        "        if (file_.isCurrent()) {", "        if (file_.file()) {",
        locking("test_one_that_was_replaced_is_no_lock")),
    Bug("folder_not_locked", FOLDER_LOCK,
        "        wait(What::kFolder, kind);", "        (void)kind;",
        "fstore_locking_test.py:LockTest.test_another_writer_keeps_everybody_out"),
    Bug("link_taken_for_a_lock_file", LOCK_FILE,
        "constexpr int kFlags = O_NOFOLLOW |", "constexpr int kFlags =",
        locking("test_what_is_not_a_file_is_no_lock")),
    Bug("store_does_not_ask", INSIDE,
        "whyLost().empty() ? kOk : kIo", "knownLoss().empty() ? kOk : kIo",
        lost("LooksRightBeforeEachStepThatShows/put_over")),
    Bug("library_does_not_ask", ERROR,
        "    if (const std::string& why = lock->whyLost(); !why.empty()) {",
        "    if (const std::string& why = lock->knownLoss(); !why.empty()) {",
        lost("LooksRightBeforeEachStepThatShows/restore_replace")),
    Bug("goes_on_after_a_lost_lock", FOLDER_LOCK,
        "            lost_ = askWhyLost();", "            (void)askWhyLost();",
        lost("OnlyTheTokenSavesWhatTheOtherHostHasWritten/put_over")),
    # Files that the user names.
    Bug("exported_file_not_synced", DRAFT,
        "    if (!closeDurably(std::move(file_))) {", "    if (!file_.close()) {", power("get")),
    Bug("exported_name_not_synced", FILES,
        "    syncFolder(path_.substr(0, path_.rfind('/')) + \"/\");\n",
        "", power("get")),
    Bug("exported_file_named_before_it_is_durable", DRAFT,
        "    if (!closeDurably(std::move(file_))) {\n        return false;\n    }\n",
        "", power("get_over"),
        also=(("    named_->commit();\n    if (watch_",
               "    named_->commit();\n    (void)closeDurably(std::move(file_));\n    if (watch_"),)),
    Bug("exported_file_written_in_its_place", DRAFT,
        "    place_ = firstPlace(folder_, path_);",
        "    (void)os::remove(path_.c_str());\n    place_ = firstPlace(folder_, path_);",
        power("get_over")),
    Bug("failed_write_of_an_output_file_ignored", FILES,
        "    if (!os::writeAll(fd(), bytes.data(), bytes.size())) {",
        "    if (!os::writeAll(fd(), bytes.data(), bytes.size()) && !draft_) {",
        calls("get")),
    Bug("output_replaces_a_link", FILES,
        "            if (!isLinkOfDevices(path)) {\n                failOnLink(name);\n            }\n"
        "            return true;",
        "            return isLinkOfDevices(path);",
        "fstore_paths_test.py:OutputTest.test_a_link_is_not_followed"),
    Bug("body_that_is_a_link_followed", FILES,
        "os::openRegular(path.c_str(), file, size, os::Links::kRefuse)",
        "os::openRegular(path.c_str(), file, size, os::Links::kFollow)",
        "lib_files_test"),
    Bug("database_that_is_a_link_followed", "lib/database/database.cpp",
        "if (type == os::EntryType::kLink) {",
        "if (type == os::EntryType::kUnknown && place_.folder.empty()) {",
        "fstore_check_test.py:LinkTest.test_a_database_that_is_a_link_is_refused"),
    Bug("unexaminable_file_taken_for_absent", FILES,
        "    if (errno == ENOENT || errno == ENOTDIR) {\n        return false;\n    }\n"
        "    failWithErrno(\"examine\", path);\n}\n\nos::EntryType typeOf",
        "    return false;\n}\n\nos::EntryType typeOf",
        "lib_files_test:PresenceTest.WhatCannotBeExaminedIsNotAbsent"),
    Bug("tree_removed_through_a_link", FILES,
        "    if (type != os::EntryType::kFolder) {", "    if (type == os::EntryType::kFile) {",
        "lib_files_test:RemoveTreeTest.FollowsNoLink",
        also=(("os::File folder = os::openFile(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW",
               "os::File folder = os::openFile(path, O_RDONLY | O_DIRECTORY"),)),
    # The folders of the database.
    Bug("new_folder_not_synced_in_its_parent", "lib/database/folder_lock.cpp",
        "    if (!os::syncFolder(\"..\") && isNew) {",
        "    if (false && isNew) {", "folder_lock_test"),
    Bug("old_folder_deleted_under_its_name", FOLDERS,
        "    removeTree(kCopy);\n    rename(kPrevious, kCopy);\n    syncHere();\n    dropCopy();",
        "    removeTree(kPrevious);\n    syncHere();", power("passwd")),
    Bug("old_folder_deleted_before_its_new_name_is_durable", FOLDERS,
        "    rename(kPrevious, kCopy);\n    syncHere();\n    dropCopy();",
        "    rename(kPrevious, kCopy);\n    dropCopy();", power("passwd")),
    Bug("kept_database_not_synced", FOLDERS,
        "    rename(kPrevious, kept);\n    syncHere();",
        "    rename(kPrevious, kept);", power("passwd_keep_old")),
    Bug("exchange_of_a_restore_not_synced", FOLDERS,
        "    syncHere();\n    return keepPrevious(time);",
        "    return keepPrevious(time);", power("restore_replace")),
    Bug("restored_database_not_synced", FOLDERS,
        "        rename(kCopy, kLive);\n        syncHere();",
        "        rename(kCopy, kLive);", power("restore")),
    Bug("live_database_deleted_before_the_exchange", FOLDERS,
        "    rename(kLive, kPrevious);\n    requireLock();",
        "    removeTree(kLive);\n    requireLock();", plain("restore_replace")),
    Bug("copy_put_in_place_first", FOLDERS,
        "    (void)keepPrevious(time);\n    // While",
        "    removeTree(kPrevious);\n    // While", plain("restore_replace_with_foreign_old")),
    Bug("restored_files_not_synced", TREE,
        "    syncTree(folder);\n    return reader.totals();",
        "    return reader.totals();", power("restore")),
    # What a crash has left.
    Bug("saved_descriptor_put_back_over_the_new", RECOVERY,
        "    if (exists(descriptor)) {\n        return;\n    }\n", "", power("put_over"),
        also=(("        return exists(std::string(withoutMarker(path, kOldMarker)));",
               "        return path.empty();"),)),
    Bug("body_deleted_that_is_still_named", FOLDER_CHECK,
        "            if (owners_[i] == kNobody) {\n", "            {\n", plain("check_repair")),
    Bug("body_moved_that_a_damaged_record_may_name", FOLDER_CHECK,
        "        } else if (isInDoubt_ || mentioned_.contains(body)) {",
        "        } else if (body.empty()) {", "damage_test"),
    Bug("shared_body_deleted_with_its_record", "lib/records/body_owners.cpp",
        "            return fmt::format(\"is also named by {}\", *other);",
        "            continue;", "fstore_check_test.py:SharedBodyTest"),
    # What a repair moves away.
    Bug("lost_folder_not_synced", LOST,
        "            failWithErrno(\"create the folder\", layout::kLost);\n        }\n"
        "        syncFolder(\".\");\n",
        "            failWithErrno(\"create the folder\", layout::kLost);\n        }\n",
        power("check_repair")),
    Bug("folder_of_a_repair_not_synced", LOST,
        "    syncFolder(layout::kLost);\n    return name;", "    return name;", power("check_repair")),
    Bug("plan_of_a_repair_not_synced", LOST,
        "        !os::closeDurably(std::move(file))) {", "        !file.close()) {",
        power("check_repair")),
    Bug("files_moved_before_their_plan", LOST,
        "    writePlan(folder, plan);\n    std::set",
        "    std::set", power("check_repair"),
        also=(("    syncFolders(changed, folder, kLive);\n",
               "    syncFolders(changed, folder, kLive);\n    writePlan(folder, plan);\n"),)),
    Bug("undo_overwrites_what_is_there", LOST,
        "        if (exists(to) || isBodyTaken(folder, file.path)) {\n"
        "            report.taken.push_back(file.path);\n"
        "            continue;\n        }\n",
        "", "lost_test"),
    Bug("undo_not_synced", LOST,
        "    syncFolders(changed, kLive, folder);\n", "", power("check_undo")),
    Bug("purge_of_all_repairs", LOST,
        "    removeTree(folder);\n    syncFolder(layout::kLost);",
        "    removeTree(layout::kLost);\n    syncFolder(\".\");", plain("check_purge")),
    Bug("purge_not_synced", LOST,
        "    removeTree(folder);\n    syncFolder(layout::kLost);", "    removeTree(folder);",
        power("check_purge")),
    # The change of the password.
    Bug("slots_written_after_the_change", CHANGE,
        "    writeBothSets(before, fresh, keepOld);\n"
        "    const Protection changed = recrypt(store, observer, fresh.p, contents.secrets);",
        "    (void)store.recrypt(fresh.p, observer);\n"
        "    writeBothSets(before, fresh, keepOld);\n"
        "    const Protection changed = readProtection();", power("passwd")),
    Bug("old_slot_dropped_before_the_old_folder", CHANGE,
        "    const bool isPrevious = ",
        "    keepOnlyInForce(unfinished);\n    const bool isPrevious = ",
        power("passwd")),
    Bug("old_slot_not_dropped", CHANGE,
        "    keepOnlyInForce(unfinished);\n    return readProtection();",
        "    return readProtection();",
        "fstore_passwords_test.py:ChangeTest.test_all_of_it_opens_with_the_new_password_alone"),
    Bug("contents_not_compared_after_a_change", CHANGE,
        "    if (after.records != before.records || after.secrets != before.secrets ||\n"
        "        after.fingerprint != before.fingerprint) {",
        "    if (before.records != 0 && after.records == 0) {", "password_change_test"),
    Bug("names_not_compared_when_a_change_is_finished", CHANGE,
        "            requireNamesOf(layout::kPrevious, layout::kLive);\n", "", "password_change_test"),
    Bug("path_back_never_taken", CHANGE,
        "    undoExchange();\n    if (const Protection back = recover(store); back.isUndone()) {\n"
        "        (void)dropUndoneSet(back);\n    }\n", "", "password_change_test"),
    Bug("set_dropped_though_no_record_opens_with_the_other", "lib/database/database.cpp",
        "    if (examine(store_, {&p, 1}, /*byAll=*/false).fit != Evidence::Fit::kNone) {",
        "    if (p.size() != 1) {", "lost_key_test"),
    Bug("database_of_another_dropped", CHANGE,
        "    (void)keepWhatIsAside(observer);\n    writeBothSets(",
        "    writeBothSets(", plain("passwd_with_foreign_old")),
    Bug("kept_old_database_deleted", CHANGE,
        "    if (!unfinished.keepOld && isPrevious) {", "    if (isPrevious) {",
        plain("passwd_keep_old")),
    Bug("named_record_not_put_back_before_it_is_asked_for", RECOVERY,
        "        std::ranges::for_each(placesOf(text), putBackIfAside);\n", "        (void)text;\n",
        power("put_over")),
    Bug("named_record_put_back_over_a_newer_one", RECOVERY,
        "    return !exists(path) && isA(", "    return isA(",
        "named_test", also=(("    if (exists(descriptor)) {\n        return;\n    }\n", ""),)),
    # What opens the database.
    Bug("slots_acknowledged_after_the_first_copy", PROTECTION,
        "        write(second);\n", "        (void)second;\n", power("key_add_file"),
        also=(("    if (!written.kdf.isSound() || !written.copy.isSound() ||",
               "    if (before.highestSeq > UnlockRecord::kMostSeq || written.copy.isSound() ||"),
              ("!agree(written.kdf, written.copy) ||\n        written.copy.record != next) {",
               "next.sets.empty()) {\n        return;\n    }\n    if (next.db == DatabaseId()) {"))),
    Bug("older_copy_not_repaired", RECOVERY,
        "    return repairCopy(protection, /*opened=*/false) ? readProtection() : protection;",
        "    return protection;",
        "fstore_check_test.py:CheckTest.test_a_copy_of_the_slots_that_is_lost_is_written_again"),
    Bug("slots_not_synced", "lib/database/slot_copies.cpp",
        "    BodyOwners owners;  // a hostile one may name another record's body\n"
        "    file.write(owners);",
        "    std::string text;\n    for (const std::string& line : printUnlock(record)) {\n"
        "        text += \"00000004 00004b01 \" + line + \"\\n\";\n    }\n"
        "    const os::File out = os::openFile(descriptorPath(addressOf(name)).c_str(),\n"
        "                                      O_WRONLY | O_CREAT | O_TRUNC);\n"
        "    (void)os::writeAll(out.get(), text.data(), text.size());",
        power("key_add_password"),
        also=(("#include \"os/fs.h\"\n",
               "#include <fcntl.h>\n#include \"os/files.h\"\n#include \"os/fs.h\"\n"),)),
    Bug("dropped_slot_carried", "lib/work/key_slots.cpp",
        "        if (isNamed || slot.kind == SlotKind::kUnknown) {",
        "        if ((isNamed && !carry(slot)) || slot.kind == SlotKind::kUnknown) {",
        "key_slots_test"),
    Bug("removed_slot_stays", "lib/work/key_slots.cpp",
        "        requireRemovable(seen, slot, force);\n        return withoutSlot(seen.set, slot.n);",
        "        requireRemovable(seen, slot, force);\n        return seen.set;", plain("key_rm")),
    Bug("opener_is_not_looked_for", "lib/database/database.cpp",
        " || !isOpenerThere()", "", "key_slots_test"),
    Bug("number_names_any_slot", "lib/work/key_slots.cpp",
        "    if (!isSame(*found, named)) {", "    if (false && !isSame(*found, named)) {",
        "key_slots_test"),
    Bug("associated_data_not_checked", "lib/database/unlock_box.cpp",
        "            EVP_DecryptUpdate(context.get(), nullptr, &length, bytesOf(bound).data(),\n"
        "                              static_cast<int>(bound.size())) == 1 &&\n", "",
        "unlock_box_test",
        also=(("            EVP_EncryptUpdate(context.get(), nullptr, &length, bytesOf(bound).data(),\n"
               "                              static_cast<int>(bound.size())) == 1 &&\n", ""),)),
    Bug("p_not_held_against_the_slots_key", "lib/database/unlock_box.cpp",
        "    if (!fits(p, slot.key)) {", "    if (p.view().empty()) {", "unlock_box_test"),
    Bug("healed_while_the_key_fits_neither", PROTECTION,
        "    useCopy(protection, counts, protection.candidates.front().set, copies);\n",
        "    useCopy(protection, counts, protection.candidates.front().set, copies);\n"
        "    judgeOther(protection, copies);\n", "lost_key_test"),
    Bug("any_secret_proves_a_lost_key", LOST_KEY,
        "    const Evidence evidence = examine(store, keys, protection.keyIsForeign);",
        "    const Evidence evidence{.fit = Evidence::Fit::kOne};", "lost_key_test"),
    Bug("one_record_proves_a_key_that_another_program_changed", LOST_KEY,
        "examine(store, keys, protection.keyIsForeign)", "examine(store, keys, /*byAll=*/false)",
        "lost_key_test"),
    Bug("lost_key_taken_for_no_password", LOST_KEY,
        "    if (protection.isUndone() && !protection.hasPassword() &&\n",
        "    if (protection.isUndone() && protection.hasPassword() &&\n", "lost_key_test"),
    # What is handed out was compared.
    Bug("digest_not_compared", "lib/database/deep_read.cpp",
        "    if (expected && !std::ranges::equal(*expected, sha256(record.body()))) {",
        "    if (expected && expected->size() != sha256(record.body()).size()) {",
        "fstore_check_test.py:SwappedBodiesTest"),
    Bug("one_attribute_not_compared", OBJECTS,
        "        if (id != attr::kSchema && !stored.empty() &&",
        "        if (id != attr::kSchema && id != attr::kNotAfter && !stored.empty() &&",
        "object_record_test"),
    Bug("encrypted_attributes_not_compared", OBJECTS,
        "        if (record.id(i) == id) {\n            indices",
        "        if (record.id(i) == id && !record.isEncrypted(i)) {\n            indices",
        "object_record_test"),
    Bug("object_not_compared_before_export", "lib/work/object_record.cpp",
        "    checkObject(record);\n    return record;", "    return record;",
        "fstore_export_test.py:ContradictedTest.test_is_not_exported"),
    Bug("objects_not_compared_by_check", "fstore/commands/check.cpp",
        "    options->check.examiner = &objectExaminer();\n", "",
        "fstore_export_test.py:ContradictedTest.test_certificate_that_was_prolonged_is_found"),
    Bug("unreadable_input_dropped_silently", "fstore/commands/import.cpp",
        "            items.push_back({file, {0, \"\", failure}, false});\n", "            (void)failure;\n",
        "fstore_import_test.py"),
    Bug("input_object_dropped_silently", "fstore/commands/import.cpp",
        "                items.push_back({file, std::move(part), true});",
        "                if (items.size() < 2) {\n"
        "                    items.push_back({file, std::move(part), true});\n                }",
        "fstore_import_test.py"),
    # The harness: a mistake in what judges must be noticed too.
    Bug("oracle_passes_over_lost_bytes", ORACLE,
        "        if (!isThere) {\n            wrong +=", "        if (!isThere && bytes.empty()) {\n            wrong +=",
        "tool_oracle_test"),
    Bug("oracle_takes_old_for_acknowledged", ORACLE,
        "    if (acknowledged == Acknowledged::kYes) {\n        judgeAcknowledged",
        "    if (promise.bytes.size() == 99) {\n        judgeAcknowledged", "tool_oracle_test"),
    Bug("oracle_does_not_ask_what_opens", ORACLE,
        "    if (seen.database->openers != before.openers && ",
        "    if (seen.database->openers.empty() && seen.database->openers != before.openers && ",
        "tool_oracle_test"),
    Bug("oracle_looks_at_no_body", ORACLE,
        "    if (record.hasBody()) {\n", "    if (false && record.hasBody()) {\n", "tool_oracle_test"),
    Bug("oracle_counts_no_kept_database", ORACLE,
        "        if (!take(rest, kept)) {", "        if (!take(rest, kept) && rest.empty() && kept.records.empty()) {",
        "tool_oracle_test"),
    Bug("oracle_passes_over_faults", ORACLE,
        "    for (const std::string& fault : seen.faults) {\n        wrong << \"  \" << fault << '\\n';\n    }\n",
        "", "tool_oracle_test"),
    Bug("oracle_takes_any_record", ORACLE,
        "        if (value != valueOf(before, name) && value != valueOf(after, name)) {",
        "        if (!value && valueOf(before, name) && valueOf(after, name)) {", "tool_oracle_test"),
    Bug("oracle_passes_over_what_stands_aside", ORACLE,
        "    if (!isAfter && !isBefore && !isReplaced) {", "    if (!isAfter && !isBefore && !seen.aside) {",
        "tool_oracle_test"),
    Bug("harness_ignores_the_second_check", HARNESS,
        "    return ran.code == 0 ? \"\" :", "    return ran.code != 99 ? \"\" :", "tool_oracle_test"),
    Bug("harness_tries_no_state", HARNESS,
        "            trees.insert(hashOf(tree));\n            const std::string wrong =\n                first.empty() ?",
        "            trees.insert(hashOf(tree));\n            const std::string wrong =\n                tree.empty() ?",
        "tool_oracle_test"),
    Bug("every_call_is_a_sync", DISK,
        "void Disk::apply(const fault::Event& call) {\n",
        "void Disk::apply(const fault::Event& call) {\n    syncAll();\n", "disk_model_test"),
)

if __name__ == "__main__":
    sys.exit(main(__doc__, "seeded bugs of the tool", BUGS, EVERY_DAY, OTHERS))
