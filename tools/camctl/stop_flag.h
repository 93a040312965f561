// Ending by Ctrl-C, in commands that run on.
#pragma once

// From now on SIGINT, SIGTERM and SIGHUP only ask for the end, and a reader of our output that goes
// away is an error code. Main thread.
void endInOrder();

// Returns true iff the end was asked for.
bool endAsked();
