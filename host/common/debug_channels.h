/* What the rest of the runtime does with the process's debug channels. */
#ifndef TIRVAL_COMMON_DEBUG_CHANNELS_H
#define TIRVAL_COMMON_DEBUG_CHANNELS_H

namespace tirval::common {

/* Writes and flushes a text to every open channel.  For a process that is about to end: a stream
 * that another thread keeps locked is left out after a moment. */
void write_to_debug_channels(const char *text) noexcept;

} // namespace tirval::common

#endif
