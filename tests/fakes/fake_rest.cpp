// The only real pause of the tests' fakes.
#include <unistd.h>

#include "tests/fakes/fake_seam.h"

void fake_seam::restInRealTime(long microseconds) { ::usleep(static_cast<unsigned>(microseconds)); }
