/// How the queues' threads keep the process small.
#pragma once

namespace device {

/// Gives back to the system what a flood, or one large message, took. The allocator keeps what is
/// freed, in gaps between what lives on, for the rest of a life of months. Called by a queue's
/// thread before it waits; does so only when there is much more to give than after the last time.
void giveBackMemory();

}  // namespace device
