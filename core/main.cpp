// The daemon's entry.
#include "core/video_server.h"

TVideoServer theApp;

int main(int argc, char** argv) { return TApplication::main(argc, argv); }
