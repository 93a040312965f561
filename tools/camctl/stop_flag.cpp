#include "tools/camctl/stop_flag.h"

#include <csignal>
#include <initializer_list>

namespace {
volatile std::sig_atomic_t asked = 0;
}  // namespace

void endInOrder() {
  struct sigaction action {};
  action.sa_handler = [](int) { asked = 1; };
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) sigaction(number, &action, nullptr);
  action.sa_handler = SIG_IGN;
  sigaction(SIGPIPE, &action, nullptr);
}

bool endAsked() { return asked != 0; }
