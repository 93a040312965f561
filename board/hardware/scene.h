// What is in front of the camera.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "board/hardware/picture.h"

struct Rectangle {
  int x;
  int y;
  int width;
  int height;
};

// Something to look at. Not synchronised: World calls it under its lock.
class Scene {
 public:
  Scene() = default;
  Scene(const Scene&) = delete;
  Scene& operator=(const Scene&) = delete;
  virtual ~Scene() = default;

  // Draws what is to be seen at `timeMs`, counted from the start, into a picture of the scene's
  // size. `moving`: where something is to move, null: nowhere; scenes that have no such object
  // leave it out.
  virtual void draw(std::int64_t timeMs, const Rectangle* moving, AVFrame* picture) = 0;
};

// Makes a scene. `what`: "test" (colour bars, a clock and an object that moves when told to), a
// video file, a folder of JPEG pictures, or a Video4Linux 2 device such as "/dev/video0" of the PC.
// Returns null and sets `*error` when it can't be opened.
std::unique_ptr<Scene> openScene(const std::string& what, std::string* error);
