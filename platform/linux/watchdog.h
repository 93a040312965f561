// The thread that ends the process when its orderly way out takes too long.
#pragma once

// Starts the watchdog. When `stopFd` becomes readable, the process has the time of its orderly way
// out left; then the watchdog logs what is stuck and ends the process with status 1, without static
// destructors. Returns true iff it runs. Main thread, once.
bool startWatchdog(int stopFd);
