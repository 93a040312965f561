// avi_check: judges an AVI file.
//
//   avi_check [--cut] FILE
//
// Prints what is in it as a JSON object. Exit status: 0 nothing is wrong; 1 something is; 2 wrong
// command line. --cut: it may be a file that was not closed, or that has lost its end.
#include <cstdio>
#include <cstring>

#include "tests/avi_check/avi_report.h"

int main(int argc, char** argv) {
  const bool cut = argc == 3 && std::strcmp(argv[1], "--cut") == 0;
  if (argc != (cut ? 3 : 2)) {
    std::fputs("usage: avi_check [--cut] FILE\n", stderr);
    return 2;
  }
  const AviReport report = checkAvi(argv[argc - 1], cut);
  std::printf("%s\n", report.json().c_str());
  return report.good() ? 0 : 1;
}
