#include "cmn/cmn_rmutex.h"

CMN_Mutex::~CMN_Mutex() {
    pthread_mutex_destroy(&mutex);
}

CMN_RecursiveMutex::~CMN_RecursiveMutex() {
    pthread_mutex_destroy(&mutex);
}

void CMN_RecursiveMutex::enter() CMN_NO_TSA {
    take();
}

bool CMN_RecursiveMutex::tryenter() CMN_NO_TSA {
    return tryTake();
}

int CMN_RecursiveMutex::exit() CMN_NO_TSA {
    return give();
}
