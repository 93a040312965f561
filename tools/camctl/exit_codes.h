// What camctl tells scripts when it ends; camctl.1 says the same.
#pragma once

enum ExitCode {
  kExitOk = 0,
  kExitFailed = 1,     // what was asked could not be done
  kExitUsage = 2,      // the command line is wrong, or does not say which of several cameras
  kExitNoCamera = 3,   // no camera runs there
  kExitNoPicture = 4,  // the camera runs, but delivers no picture
};
