// A process with the daemon's libraries that does nothing: see start_stop.cpp. With an argument it
// waits for a signal.
#include <unistd.h>

int main(int argc, char** /*argv*/) { return argc > 1 ? pause() : 0; }
