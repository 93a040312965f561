// The frame around the application object, and the audio thread.
#include "platform/application.h"
#include "platform/audio.h"
#include "platform/os.h"
#include "tests/fakes/fake_platform.h"

namespace {
TApplication* g_application = nullptr;
}

int TApplication::argc = 0;
char** TApplication::argv = nullptr;
Relaxed<bool> TApplication::stopped;

TApplication::TApplication() { g_application = this; }

TApplication::~TApplication() {
  if (g_application == this) g_application = nullptr;
}

bool TApplication::onInitial() { return true; }
bool TApplication::onRelease() { return true; }

int TApplication::main(int count, char** arguments) {
  argc = count;
  argv = arguments;
  if (!g_application->onInitial()) return 1;
  const bool ran = g_application->onRunning();
  const bool released = g_application->onRelease();
  return ran && released ? 0 : 1;
}

TAudioArgs::TAudioArgs(int, char**) {}

void TAudioArgs::usage() const { FakePlatform::the().record("usage(audio)"); }

TAudioSource::TAudioSource(TAudioArgs& args) : PThread("audio"), source_(args.source) {
  if (FakePlatform::the().failing("TAudioSource")) throw source_;
}

TAudioSource::~TAudioSource() = default;

void TAudioSource::execute() {
  while (running()) os::sleep(1);
}
