#include "platform/application.h"

int TApplication::argc = 0;
char** TApplication::argv = nullptr;
Relaxed<bool> TApplication::stopped;
