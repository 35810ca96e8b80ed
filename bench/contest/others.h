// The contenders that need libraries of their own.
#ifndef BENCH_CONTEST_OTHERS_H
#define BENCH_CONTEST_OTHERS_H

#include "bench/contest/contender.h"

// SQLite with a write-ahead log and with a rollback journal, and SQLCipher.
void addSql(std::vector<Entrant>& entrants);
void addLmdb(std::vector<Entrant>& entrants);

// All of them; none where their libraries were not there to build with.
void addOthers(std::vector<Entrant>& entrants);

#endif  // BENCH_CONTEST_OTHERS_H
