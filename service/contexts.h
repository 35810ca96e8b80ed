// The contexts of this module (api/filestore_context.h): which there are, and who is inside.
#ifndef SERVICE_CONTEXTS_H
#define SERVICE_CONTEXTS_H

#include "service/open_state.h"

// The open state of the context that this thread has entered, or null.
OpenState* enteredState() noexcept;

// Ends all contexts, as the service or the module ends. One that a thread is still inside
// loses its key and its ciphers now, and its place when that thread leaves.
void dropContexts();

#endif  // SERVICE_CONTEXTS_H
