/* Stopping an acquisition in progress: a program asks from a signal handler or from another
 * thread, and the library's wait that meets the request gives up. */
#ifndef TVX_ABORT_H
#define TVX_ABORT_H

#include "tvx/types.h"

TVX_BEGIN_DECLS

/* Asks the library's wait in progress, or the next one, to give up. Safe from a signal handler and
 * from any thread: it only sets a flag. */
TVX_API void tvx_abort_request(void);
/* Whether an abort has been asked for and not yet met by a wait. */
TVX_API BOOL tvx_abort_pending(void);
/* Forgets an abort that no wait has met. */
TVX_API void tvx_abort_clear(void);

TVX_END_DECLS

#endif
