// SPDX-License-Identifier: Apache-2.0
// Contexts: databases in other folders than the process's.
//
// The store's operations take no argument that says which database they are for. That is
// "./db" of the process's folder, until a thread enters a context: from then on everything
// that this thread does through the store (the service, records, lists) is done in the
// context's folder, with ciphers, an open state and a lock of its own, until it leaves. So one
// process works with any number of databases at once, from any thread and without chdir(), and
// a writer in one of them delays nobody in another. Who never enters one notices nothing.
//
// A record or list belongs to the database that its thread worked on when it was made. In
// another one its operations on files, and decrypt(), answer kInvalid and change nothing;
// isExist() answers 1, since absence cannot be told from there.
//
// Any thread may call any of these functions; what a thread has entered is its own. open(),
// close() and recrypt() of one database are called one at a time, as ever. Contexts end with
// the module at the latest: once it has been stopped, none can be entered any more.
//
// These are plain exports of the store's module, to be found with dlsym().
#ifndef API_FILESTORE_CONTEXT_H
#define API_FILESTORE_CONTEXT_H

#include "cmn/export.h"
#include "cmn/status.h"

extern "C" {

// Makes a context for the database in `folder`, an open folder. It stays the caller's, who
// keeps it open until the context has been deleted. The database is closed; nothing on disk is
// touched. `context` becomes the number of the context, never 0.
//   kInvalid   `folder` is no open folder, or `context` is null
//   kNoMemory  nothing was made
CMN_EXPORT Status filestore_contextMake(int folder, unsigned int* context);

// The thread enters the context, or with 0 the process's folder. `before` becomes what it was
// in until now, for the call that leaves.
//   kInvalid  `before` is null
//   kEnd      there is no such context (any more); the thread stays where it is
CMN_EXPORT Status filestore_contextEnter(unsigned int context, unsigned int* before);

// The thread leaves what it entered last, and is in `before` again.
//   kEnd  the thread was never there; it stays where it is
CMN_EXPORT Status filestore_contextLeave(unsigned int before);

// From now on the store calls ask(argument) right before each rename and each removal by which a
// change of the context's database becomes visible, in the thread that makes the change, which is
// inside. Another answer than kOk stops it: the operation fails with kIo, and from then on neither
// renames nor removes anything, not even what it has made itself. For programs whose lock on the
// database can be lost while they work. `ask` takes no part in the store; null ends the asking.
// Nobody is inside meanwhile.
//   kEnd          there is no such context
//   kAlreadyOpen  a thread is inside; nothing has changed
CMN_EXPORT Status filestore_contextWatch(unsigned int context, Status (*ask)(void* argument),
                                         void* argument);

// Closes the database, which takes the key from its ciphers, and ends the context. Records
// and lists of it that are still held can be let go of, and nothing else.
//   kEnd          there is no such context
//   kAlreadyOpen  a thread is inside; nothing has changed
CMN_EXPORT Status filestore_contextDelete(unsigned int context);
}

#endif  // API_FILESTORE_CONTEXT_H
