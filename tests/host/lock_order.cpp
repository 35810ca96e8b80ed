// A takeover holds the mutex of an old object's guard while it enters the new
// module's registry. Later the guard may serve an object of the new module, and comes
// after that registry in the order of locks. The detector knows mutexes and not
// whose guard they are, so it takes the two for an inversion.
extern "C" const char* __tsan_default_suppressions();

extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions() {
    return "deadlock:CMN_ObjectManager::giveUp\n";
}
