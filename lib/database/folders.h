// The three folders that a database is made of, and every move between them.
//
//     ./db       the database
//     ./new_db   a copy that is being made; nobody reads it
//     ./old_db   the database as it was before a copy took its place
//
// The store makes some of these moves itself: recrypt() makes the copy, removes the previous
// ./old_db, renames ./db to ./old_db and ./new_db to ./db; prepareDBFolders() renames a
// lone ./old_db back. All others are here, so that every crash leaves one of the states of
// this table, and one place decides what to do about it. "d", "n" and "o" are the three
// folders.
//
//     d n o   how it came about            what it means, and what happens to it
//     - - -   before `init`                no database
//     d - -   nothing is under way         the database
//     d n -   a change of the password     the database; the copy may be anything from begun
//             or a restore, broken off     to complete and is dropped by whoever locks
//             before its exchange; or      exclusively next. It may also be what was to be
//             the end of a change          removed
//     d - o   an exchange is done          the database. While "kdf" has two slots, the new
//                                          one in force, and ./old_db has the key of the old
//                                          one, ./old_db is dropped, or kept if "kdf" says so.
//                                          Any other ./old_db is a database that somebody
//                                          wants: a restore was broken off, or another program
//                                          changed the password. It is kept before anything
//                                          could take its place
//     d n o   as "d - o", and the next     as "d - o"; the copy is dropped
//             change was broken off
//     - n o   an exchange was broken off   ./old_db is the database: it is put back, then
//             between its two renames      the copy is dropped. `check` puts back only
//     - - o   the same, without the copy   the same
//     - n -   the first restore into the   no database; the next `init` or `restore` removes
//             folder, interrupted          the copy
//
// What is kept is renamed to ./db-<time>, which no command takes for its own or touches.
//
// Paths are relative to the current folder. For one thread, which keeps other processes
// out. Failures throw. Each move can be interrupted anywhere, and leaves a state of the table.
#ifndef LIB_DATABASE_FOLDERS_H
#define LIB_DATABASE_FOLDERS_H

#include <optional>
#include <string>
#include <vector>

namespace fstore {

// Which of them exist.
struct FolderState {
    bool live = false;
    bool copy = false;
    bool previous = false;

    // One of them is the database.
    bool hasDatabase() const noexcept { return live || previous; }
};

FolderState folderState();

// "./new_db" or "./old_db" where it is no folder: somebody's file, or link. "./db" is never a link,
// so neither are these.
std::optional<std::string> noFolder();

// The path of something in "./new_db" or "./old_db" that no database holds: then the folder is the
// user's, and must not be removed or taken for a database. Nothing where all is as a change of the
// password or a restore leaves it, whole or broken off.
std::optional<std::string> notOfDatabase();

// Undoes an exchange that was interrupted between its renames: without "./db", "./old_db" is
// the database. Changes nothing else.
void putPreviousBack();

// Removes "./new_db", if it is there.
void dropCopy();

// Removes "./old_db", if it exists, as a copy: so there is never a part of an "./old_db".
void dropPrevious();

// Undoes an exchange: "./old_db" is the database again, and what was is the copy.
void undoExchange();

// Keeps "./old_db" as "./db-<time>", and returns that name; empty when it is not there.
std::string keepPrevious(const std::string& time);

// The databases that were kept, by name: "./db-20261121T230000Z".
std::vector<std::string> keptDatabases();

// Makes "./new_db" the database. Returns the name by which the one before is kept,
// "./db-<time>"; empty when there was none.
std::string exchangeForCopy(const std::string& time);

}  // namespace fstore

#endif  // LIB_DATABASE_FOLDERS_H
