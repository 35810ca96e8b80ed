#include "bench/contest/others.h"

void addOthers(std::vector<Entrant>& entrants) {
    addSql(entrants);
    addLmdb(entrants);
}
