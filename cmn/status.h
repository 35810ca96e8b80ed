// SPDX-License-Identifier: Apache-2.0
// The status codes of the store, named once.
//
// Operations return an unsigned 32-bit status, 0 for success. The numbers are part of the
// binary contract with other modules and are the exit codes of the command-line tool.
// Statuses of other modules are passed on unchanged, so a status is a number and not an
// enumeration.
#ifndef CMN_STATUS_H
#define CMN_STATUS_H

using Status = unsigned int;

inline constexpr Status kOk = 0;
inline constexpr Status kNoMemory = 1;       // memory could not be allocated
inline constexpr Status kInvalid = 4;        // null argument or value out of range
inline constexpr Status kWrongPassword = 6;  // the password is not the database's
inline constexpr Status kIo = 9;             // a file or a cipher step failed
inline constexpr Status kNotOpen = 14;       // closed service, or unreadable password record
inline constexpr Status kTooSmall = 16;      // output buffer too small
inline constexpr Status kAlreadyOpen = 33;   // the database is open already
inline constexpr Status kClosed = 35;        // database or iterator not open
inline constexpr Status kEnd = 36;           // out of range, not found, end of a listing
inline constexpr Status kNoObject = 40;      // a proxy or stub holds no object
inline constexpr Status kMissing = 50;       // no such file, or a record without file name
inline constexpr Status kMalformed = 59;     // malformed data
inline constexpr Status kNoDigest = 74;      // password record without its digest

#endif  // CMN_STATUS_H
