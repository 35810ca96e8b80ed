// SPDX-License-Identifier: Apache-2.0
// Marks what a loadable module exports; everything else is hidden. The module's
// exports.map decides in the end.
#ifndef CMN_EXPORT_H
#define CMN_EXPORT_H

#define CMN_EXPORT __attribute__((visibility("default")))
#define CMN_HIDDEN __attribute__((visibility("hidden")))  // a private part of what is exported

// Framework globals are built before, and destroyed after, every other global of
// their module: stubs and holders that live as globals need them to the end.
#define CMN_BUILT_FIRST __attribute__((init_priority(101)))

#endif  // CMN_EXPORT_H
