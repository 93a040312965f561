#include "board/hardware/scene.h"

#include <sys/stat.h>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "board/hardware/device_scene.h"
#include "board/hardware/media_scene.h"
#include "board/hardware/test_scene.h"

std::unique_ptr<Scene> openScene(const std::string& what, std::string* error) {
  if (what == "test") return std::make_unique<TestScene>(std::time(nullptr));
  struct stat about {};
  if (stat(what.c_str(), &about) != 0) {
    *error = what + ": " + std::strerror(errno);
    return nullptr;
  }
  if (S_ISCHR(about.st_mode)) return DeviceScene::open(what, error);
  if (S_ISDIR(about.st_mode)) return FolderScene::open(what, error);
  if (S_ISREG(about.st_mode)) return VideoScene::open(what, error);
  *error = what + ": neither a file nor a folder nor a camera";
  return nullptr;
}
