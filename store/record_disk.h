// The steps by which records reach the disk and come back whole.
#ifndef STORE_RECORD_DISK_H
#define STORE_RECORD_DISK_H

#include <cstdio>
#include <string>

#include "cmn/status.h"

// A name of 8 hexadecimal digits such that there is no file `folder` + "/" + name +
// `suffix`; either may be null. After 100,000 names that are taken it returns the next one
// untested: callers that must not touch another's file create theirs exclusively, and ask
// again. One counter serves all folders of the process. Two threads get different names,
// also without a lock.
std::string getUniqueName(const char* folder, const char* suffix);

// Flushes, syncs and closes a stream: -1 when the flush or the sync fails, the
// stream is still open then; otherwise the result of fclose().
int syncClose(std::FILE* stream);

// Repairs a descriptor whose replacement was interrupted: puts the saved one back
// when there is no other, and deletes it when there is. Durable.
//   kOk  also when there was nothing to repair, or another thread was faster
//   kIo  it could not be repaired, or not be examined
[[nodiscard]] Status tryCorrectName(const char* folder, const char* fileName);

#endif  // STORE_RECORD_DISK_H
