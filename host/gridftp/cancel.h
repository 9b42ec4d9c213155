/* What the runs need of the cancel flag beyond its public functions. */
#ifndef TIRVAL_GRIDFTP_CANCEL_H
#define TIRVAL_GRIDFTP_CANCEL_H

#include "tirval_gfs_host.h"

namespace tirval_gfs {

/* Clears the flag if it is set for this reason. */
void clear_cancel(tirval_gfs_cancel_reason_t reason);

} // namespace tirval_gfs

#endif
